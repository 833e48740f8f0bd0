#include <unistd.h>

#include "method/capture.h"
#include "method/command.h"
#include "method/disk_group.h"
#include "method/file_system.h"
#include "method/freeze.h"
#include "method/log.h"
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
namespace path = tf::path;

constexpr char reporter[] = "TimeFinder_volumes";

// The copy's device paths on this host.
struct CopyPaths {
    char raw[TF_PATH_SIZE];
    char block[TF_PATH_SIZE];
};

int32_t check_arguments(const hdef *h, const char *volpath, int32_t *nvols) {
    if (h == nullptr) return fail(ErrorNumber::parameter, msg::parameter_null, reporter, "fih");
    if (volpath == nullptr) {
        return fail(ErrorNumber::parameter, msg::parameter_null, reporter, "volpath");
    }
    if (nvols == nullptr) {
        return fail(ErrorNumber::parameter, msg::parameter_null, reporter, "nvols");
    }
    *nvols = 0;
    // Without an import the copy is known by its devices alone; a plain device always is.
    if (h->pminfo_list == nullptr && (h->dgimport == 0 || h->is_vol != 1)) {
        return fail(ErrorNumber::parameter, msg::no_device_information, reporter);
    }
    return tf::success;
}

// The site's own hook; most sites have none.
bool has_site_script() {
    return tf::path_exists(path::clone_script);
}

int32_t change_owner(const char *device, int32_t uid, int32_t gid) {
    if (chown(device, static_cast<uid_t>(uid), static_cast<gid_t>(gid)) == 0) return tf::success;
    return fail(ErrorNumber::operation, msg::cannot_chown, "set_owner_ids", device, uid, gid);
}

// The backup may read the mirror as it may read the primary. Both nodes are tried.
int32_t set_owner_ids(const prim_mir_info *pm, const CopyPaths &copy) {
    const int32_t raw = change_owner(copy.raw, pm->dev_raw_uid, pm->dev_raw_gid);
    const int32_t block = change_owner(copy.block, pm->dev_blk_uid, pm->dev_blk_gid);
    return raw != 0 ? raw : block;
}

int32_t present_device(const hdef *h, CopyPaths *copy) {
    const prim_mir_info *pm = h->pminfo_list;
    tf::put(copy->raw, pm->bcv_raw_device);
    tf::put(copy->block, pm->bcv_block_device);
    if (has_site_script()) {
        const int32_t status =
            tf::run_tool(h, "%s RAW %s %s", path::clone_script, copy->raw, copy->block);
        if (status != 0) return status;
    }
    return set_owner_ids(pm, *copy);
}

int32_t import_group(const hdef *h) {
    const int32_t status = tf::import_disk_group(h, h->vol_group, h->clone_group);
    return status != 0 ? status : tf::start_volumes(h, h->clone_group);
}

int32_t clone_group(const hdef *h, const dg_entry *dg) {
    tf::HeapOwner<char> volumes;
    tf::HeapOwner<char> devices;
    int32_t status = get_dg_vols(dg, volumes.out());
    if (status != 0) return status;
    status = form_device_list(dg, devices.out());
    if (status != 0) return status;
    if (h->is_rebuilt != 0) {
        return tf::run_tool(h, "%s -g %s -n %s -d %s -i %s -r %s", path::clone_tool, h->vol_group,
                            volumes.get(), devices.get(), h->transfer_file, h->primary_host);
    }
    return tf::run_tool(h, "%s -g %s -n %s -d %s -p %s", path::clone_tool, h->vol_group,
                        volumes.get(), devices.get(), g_plexname);
}

// Once per disk group, however many objects it holds.
int32_t bring_group_up(hdef *h, dg_entry *dg) {
    if (dg->imported != 0) return tf::success;
    const int32_t status = h->dgimport != 0 ? import_group(h) : clone_group(h, dg);
    if (status != 0) {
        h->clone_group[0] = '\0';
        return status;
    }
    dg->imported = 1;
    return tf::success;
}

int32_t present_volume(hdef *h, CopyPaths *copy) {
    dg_entry *dg = dg_find(h->vol_group);
    if (dg == nullptr) {
        return fail(ErrorNumber::disk_group, msg::group_not_listed, reporter, h->vol_group);
    }
    create_clone_group_name(h, h->is_rebuilt);
    tf::put_format(copy->raw, path::raw_volume_format, h->clone_group, h->vol_name);
    tf::put_format(copy->block, path::block_volume_format, h->clone_group, h->vol_name);
    const int32_t status = bring_group_up(h, dg);
    if (status != 0) return status;
    if (!has_site_script()) return tf::success;
    return tf::run_tool(h, "%s QzVM %s %s %s", path::clone_script, h->vol_group, h->clone_group,
                        h->vol_name);
}

int32_t mount_copy(hdef *h, const CopyPaths &copy) {
    int32_t status = tf::check_file_system(h, reporter, copy.raw, h->fstype);
    if (status != 0) return status;
    tf::log_trace("mount the file system");
    status = tf::mount_file_system(h, reporter, copy.block, h->mount_point, h->fstype);
    if (status == 0) h->is_mount = 1;
    return status;
}

// The path that the backup is to read. For a file system it is handed out after a failure too.
int32_t hand_out(hdef *h, const CopyPaths &copy, char *volpath) {
    switch (h->object_type) {
    case TF_OBJECT_RAW_DEVICE:
        Q_strlcpy(volpath, copy.raw, TF_VOLPATH_SIZE);
        return tf::success;
    case TF_OBJECT_BLOCK_DEVICE:
        Q_strlcpy(volpath, copy.block, TF_VOLPATH_SIZE);
        return tf::success;
    case TF_OBJECT_FILE_SYSTEM: {
        const int32_t status = mount_copy(h, copy);
        Q_strlcpy(volpath, copy.raw, TF_VOLPATH_SIZE);
        return status;
    }
    default:
        return fail(ErrorNumber::limit, msg::unknown_source_type, reporter, h->object_type);
    }
}

}  // namespace

int32_t TimeFinder_volumes(hdef *fih, char *volpath, int32_t *nvols) {
    int32_t status = check_arguments(fih, volpath, nvols);
    if (status != 0) return status;
    CopyPaths copy = {};
    const bool is_volume = fih->is_vol == 1;
    status = is_volume ? present_volume(fih, &copy) : present_device(fih, &copy);
    if (status != 0) return status;
    // Raised for a volume only: a backup of a plain device asks for its path, not for a count.
    if (is_volume) *nvols = 1;
    status = hand_out(fih, copy, volpath);
    tf::remove_capture_files(fih);
    if (status == 0) tf::discard_transfer_file(fih);
    return status;
}
