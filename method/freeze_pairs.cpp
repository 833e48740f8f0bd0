// A BCV for every device of a freeze, and the end of a freeze that waits for them.
#include "method/bcv_control.h"
#include "method/freeze.h"
#include "method/interface.h"
#include "method/log.h"
#include "method/pair_discovery.h"
#include "method/report.h"
#include "symapi/symapi_session.h"
#include "symapi/symapi_wrappers.h"

namespace tf {
namespace {

// The array preference that a waiting freeze switches off before the split.
constexpr int preference = 1;
constexpr int preference_off = 0;

int32_t find_pairs(Freeze &f) {
    for (prim_mir_info *pm = f.h->pminfo_list; pm != nullptr; pm = pm->next) {
        const int32_t status = find_bcv_pair(f.h, pm, f.no_wait ? 1 : 0);
        if (status != success) return status;
    }
    return success;
}

int32_t wait_for_pairs(const hdef *h) {
    for (prim_mir_info *pm = h->pminfo_list; pm != nullptr; pm = pm->next) {
        int32_t state = PairState::not_read;
        const int32_t status = emc_tf_wait_for_establish(h, pm, &state);
        if (status != success) {
            log_progress("wait_for_establish failed");
            return status;
        }
    }
    return success;
}

int32_t set_preference() {
    const int code = emc_tf_SymPrefsSet(sH, preference, preference_off);
    if (code == 0) return success;
    return fail(ErrorNumber::operation, msg::call_failed, freeze_reporter, "SymPrefsSet", code,
                emc_tf_SymPerror(sH, code));
}

}  // namespace

int32_t find_all_pairs(Freeze &f) {
    int32_t status = find_pairs(f);
    if (status == success && !f.no_wait) status = wait_for_pairs(f.h);
    if (status != success) log_progress("%s: find_all_bcv_pairs failed", freeze_reporter);
    return status;
}

int32_t finish_waiting_freeze(int32_t pairs) {
    int32_t status = pairs;
    if (set_preference() != success) status = failure;
    // The session goes at once, although client_count still counts this object: the caller rolls
    // the object back, and thaw commit opens a session of its own.
    if (status != success && end_session(freeze_reporter) != success) status = failure;
    // A failed object counts too: its record is with the caller, whose thaw commit waits for it.
    ++total_freeze_volumes;
    return status;
}

}  // namespace tf
