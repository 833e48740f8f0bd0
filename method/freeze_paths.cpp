// The paths under which a freeze reaches its devices, and the owners of the device nodes.
#include <sys/stat.h>

#include <cstring>

#include "method/device_path.h"
#include "method/freeze.h"
#include "method/log.h"
#include "method/paths.h"
#include "method/report.h"
#include "symapi/symapi_session.h"
#include "symapi/symapi_wrappers.h"

namespace tf {
namespace {

constexpr char owner_reporter[] = "get_owner_ids";

// Puts a native path into dev_raw_device; p_dev_raw_device keeps the multipath name.
int32_t resolve_multipath(prim_mir_info &pm, bool &path_found) {
    SymDevice device = {};
    const int code = emc_tf_SymPdevShow(sH, pm.dev_raw_device, &device);
    if (code != 0) {
        return fail(ErrorNumber::pair_query, msg::device_call_failed, freeze_reporter,
                    "SymPdevShow", pm.dev_raw_device, code, emc_tf_SymPerror(sH, code));
    }
    if (is_usable_native_path(device.pdevname)) path_found = true;
    if (const char *const port = usable_port(device); port != nullptr) {
        path_found = true;
        put(pm.dev_raw_device, port);
        return success;
    }
    if (!path_found) {
        return fail(ErrorNumber::parameter, msg::no_device_available, freeze_reporter);
    }
    put(pm.dev_raw_device, device.pdevname);
    return success;
}

// On failure the ids in *status are 0.
int32_t read_owner(const char *device, struct stat *status) {
    *status = {};
    if (stat(device, status) == 0) return success;
    return fail(ErrorNumber::operation, msg::cannot_stat, owner_reporter, device);
}

}  // namespace

int32_t resolve_paths(Freeze &f) {
    // One flag for the whole walk: a device without a working path of its own is let through once
    // an earlier device of this object had one. Objects with one dead path are frozen today; with a
    // flag per device they would be refused.
    bool path_found = false;
    for (prim_mir_info *pm = f.h->pminfo_list; pm != nullptr; pm = pm->next) {
        log_trace("%s: block: %s, raw: %s", freeze_reporter, pm->dev_block_device,
                  pm->dev_raw_device);
        put(pm->p_dev_raw_device, pm->dev_raw_device);
        if (strstr(pm->dev_raw_device, path::multipath_disk) == nullptr) continue;
        if (resolve_multipath(*pm, path_found) != success) return failure;
    }
    return success;
}

int32_t store_owners(Freeze &f) {
    if (f.h->is_vol == 1) return success;
    prim_mir_info *const pm = f.h->pminfo_list;  // every object but a volume has it
    struct stat raw = {};
    struct stat block = {};
    const int32_t raw_status = read_owner(pm->dev_raw_device, &raw);
    const int32_t block_status = read_owner(pm->dev_block_device, &block);
    pm->dev_raw_uid = static_cast<int32_t>(raw.st_uid);
    pm->dev_raw_gid = static_cast<int32_t>(raw.st_gid);
    pm->dev_blk_uid = static_cast<int32_t>(block.st_uid);
    pm->dev_blk_gid = static_cast<int32_t>(block.st_gid);
    return raw_status != success ? raw_status : block_status;
}

}  // namespace tf
