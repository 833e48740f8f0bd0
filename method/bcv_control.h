// The two array primitives that the lifecycle operations share.
#pragma once

#include <cstdint>

#include "include/records.h"

// Applies one action (BcvAction) to count pairs with one device-list call per array. list is sorted
// by array in place. While the array still finishes an earlier split the call is repeated every
// ten seconds, without limit. Returns 0, or 11 after a report; arrays behind a failing one are left
// alone.
int32_t emc_tf_bcv_control_all(int32_t action, uint32_t option, int32_t count,
                               prim_mir_info **list);
// Waits until a pair is neither synchronising nor restoring; *state receives the last state read
// (PairState::not_read when none was). The final state is for the caller to judge. Returns 0, 11
// after a report, or the result of find_bcv_info.
int32_t emc_tf_wait_for_establish(const hdef *h, prim_mir_info *pm, int32_t *state);
