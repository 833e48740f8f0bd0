// Freeze commit, after the split: waiting until the array has split every pair.
#include "method/freeze_commit.h"
#include "method/log.h"
#include "method/pause.h"
#include "method/report.h"

namespace tf {
namespace {

constexpr char reporter[] = "emc_tf_wait_for_split";

// How often, and how many seconds apart, a pair is asked again that has not even begun to split.
constexpr int retry_limit = 6;
constexpr unsigned retry_pause = 10;

int32_t read_state(const prim_mir_info &pm, long *state) {
    if (refresh_bcv_information(reporter, pm) != success) return failure;
    return show_pair_state(reporter, pm, state);
}

// A split in progress is waited for without limit: the array is at work.
int32_t wait_for_pair(const prim_mir_info &pm) {
    for (int retry = 0;;) {
        log_trace("...Waiting for split to finish...");
        long state = 0;
        const int32_t status = read_state(pm, &state);
        if (status != success) return status;
        if (state == PairState::split) {
            log_trace("...Finished");
            return success;
        }
        if (state == PairState::splitting) {
            pause_for(state_poll_pause);
            continue;
        }
        if (retry == retry_limit) {
            return fail(ErrorNumber::limit, msg::cannot_split, reporter, pm.p_dev_raw_device,
                        static_cast<int>(state));
        }
        pause_for(retry_pause);
        ++retry;
    }
}

}  // namespace

int32_t wait_for_split(int32_t count) {
    for (int32_t i = 0; i < count; ++i) {
        const int32_t status = wait_for_pair(*primmirlist[i]);
        if (status != success) return status;
    }
    return success;
}

}  // namespace tf
