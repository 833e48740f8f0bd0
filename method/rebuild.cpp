#include "method/rebuild.h"

#include <unistd.h>

#include <cstdlib>
#include <cstring>

#include "method/capture.h"
#include "method/checkpoint.h"
#include "method/interface.h"
#include "method/lock_file.h"
#include "method/log.h"
#include "method/records.h"
#include "method/report.h"
#include "method/text.h"
#include "method/transfer_file.h"
#include "symapi/symapi_session.h"
#include "timefinder.h"

namespace {

using tf::ErrorNumber;
using tf::fail;
using tf::rebuild_reporter;
namespace key = tf::key;
namespace marker = tf::marker;
namespace msg = tf::msg;

// The line numbers that the memory message carries; operators know them, so they are fixed.
constexpr int line_record = 2233;
constexpr int line_scratch = 2241;
constexpr int line_transfer_name = 2280;
constexpr int line_transfer_write = 2315;
constexpr int line_device = 2329;

int32_t no_memory(int line) {
    return fail(ErrorNumber::memory, msg::no_memory, rebuild_reporter, line);
}

// A rebuilt object. The record stands first, so a pointer to it is a pointer to the block.
struct RebuiltObject {
    hdef record;
    RebuiltObject *next_unlisted;
};

// Records of failed rebuilds: the framework holds them as handles, yet no disk group lists them.
// They stay valid until the library is unloaded, and go then together with their files.
class UnlistedRecords {
  public:
    ~UnlistedRecords() { free_all(); }
    void free_all() {
        while (first_ != nullptr) {
            RebuiltObject *object = first_;
            first_ = object->next_unlisted;
            tf::remove_capture_files(&object->record);
            tf::discard_transfer_file(&object->record);
            tf::free_hdef(&object->record);
        }
    }
    void keep(RebuiltObject *object) {
        object->next_unlisted = first_;
        first_ = object;
    }

  private:
    RebuiltObject *first_ = nullptr;
};
UnlistedRecords unlisted_records;

// One rebuild.
struct Rebuild {
    RebuiltObject *object = nullptr;       // in unlisted_records until a disk group lists it
    hdef *h = nullptr;                     // object's record
    tf::HeapOwner<prim_mir_info> scratch;  // collects the fields of the next device record
    tf::ConversionTable table;             // over *h and *scratch
    tf::TransferFile transfer;
    prim_mir_info **tail = nullptr;  // where the next device record is hung
    bool in_clone = false;           // between the lines of a clone block
    int32_t status = 0;              // of the last converted line
};

// The value of a line "key=value", or null when the line has another key. Most lines differ in one
// of the first two characters.
template <size_t N>
[[gnu::always_inline]] inline char *value_of(char *line, const char (&wanted)[N]) {
    constexpr size_t length = N - 1;
    static_assert(length >= 2);
    if (line[0] != wanted[0] || line[1] != wanted[1]) return nullptr;
    if (strncmp(line, wanted, length) != 0 || line[length] != '=') return nullptr;
    return line + length + 1;
}

template <size_t N>
[[gnu::always_inline]] inline bool is_marker(char *line, const char (&wanted)[N],
                                             const char *value) {
    const char *found = value_of(line, wanted);
    return found != nullptr && strcmp(found, value) == 0;
}

int32_t to_integer(const char *text) {
    return static_cast<int32_t>(strtol(text, nullptr, 10));
}

int32_t bring_up_array() {
    if (resolve_symapi != 0) return tf::success;
    resolve_symapi = 1;
    return init_tflib();
}

int32_t make_records(Rebuild *rebuild, hdef **fih) {
    rebuild->object = tf::make_zeroed<RebuiltObject>();
    if (rebuild->object == nullptr) return no_memory(line_record);
    rebuild->h = &rebuild->object->record;
    rebuild->tail = &rebuild->h->pminfo_list;
    *fih = rebuild->h;
    rebuild->scratch.reset(tf::make_zeroed<prim_mir_info>());
    if (!rebuild->scratch) return no_memory(line_scratch);
    tf::make_capture_files(rebuild->h);
    rebuild->h->is_rebuilt = 1;
    return tf::success;
}

// Nothing is cloned here: is_vol is still 0 while the keys are registered.
int32_t register_keys(Rebuild *rebuild) {
    const int32_t status = rebuild->table.open(rebuild_reporter);
    if (status != 0) return status;
    convert_table *table = rebuild->table.get();
    static_cast<void>(build_table_hdef(table, rebuild->h));
    tf::build_table_owners(table, rebuild->scratch.get());
    static_cast<void>(build_table_pminfo(table, rebuild->scratch.get(), nullptr));
    return tf::success;
}

// Made by every rebuild, also where the text has no clone block: what ends the object's life
// deletes it by the path in the record.
int32_t make_transfer_file(Rebuild *rebuild) {
    const tf::HeapOwner<char> name(tf::temporary_name("EMCTX"));
    if (!name) return no_memory(line_transfer_name);
    tf::put(rebuild->h->transfer_file, name.get());
    if (rebuild->transfer.create(rebuild->h->transfer_file)) return tf::success;
    return fail(ErrorNumber::limit, msg::cannot_open_file, rebuild_reporter,
                rebuild->h->transfer_file);
}

// A line of a clone block. The path in it is the stale copy of the file that is written here anew.
int32_t take_clone_line(Rebuild *rebuild, char *line) {
    const char *stale = value_of(line, key::transfer_file);
    if (stale != nullptr) {
        unlink(stale);
        return tf::success;
    }
    return rebuild->transfer.write_line(line) ? tf::success : no_memory(line_transfer_write);
}

// The device record collected so far becomes the last of the chain.
int32_t commit_device(Rebuild *rebuild) {
    tf::HeapOwner<prim_mir_info> device(tf::make_zeroed<prim_mir_info>());
    if (!device) return no_memory(line_device);
    prim_mir_info *scratch = rebuild->scratch.get();
    const int32_t status = tf::derive_device_paths(rebuild->h, scratch);
    if (status != 0) return status;
    *device.get() = *scratch;
    *rebuild->tail = device.release();
    rebuild->tail = &(*rebuild->tail)->next;
    memset(scratch, 0, sizeof *scratch);
    return tf::success;
}

// A key=value line. The last one decides the status of the whole text: an older text with one line
// that is no longer understood still loads, as long as a good line follows.
void convert_line(Rebuild *rebuild, char *line) {
    rebuild->status = tf::success;
    if (convert_internal(rebuild->table.get(), line) != 0) {
        rebuild->status = fail(ErrorNumber::memory, msg::conversion, rebuild_reporter,
                               convert_errmsg(rebuild->table.get()));
    }
}

int32_t take_record_line(Rebuild *rebuild, char *line) {
    if (is_marker(line, key::pair, marker::start)) return tf::success;
    if (is_marker(line, key::pair, marker::end)) return tf::success;
    if (is_marker(line, key::pair, marker::next)) return commit_device(rebuild);
    if (const char *value = value_of(line, key::is_tgt); value != nullptr) {
        rebuild->h->is_tgt = to_integer(value);
    } else if (const char *restore = value_of(line, key::restore); restore != nullptr) {
        rebuild->h->restore = to_integer(restore);
    } else {
        convert_line(rebuild, line);
    }
    return tf::success;
}

int32_t take_line(Rebuild *rebuild, char *line) {
    if (is_marker(line, key::clone_info, marker::start)) {
        rebuild->in_clone = true;
        return tf::success;
    }
    if (is_marker(line, key::clone_info, marker::end)) {
        rebuild->transfer.close();
        rebuild->in_clone = false;
        return tf::success;
    }
    return rebuild->in_clone ? take_clone_line(rebuild, line) : take_record_line(rebuild, line);
}

// A last piece without a newline is no line: a text that was cut off ends before it.
int32_t take_lines(Rebuild *rebuild, char *text) {
    for (char *line = text;;) {
        char *const end = strchr(line, '\n');
        if (end == nullptr) return tf::success;
        *end = '\0';
        const int32_t status = take_line(rebuild, line);
        if (status != 0) return status;
        line = end + 1;
    }
}

// The locks that the freezing process recorded are taken again, so that the counts stay balanced
// when thaw commit clears them. An alternate host holds no locks.
int32_t lock_devices(hdef *h) {
    if (h->is_tgt != 0) return tf::success;
    for (prim_mir_info *pm = h->pminfo_list; pm != nullptr; pm = pm->next) {
        tf::log_trace("%s: block: %s, raw: %s", rebuild_reporter, pm->dev_block_device,
                      pm->dev_raw_device);
        tf::put(pm->p_dev_raw_device, pm->dev_raw_device);
        if (pm->lock_set != 0 && manage_lock(h, pm, TF_LOCK_SET) != 0) {
            return fail(ErrorNumber::operation, msg::cannot_lock_device, rebuild_reporter,
                        pm->p_dev_raw_device);
        }
    }
    return tf::success;
}

int32_t refuse_restore_without_import(const hdef *h) {
    if (h->restore == 0 || h->dgimport != 0) return tf::success;
    return fail(ErrorNumber::parameter, msg::restore_needs_import, rebuild_reporter);
}

int32_t rebuild_object(Rebuild *rebuild, hdef **fih, char *text) {
    int32_t status = make_records(rebuild, fih);
    if (status == 0) status = register_keys(rebuild);
    if (status == 0) status = make_transfer_file(rebuild);
    if (status == 0) status = take_lines(rebuild, text);
    if (status == 0) status = lock_devices(rebuild->h);
    if (status == 0) status = refuse_restore_without_import(rebuild->h);
    if (status != 0) return status;
    if (rebuild->status == 0) rebuild->status = dg_insert(rebuild->h);
    total_freeze_volumes += 1;
    return rebuild->status;
}

}  // namespace

void tf::free_failed_rebuilds() {
    unlisted_records.free_all();
}

int32_t TimeFinder_rebuild(hdef **fih, char *text) {
    if (fih == nullptr) {
        return fail(ErrorNumber::parameter, msg::parameter_null, rebuild_reporter, "fih");
    }
    if (text == nullptr) {
        return fail(ErrorNumber::parameter, msg::parameter_null, rebuild_reporter, "text");
    }
    int32_t status = bring_up_array();
    if (status != 0) return status;
    Rebuild rebuild;
    status = rebuild_object(&rebuild, fih, text);
    if (status != 0 && rebuild.object != nullptr) unlisted_records.keep(rebuild.object);
    return status;
}
