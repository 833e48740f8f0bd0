#include <cstring>

#include "include/symapi.h"
#include "method/command.h"
#include "method/device_path.h"
#include "method/log.h"
#include "method/pair_discovery.h"
#include "method/paths.h"
#include "method/rebuild.h"
#include "method/report.h"
#include "method/text.h"
#include "symapi/symapi_session.h"
#include "symapi/symapi_wrappers.h"

namespace tf {
namespace {

constexpr char disk_path_prefix[] = "/dev/rdsk/";

bool imports_on_alternate_host(const hdef *h) {
    return h->dgimport != 0 && h->is_tgt != 0;
}

// A disk group cannot be imported where the disks of its original are visible too. A primary that
// the array does not show here is the good case, so a failing call is no failure.
int32_t refuse_visible_primary(const prim_mir_info *pm) {
    SymDevice primary = {};
    if (emc_tf_SymDevShow(sH, pm->symid, pm->dev_sym_devname, &primary) != 0) return success;
    if (primary.pdevname[0] == '\0') return success;
    return fail(ErrorNumber::parameter, msg::primary_visible_on_target, rebuild_reporter,
                pm->dev_raw_device, pm->dev_sym_devname);
}

int32_t show_mirror(const prim_mir_info *pm, SymDevice *mirror) {
    const int code = emc_tf_SymDevShow(sH, pm->symid, pm->bcvdev_sym_devname, mirror);
    if (code == 0) return success;
    return fail(ErrorNumber::operation, msg::device_call_failed, rebuild_reporter, "SymDevShow",
                pm->bcvdev_sym_devname, code, emc_tf_SymPerror(sH, code));
}

void choose_mirror_path(SymDevice *mirror) {
    const char *const port = usable_port(*mirror);
    if (port != nullptr) put(mirror->pdevname, port);
    prefer_disk_node(mirror);
    log_trace("\tpdevname=%s", mirror->pdevname);
    if (mirror->pdevname[0] == '\0') put(mirror->pdevname, path::unseen_bcv_after_rebuild);
}

// Makes the disk known to the volume manager. A disk that it lists need not be defined; a failed
// definition shows when the group is imported.
void announce_disk(const hdef *h, const char *pdevname) {
    constexpr size_t prefix_length = sizeof disk_path_prefix - 1;
    const char *disk = strlen(pdevname) < prefix_length ? "" : pdevname + prefix_length;
    if (run_tool(h, "%s list %s", path::disk_tool, disk) != 0) {
        static_cast<void>(run_tool(h, "%s define %s", path::disk_tool, disk));
    }
    static_cast<void>(run_tool(h, "%s online %s", path::disk_tool, disk));
}

template <size_t N>
int32_t map_to_block(const char *raw, char (&block)[N]) {
    if (rawtoblock(raw, block, N) != nullptr) return success;
    return fail(ErrorNumber::operation, msg::cannot_map_raw_to_block, rebuild_reporter, raw);
}

}  // namespace

int32_t derive_device_paths(const hdef *h, prim_mir_info *pm) {
    if (imports_on_alternate_host(h)) {
        const int32_t status = refuse_visible_primary(pm);
        if (status != 0) return status;
    }
    SymDevice mirror = {};
    int32_t status = show_mirror(pm, &mirror);
    if (status != 0) return status;
    choose_mirror_path(&mirror);
    if (imports_on_alternate_host(h)) announce_disk(h, mirror.pdevname);
    put(pm->bcv_pdevname, mirror.pdevname);
    log_trace("%s: BCV <--> SYMID: %s : %s", rebuild_reporter, pm->bcv_pdevname,
              pm->bcvdev_sym_devname);
    put(pm->bcv_raw_device, mirror.pdevname);
    status = map_to_block(pm->dev_raw_device, pm->dev_block_device);
    if (status != 0) return status;
    return map_to_block(pm->bcv_raw_device, pm->bcv_block_device);
}

}  // namespace tf
