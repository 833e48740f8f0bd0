// The split of every pair that this process has frozen.
//
// The entry point is TimeFinder_freeze_commit (include/timefinder.h). This header is its inside:
// the two phases around the split call and the questions to the array that both ask.
#pragma once

#include <cstdint>

#include "include/records.h"
#include "include/symapi.h"

// 1 once a pass has succeeded; every later call of the process then returns 0 at once.
extern int32_t freeze_commit_done;

namespace tf {

// Collects the pairs of all frozen objects that can be split into primmirlist, which it empties
// first; *count receives their number. Returns 0, 11 after a report, or the result of
// find_bcv_info.
int32_t split_prepare(int32_t *count);
// Waits until each of the first count pairs of primmirlist is split. Returns 0, 11 after a report,
// or the result of find_bcv_info.
int32_t wait_for_split(int32_t count);

// Asks the array to refresh what it knows of the record's BCV: 0, or 11 after a report.
int32_t refresh_bcv_information(const char *reporter, const prim_mir_info &pm);
// Reads the primary's information into *device: 0, or 11 after a report.
int32_t show_primary(const char *reporter, const prim_mir_info &pm, SymDevice *device);
// Reads the pair's state from the primary's information: 0, 11 after a report, or the result of
// find_bcv_info.
int32_t show_pair_state(const char *reporter, const prim_mir_info &pm, long *state);

}  // namespace tf
