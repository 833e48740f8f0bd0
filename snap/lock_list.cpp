// The list of file systems to be locked.
#include <cerrno>
#include <cstring>

#include "snap/snap_internal.h"

struct FS_LOCK_REC *first_fs_locklist_rec, *last_fs_locklist_rec, *fs_locklist_rec;
int32_t num_fs_lock_entries;

namespace {

// Records are never removed while the library is in use; this gives them back when it is unloaded.
[[gnu::destructor]] void free_lock_list() {
    while (first_fs_locklist_rec != nullptr) {
        FS_LOCK_REC *next = first_fs_locklist_rec->next;
        free(first_fs_locklist_rec);
        first_fs_locklist_rec = next;
    }
    last_fs_locklist_rec = fs_locklist_rec = nullptr;
    num_fs_lock_entries = 0;
}

void append(FS_LOCK_REC *record) {
    if (last_fs_locklist_rec != nullptr) {
        last_fs_locklist_rec->next = record;
    } else {
        first_fs_locklist_rec = record;
    }
    last_fs_locklist_rec = record;
    ++num_fs_lock_entries;
}

}  // namespace

int check_lock_list(const char *name) {
    if (name == nullptr) {
        snap::diagnose("Invalid filesystem name");
        return 0;
    }
    for (const FS_LOCK_REC *record = first_fs_locklist_rec; record != nullptr;
         record = record->next) {
        if (strcmp(record->name, name) == 0) return 1;
    }
    return 0;
}

int add_to_lock_list(const char *name, const char *type, struct FS_LOCK_REC **first,
                     int32_t *count) {
    if (name == nullptr || type == nullptr) {
        snap::diagnose("Invalid filesystem name");
        return SN_NULL_ARGUMENT;
    }
    if (strcmp(type, "ufs") != 0 && strcmp(type, "qzfs") != 0) {
        snap::diagnose("Invalid filesystem type %s", type);
        return SN_NULL_ARGUMENT;
    }
    auto *record = static_cast<FS_LOCK_REC *>(calloc(1, sizeof(FS_LOCK_REC)));
    if (record == nullptr) {
        snap::diagnose("%s malloc failed, errno = %d", "FS_LOCK_REC", errno);
        return SN_NO_MEMORY;
    }
    Q_strlcpy(record->name, name, sizeof record->name);
    Q_strlcpy(record->type, type, sizeof record->type);
    record->fd = -1;
    append(record);
    fs_locklist_rec = record;
    *first = first_fs_locklist_rec;
    *count = num_fs_lock_entries;
    return 0;
}
