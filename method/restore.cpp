#include "method/restore.h"

#include "method/bcv_control.h"
#include "method/command.h"
#include "method/disk_group.h"
#include "method/file_system.h"
#include "method/mount_lookup.h"
#include "method/paths.h"
#include "method/records.h"
#include "method/report.h"
#include "method/thaw_commit.h"

namespace tf {
namespace {

bool is_mounted(const char *block_device) {
    char device[TF_PATH_SIZE];
    char type[TF_PATH_SIZE];
    char dir[TF_PATH_SIZE];
    return emc_tf__find_mount_device(block_device, device, sizeof device, type, sizeof type, dir,
                                     sizeof dir) == 0;
}

int32_t import_group(const hdef *h, const char *group) {
    const int32_t status = import_disk_group(h, group, nullptr);
    return status != 0 ? status : start_volumes(h, group);
}

// Both walks leave the last command's status in *status, or what stood there when they had nothing
// to do, and return whether no command failed.
bool import_groups(const hdef *h, int32_t *status) {
    for (const dg_entry *dg = DG_LIST; dg != nullptr; dg = dg->next) {
        if (dg->vol_count <= 0) continue;
        const hdef *first = dg->members->h;
        if (first->dgimport == 0) continue;
        *status = import_group(h, first->vol_group);
        if (*status != 0) return false;
    }
    return true;
}

// The device that is checked is the walked object's, but type, block device and mount point are
// those of the object of the call: the framework restores the objects of one file system in one
// process and commits with the one that it wants mounted. Mounting the walked objects instead would
// bring file systems up that the framework has not asked for.
int32_t check_and_mount(const hdef *h, const hdef *walked) {
    const int32_t status =
        check_file_system(h, thaw_commit_reporter, walked->dev_raw_device, h->fstype);
    if (status != 0) return status;
    return mount_file_system(h, thaw_commit_reporter, h->dev_block_device, h->mount_point,
                             h->fstype);
}

bool mount_file_systems(const hdef *h, int32_t *status) {
    for (const dg_entry *dg = DG_LIST; dg != nullptr; dg = dg->next) {
        for (const dg_member *member = dg->members; member != nullptr; member = member->next) {
            if (member->h->object_type != TF_OBJECT_FILE_SYSTEM) continue;
            *status = check_and_mount(h, member->h);
            if (*status != 0) return false;
        }
    }
    return true;
}

}  // namespace

int32_t prepare_restore(const hdef *h, bool *complete) {
    *complete = false;
    dg_entry *dg = dg_find(h->vol_group);
    if (dg == nullptr) {
        return fail(ErrorNumber::disk_group, msg::group_not_listed, thaw_commit_reporter,
                    h->vol_group);
    }
    if (h->object_type == TF_OBJECT_FILE_SYSTEM && is_mounted(h->dev_block_device)) {
        const int32_t status = unmount_file_system(h, h->mount_point);
        if (status != 0) return status;
    }
    dg->restore_count += 1;
    if (dg->members == nullptr || dg->members->h->dgimport == 0) return success;
    if (dg->restore_count != dg->vol_count) return success;
    *complete = true;
    return run_tool(h, "%s deport %s", path::disk_group_tool, h->vol_group);
}

int32_t wait_for_restore(const hdef *h, int32_t count) {
    int32_t result = success;
    for (int32_t i = 0; i < count; ++i) {
        prim_mir_info *pm = primmirlist[i];
        int32_t state = PairState::not_read;
        result = emc_tf_wait_for_establish(h, pm, &state);
        if (state != PairState::synchronised && state != PairState::restored) {
            return fail(ErrorNumber::operation, msg::not_established, thaw_commit_reporter,
                        pm->p_dev_raw_device);
        }
    }
    return result;
}

int32_t bring_restored_back(const hdef *h, int32_t status) {
    if (import_groups(h, &status)) mount_file_systems(h, &status);
    return status;
}

}  // namespace tf
