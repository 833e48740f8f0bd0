// The framework's control request.
#include <algorithm>

#include "include/timefinder.h"
#include "method/bcv_control.h"
#include "method/log.h"
#include "method/numbers.h"
#include "method/report.h"
#include "symapi/symapi_session.h"

namespace {

constexpr int32_t first_code = 1;
constexpr int32_t resync_at_start = 4;  // the only code that does anything, and the last one

int32_t wait_for_pairs(const hdef *h, int32_t count) {
    for (int32_t i = 0; i < count; ++i) {
        int32_t state = tf::PairState::not_read;
        const int32_t result = emc_tf_wait_for_establish(h, primmirlist[i], &state);
        if (result == 0) continue;
        tf::log_progress("wait_for_establish failed");
        return result;
    }
    return tf::success;
}

// Establishes what discovery queued, and empties the queue whatever comes of it.
int32_t resync(const hdef *h) {
    if (prim_mir_info_size == 0) return tf::success;
    tf::log_progress("Total BCVs to resync at start : %d", prim_mir_info_size);
    tf::log_progress("resync started ...");
    // The count runs on where a caller went on freezing behind the capacity error; the table does
    // not.
    const int32_t count = std::min<int32_t>(prim_mir_info_size, TF_PRIMMIRLIST_SIZE);
    // The waits decide, not this call: a pair that the array establishes after all is a success,
    // and one that it does not establish shows itself there.
    emc_tf_bcv_control_all(tf::BcvAction::incremental_establish,
                           tf::establish_option(emc_tf_SymVersion), count, primmirlist);
    tf::log_progress("resync end");
    const int32_t result = wait_for_pairs(h, count);
    prim_mir_info_size = 0;
    return result;
}

}  // namespace

int32_t TimeFinder_ctl(hdef *fih, int32_t cmd) {
    constexpr char reporter[] = "TimeFinder_ctl";
    if (cmd < first_code || cmd > resync_at_start) {
        return tf::fail(tf::ErrorNumber::parameter, tf::msg::invalid_value, reporter, "cmd", cmd);
    }
    if (fih == nullptr) {
        return tf::fail(tf::ErrorNumber::parameter, tf::msg::parameter_null, reporter, "fih");
    }
    return cmd == resync_at_start ? resync(fih) : tf::success;
}
