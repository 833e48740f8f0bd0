#include <cstring>

#include "method/capture.h"
#include "method/command.h"
#include "method/file_system.h"
#include "method/mount_lookup.h"
#include "method/paths.h"
#include "method/records.h"
#include "method/report.h"
#include "method/transfer_file.h"
#include "timefinder.h"

namespace {

using tf::ErrorNumber;
using tf::fail;
namespace msg = tf::msg;
namespace path = tf::path;

constexpr char reporter[] = "TimeFinder_thaw";

int32_t check_arguments(const hdef *h) {
    if (h == nullptr) return fail(ErrorNumber::parameter, msg::parameter_null, reporter, "fih");
    if (h->object_type < TF_OBJECT_RAW_DEVICE || h->object_type > TF_OBJECT_FILE_SYSTEM) {
        return fail(ErrorNumber::limit, msg::unknown_source_type, reporter, h->object_type);
    }
    return tf::success;
}

// Whether the mount table has a mount at the very mount point. What is mounted there is not
// compared: the copy may have come up under another device name.
bool is_mounted_on_its_mount_point(const hdef *h) {
    char device[TF_PATH_SIZE];
    char type[TF_PATH_SIZE];
    char dir[TF_PATH_SIZE];
    return emc_tf__find_mount_device(h->mount_point, device, sizeof device, type, sizeof type, dir,
                                     sizeof dir) == 0 &&
           strcmp(dir, h->mount_point) == 0;
}

// A record made by this process knows that it mounted the copy; a rebuilt one has only been told.
bool copy_is_mounted(const hdef *h) {
    if (h->object_type != TF_OBJECT_FILE_SYSTEM || h->is_mount != 1) return false;
    if (!tf::path_exists(h->mount_point)) return false;
    return h->is_rebuilt == 0 || is_mounted_on_its_mount_point(h);
}

// The last object of the group deports it, under the name of the primary disk group. A group that
// is not imported here is nobody's trouble.
int32_t deport_clone_group(const hdef *h, dg_entry *dg) {
    dg->thaw_count += 1;
    if (dg->thaw_count != dg->vol_count) return tf::success;
    if (tf::run_tool(h, "%s list %s", path::disk_group_tool, h->clone_group) != 0)
        return tf::success;
    return tf::run_tool(h, "%s -n %s deport %s", path::disk_group_tool, h->vol_group,
                        h->clone_group);
}

int32_t clean_up_clone(const hdef *h) {
    return tf::run_tool(h, "%s -g %s -n %s -c %s", path::clone_tool, h->vol_group, h->vol_name,
                        h->clone_group);
}

int32_t release_clone_group(const hdef *h) {
    dg_entry *dg = dg_find(h->vol_group);
    if (dg == nullptr) {
        return fail(ErrorNumber::disk_group, msg::group_not_listed, reporter, h->vol_group);
    }
    if (h->clone_group[0] == '\0') return tf::success;
    const int32_t status = h->dgimport != 0 ? deport_clone_group(h, dg) : clean_up_clone(h);
    if (status == 0) return tf::success;
    return fail(ErrorNumber::disk_group, msg::cannot_clean_up_group, reporter, h->clone_group,
                h->vol_name);
}

}  // namespace

int32_t TimeFinder_thaw(hdef *fih) {
    int32_t status = check_arguments(fih);
    if (status != 0) return status;
    if (copy_is_mounted(fih)) {
        // Nothing is cleaned up behind a failed unmount: the copy is still in use, the thaw will be
        // called again, and the capture files say what the unmount wrote.
        status = tf::unmount_file_system(fih, fih->mount_point);
        if (status != 0) return status;
    }
    status = release_clone_group(fih);
    if (status == 0) tf::discard_transfer_file(fih);
    tf::remove_capture_files(fih);
    return status;
}
