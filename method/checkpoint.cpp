#include "method/checkpoint.h"

#include <cstddef>
#include <cstring>

#include "method/capture.h"
#include "method/command.h"
#include "method/freeze.h"
#include "method/paths.h"
#include "method/records.h"
#include "method/report.h"
#include "method/text.h"
#include "method/transfer_file.h"
#include "method/volume_lists.h"
#include "timefinder.h"

namespace {

using tf::ErrorNumber;
using tf::fail;
namespace msg = tf::msg;

constexpr char reporter[] = "TimeFinder_ckpt";

// One field of a record under its key.
struct Field {
    const char *key;
    int32_t type;
    uint64_t size;
    size_t offset;
};

// Every caller of the table registers an integer with the size 8, whatever its width.
constexpr uint64_t integer_size = 8;

#define TF_HDEF_INTEGER(field) \
    { "HDEF-" #field, CTYPE_INT, integer_size, offsetof(hdef, field) }
#define TF_HDEF_TEXT(field) \
    { "HDEF-" #field, CTYPE_STR, sizeof(hdef::field), offsetof(hdef, field) }
#define TF_PMINFO_INTEGER(field) \
    { "PMINFO-" #field, CTYPE_INT, integer_size, offsetof(prim_mir_info, field) }
#define TF_PMINFO_TEXT(field) \
    { "PMINFO-" #field, CTYPE_STR, sizeof(prim_mir_info::field), offsetof(prim_mir_info, field) }

// The order of these rows is the order of the lines.
constexpr Field hdef_fields[] = {
    TF_HDEF_INTEGER(sync_at_start), TF_HDEF_INTEGER(async_resync), TF_HDEF_INTEGER(is_vol),
    TF_HDEF_INTEGER(is_mount),      TF_HDEF_INTEGER(object_type),  TF_HDEF_TEXT(mount_point),
    TF_HDEF_TEXT(vol_group),        TF_HDEF_TEXT(vol_name),        TF_HDEF_TEXT(clone_group),
    TF_HDEF_TEXT(primary_host),     TF_HDEF_TEXT(fstype),          TF_HDEF_INTEGER(keep_fi),
    TF_HDEF_INTEGER(dgimport),      TF_HDEF_TEXT(fs_path),         TF_HDEF_TEXT(dev_raw_device),
    TF_HDEF_TEXT(dev_block_device),
};
constexpr Field owner_fields[] = {
    TF_PMINFO_INTEGER(dev_raw_uid),
    TF_PMINFO_INTEGER(dev_raw_gid),
    TF_PMINFO_INTEGER(dev_blk_uid),
    TF_PMINFO_INTEGER(dev_blk_gid),
};
constexpr Field pminfo_fields[] = {
    TF_PMINFO_TEXT(symid),          TF_PMINFO_TEXT(dev_sym_devname),
    TF_PMINFO_TEXT(dev_raw_device), TF_PMINFO_TEXT(p_dev_raw_device),
    TF_PMINFO_TEXT(bcv_raw_device), TF_PMINFO_TEXT(bcvdev_sym_devname),
    TF_PMINFO_INTEGER(issplit),     TF_PMINFO_INTEGER(sync_at_end),
    TF_PMINFO_INTEGER(lock_set),
};
#undef TF_HDEF_INTEGER
#undef TF_HDEF_TEXT
#undef TF_PMINFO_INTEGER
#undef TF_PMINFO_TEXT

// A registration that fails leaves its message in the table and is passed over. Frameworks hold
// texts that were written under this rule; a checkpoint that failed instead would lose the whole
// state for one line of it.
template <size_t N>
void add_fields(convert_table *table, const Field (&fields)[N], void *record,
                convert_function conv_func) {
    for (const Field &field : fields) {
        void *const value = static_cast<char *>(record) + field.offset;
        static_cast<void>(
            convert_add_ent(table, field.key, value, field.size, field.type, conv_func));
    }
}

// A line whose value is no field. The table only reads it: markers are registered for writing.
template <size_t N>
void add_marker(convert_table *table, const char *key, const char (&value)[N]) {
    static_cast<void>(
        convert_add_ent(table, key, const_cast<char *>(value), N, CTYPE_STR, nullptr));
}

// Has the clone tool write the disk group's description into the transfer file. The flag is set
// first and stays set when a step fails: the clone runs at most once per disk group.
int32_t clone_disk_group(hdef *h, dg_entry *dg) {
    dg->cloned = 1;
    tf::HeapOwner<char> devices;
    tf::HeapOwner<char> volumes;
    int32_t status = form_device_list(dg, devices.out());
    if (status != 0) return status;
    status = get_dg_vols(dg, volumes.out());
    if (status != 0) return status;
    // Made here and not when its name was made, so that nobody can put another file in its place
    // long before the tool writes into it.
    if (!tf::create_private_file(h->transfer_file)) {
        return fail(ErrorNumber::limit, msg::cannot_open_file, "build_table_hdef",
                    h->transfer_file);
    }
    return tf::run_tool(h, "%s -g %s -n %s -d %s -i %s -p %s", tf::path::clone_tool, h->vol_group,
                        volumes.get(), devices.get(), h->transfer_file, g_plexname);
}

template <size_t N>
const char *key_with_newline(const Field (&fields)[N], const void *record) {
    for (const Field &field : fields) {
        if (field.type != CTYPE_STR) continue;
        if (strchr(static_cast<const char *>(record) + field.offset, '\n') != nullptr) {
            return field.key;
        }
    }
    return nullptr;
}

// The key of the first text that holds a newline, or null. The text format has no escape, and a
// line of such a path would be read back as a line of the format.
const char *unwritable_key(const hdef *h) {
    const char *key = key_with_newline(hdef_fields, h);
    if (key != nullptr) return key;
    if (strchr(h->transfer_file, '\n') != nullptr) return tf::key::transfer_file;
    for (const prim_mir_info *pm = h->pminfo_list; pm != nullptr; pm = pm->next) {
        key = key_with_newline(pminfo_fields, pm);
        if (key != nullptr) return key;
    }
    return nullptr;
}

void add_devices(convert_table *table, const hdef *h) {
    add_marker(table, tf::key::pair, tf::marker::start);
    if (h->is_vol == 0 && h->pminfo_list != nullptr) tf::build_table_owners(table, h->pminfo_list);
    for (prim_mir_info *pm = h->pminfo_list; pm != nullptr; pm = pm->next) {
        build_table_pminfo(table, pm, nullptr);
        add_marker(table, tf::key::pair, tf::marker::next);
    }
    add_marker(table, tf::key::pair, tf::marker::end);
}

}  // namespace

namespace tf {

int32_t ConversionTable::open(const char *opener) {
    if (convert_open(&table_) == 0) return success;
    return fail(ErrorNumber::limit, msg::convert_open_memory, opener);
}

void build_table_owners(convert_table *table, prim_mir_info *pm) {
    add_fields(table, owner_fields, pm, nullptr);
}

}  // namespace tf

int32_t build_table_hdef(convert_table *table, hdef *h) {
    add_fields(table, hdef_fields, h, nullptr);
    if (h->is_vol == 0 || h->transfer_file[0] == '\0') return tf::success;
    if (h->is_rebuilt != 0) return tf::success;
    dg_entry *dg = dg_find(h->vol_group);
    if (dg == nullptr) {
        return fail(ErrorNumber::disk_group, msg::group_not_listed, "build_table_hdef",
                    h->vol_group);
    }
    if (dg->cloned != 0 || h->dgimport != 0) return tf::success;
    const int32_t status = clone_disk_group(h, dg);
    if (status != 0) return status;
    add_marker(table, tf::key::clone_info, tf::marker::start);
    static_cast<void>(convert_add_ent(table, tf::key::transfer_file, h->transfer_file,
                                      sizeof h->transfer_file, CTYPE_STR, nullptr));
    add_marker(table, tf::key::clone_info, tf::marker::end);
    return tf::success;
}

int32_t build_table_pminfo(convert_table *table, prim_mir_info *pm, convert_function conv_func) {
    add_fields(table, pminfo_fields, pm, conv_func);
    return tf::success;
}

int32_t TimeFinder_ckpt(hdef *fih, char **text) {
    if (fih == nullptr) return fail(ErrorNumber::parameter, msg::parameter_null, reporter, "fih");
    if (text == nullptr) return fail(ErrorNumber::parameter, msg::parameter_null, reporter, "text");
    const char *unwritable = unwritable_key(fih);
    if (unwritable != nullptr) {
        return fail(ErrorNumber::memory, msg::conversion, reporter, unwritable);
    }
    tf::ConversionTable table;
    int32_t status = table.open(reporter);
    if (status != 0) return status;
    status = build_table_hdef(table.get(), fih);
    if (status != 0) return status;
    add_devices(table.get(), fih);
    if (convert_external(table.get(), text) != 0) {
        status = fail(ErrorNumber::memory, msg::conversion, reporter, convert_errmsg(table.get()));
    }
    tf::remove_capture_files(fih);
    return status;
}
