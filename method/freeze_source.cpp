// What the source of a freeze is, and in which disk group it lives.
#include <sys/stat.h>

#include <cstring>

#include "method/freeze.h"
#include "method/mount_lookup.h"
#include "method/pair_discovery.h"
#include "method/paths.h"
#include "method/records.h"
#include "method/report.h"
#include "snap/snap.h"

namespace tf {
namespace {

int32_t map_block_to_raw(prim_mir_info &pm) {
    if (blocktoraw(pm.dev_block_device, pm.dev_raw_device, sizeof pm.dev_raw_device) == nullptr) {
        return fail(ErrorNumber::operation, msg::cannot_map_block_to_raw, freeze_reporter,
                    pm.dev_block_device);
    }
    return success;
}

int32_t devices_of_raw_device(const char *source, prim_mir_info &pm) {
    put(pm.dev_raw_device, source);
    if (rawtoblock(source, pm.dev_block_device, sizeof pm.dev_block_device) == nullptr) {
        return fail(ErrorNumber::operation, msg::cannot_map_raw_to_block, freeze_reporter, source);
    }
    return success;
}

int32_t devices_of_block_device(const char *source, prim_mir_info &pm) {
    put(pm.dev_block_device, source);
    return map_block_to_raw(pm);
}

int32_t devices_of_path(const char *source, hdef &h, prim_mir_info &pm) {
    char mount_directory[TF_PATH_SIZE] = "";
    if (emc_tf__find_mount_device(source, pm.dev_block_device, sizeof pm.dev_block_device, h.fstype,
                                  sizeof h.fstype, mount_directory,
                                  sizeof mount_directory) != success) {
        return fail(ErrorNumber::operation, msg::cannot_find_block_device, freeze_reporter, source);
    }
    return map_block_to_raw(pm);
}

int32_t cannot_tell_volume(const hdef &h) {
    return fail(ErrorNumber::operation, msg::cannot_tell_volume, freeze_reporter,
                h.dev_block_device);
}

int32_t enter_plain_device(hdef *h) {
    h->dgimport = 0;
    put(h->vol_group, path::no_volume_group);
    return dg_insert(h);
}

// The first two components behind the volume prefix. Returns whether there are two.
bool split_volume_name(hdef &h) {
    char name[TF_PATH_SIZE];
    put(name, h.dev_block_device + path::volume_prefix_length);
    char *rest = nullptr;
    const char *const group = strtok_r(name, "/", &rest);
    const char *const volume = strtok_r(nullptr, "/", &rest);
    if (volume == nullptr) return false;
    put(h.vol_group, group);
    put(h.vol_name, volume);
    return true;
}

int32_t enter_volume(hdef *h) {
    if (!split_volume_name(*h)) return cannot_tell_volume(*h);
    h->is_vol = 1;
    const bool listed_before = dg_find(h->vol_group) != nullptr;
    if (dg_insert(h) != success) return failure;
    if (listed_before && h->dgimport == 1) {
        // An imported group is split as a whole: its devices belong to the object that listed it
        // first.
        free_devices(h->pminfo_list);
        h->pminfo_list = nullptr;
        return success;
    }
    return vol_to_device(h);
}

}  // namespace

int32_t classify_source(Freeze &f) {
    struct stat status = {};
    if (stat(f.source, &status) != 0) {
        return fail(ErrorNumber::operation, msg::cannot_stat, freeze_reporter, f.source);
    }
    hdef &h = *f.h;
    prim_mir_info &first = *h.pminfo_list;
    if (S_ISCHR(status.st_mode)) {
        h.object_type = TF_OBJECT_RAW_DEVICE;
        return devices_of_raw_device(f.source, first);
    }
    if (S_ISBLK(status.st_mode)) {
        h.object_type = TF_OBJECT_BLOCK_DEVICE;
        return devices_of_block_device(f.source, first);
    }
    h.object_type = TF_OBJECT_FILE_SYSTEM;
    return devices_of_path(f.source, h, first);
}

int32_t enter_disk_group(Freeze &f) {
    hdef &h = *f.h;
    put(h.dev_block_device, h.pminfo_list->dev_block_device);
    put(h.dev_raw_device, h.pminfo_list->dev_raw_device);
    // Names this short are refused on purpose: plain disk paths ("/dev/sdb") are no objects of this
    // method, which would otherwise freeze a disk without knowing what lies on it.
    if (strlen(h.dev_block_device) <= path::volume_prefix_length) return cannot_tell_volume(h);
    if (strncmp(h.dev_block_device, path::volume_prefix, path::volume_prefix_length) != 0) {
        return enter_plain_device(&h);
    }
    return enter_volume(&h);
}

}  // namespace tf
