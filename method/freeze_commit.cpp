#include "method/freeze_commit.h"

#include "method/bcv_control.h"
#include "method/capture.h"
#include "method/interface.h"
#include "method/log.h"
#include "method/records.h"
#include "method/report.h"
#include "symapi/symapi_session.h"
#include "symapi/symapi_wrappers.h"

int32_t freeze_commit_done;

namespace {

constexpr char reporter[] = "TimeFinder_freeze_commit";

// An object without devices is well only when an earlier object of its imported disk group has
// them.
int32_t check_object_without_devices(const hdef *h) {
    if (h->dgimport != 0) return tf::success;
    return tf::fail(tf::ErrorNumber::parameter, tf::msg::no_device_information, reporter);
}

// The result of the split call is not kept: an array may split all pairs and lose its answer, so
// the state that the waits find decides, and it alone.
void split_pairs(int32_t count) {
    tf::log_progress("Total BCVs to split : %d", count);
    tf::log_progress("Split started ...");
    emc_tf_bcv_control_all(tf::BcvAction::split, tf::split_option(emc_tf_SymVersion), count,
                           primmirlist);
    tf::log_progress("Split end");
}

void mark_for_resync(int32_t count) {
    for (int32_t i = 0; i < count; ++i) primmirlist[i]->sync_at_end = 1;
}

int32_t split_all_objects() {
    int32_t count = 0;
    const int32_t status = tf::split_prepare(&count);
    if (status != tf::success || count == 0) return status;
    split_pairs(count);
    mark_for_resync(count);
    return tf::wait_for_split(count);
}

// The process has committed. The session ends with the last object that needed it.
int32_t finish_pass() {
    freeze_commit_done = 1;
    --client_count;
    return client_count == 0 ? tf::end_session(reporter) : tf::success;
}

}  // namespace

int32_t TimeFinder_freeze_commit(hdef *fih) {
    if (freeze_commit_done != 0) return tf::success;
    if (fih == nullptr) {
        return tf::fail(tf::ErrorNumber::parameter, tf::msg::parameter_null, reporter, "fih");
    }
    if (fih->pminfo_list == nullptr) return check_object_without_devices(fih);
    const int32_t status = split_all_objects();
    if (status != tf::success) return status;
    const int32_t result = finish_pass();
    tf::remove_capture_files(fih);
    return result;
}

namespace tf {

int32_t refresh_bcv_information(const char *caller, const prim_mir_info &pm) {
    const int code = emc_tf_SymDevSync(sH, pm.symid, pm.bcvdev_sym_devname, tf::refresh_bcv, 0);
    if (code == 0) return success;
    return fail(ErrorNumber::operation, msg::device_call_failed, caller, "SymDevSync",
                pm.bcvdev_sym_devname, code, emc_tf_SymPerror(sH, code));
}

int32_t show_primary(const char *caller, const prim_mir_info &pm, SymDevice *device) {
    const int code = emc_tf_SymPdevShow(sH, pm.p_dev_raw_device, device);
    if (code == 0) return success;
    return fail(ErrorNumber::operation, msg::device_call_failed, caller, "SymPdevShow",
                pm.p_dev_raw_device, code, emc_tf_SymPerror(sH, code));
}

int32_t show_pair_state(const char *caller, const prim_mir_info &pm, long *state) {
    SymDevice primary = {};
    int32_t status = show_primary(caller, pm, &primary);
    if (status != success) return status;
    const SymBcvInfo *info = nullptr;
    status = find_bcv_info(&primary, pm.bcvdev_sym_devname, &info);
    if (status == success) *state = info->bcv_pair_state;
    return status;
}

}  // namespace tf
