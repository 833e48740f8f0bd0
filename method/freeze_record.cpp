// The object's record: how it comes into being, and what it knows before anything was looked at.
#include <cstring>

#include "method/capture.h"
#include "method/freeze.h"
#include "method/records.h"
#include "method/report.h"

namespace tf {
namespace {

constexpr char host_when_unknown[] = "host";

// An object's record with room for a link. The record comes first, so that it is given back to the
// heap through a pointer to it.
struct LinkedRecord {
    hdef record;
    LinkedRecord *next;
};

// Records that were handed out without devices. No disk group lists them, and the caller may still
// use the handle, so they live here until unload.
class BareRecords {
  public:
    ~BareRecords() {
        while (first_ != nullptr) {
            LinkedRecord *const next = first_->next;
            free_hdef(&first_->record);
            first_ = next;
        }
    }
    void keep(LinkedRecord *record) {
        record->next = first_;
        first_ = record;
    }

  private:
    LinkedRecord *first_ = nullptr;
};
BareRecords bare_records;

void store_primary_host(hdef &h) {
    char name[TF_PATH_SIZE] = "";
    if (tq_gethostname(name, sizeof name) != 0) {
        put(h.primary_host, host_when_unknown);
        return;
    }
    name[sizeof name - 1] = '\0';
    name[strcspn(name, ".")] = '\0';
    put(h.primary_host, name);
}

}  // namespace

int32_t allocate_records(Freeze &f) {
    auto *const allocated = make_zeroed<LinkedRecord>();
    if (allocated == nullptr) {
        *f.handle = nullptr;
        return fail(ErrorNumber::memory, msg::no_memory, freeze_reporter,
                    freeze_line::object_record);
    }
    f.h = &allocated->record;
    *f.handle = f.h;
    auto *const first = make_zeroed<prim_mir_info>();
    if (first == nullptr) {
        bare_records.keep(allocated);
        return fail(ErrorNumber::memory, msg::no_memory, freeze_reporter,
                    freeze_line::first_device);
    }
    put(f.h->mount_point, f.fifs);
    make_capture_files(f.h);
    f.h->pminfo_list = first;
    return success;
}

int32_t describe_object(Freeze &f) {
    const HeapOwner<char> name(temporary_name("EMCTX"));
    if (!name) {
        return fail(ErrorNumber::memory, msg::no_memory, freeze_reporter,
                    freeze_line::transfer_name);
    }
    put(f.h->transfer_file, name.get());
    store_primary_host(*f.h);
    put(f.h->fs_path, f.source);
    return success;
}

}  // namespace tf
