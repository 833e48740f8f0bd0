// State of the thaw commits of a process.
#pragma once

#include <cstdint>

// Thaw commits called so far; the call that makes it reach total_freeze_volumes does the array work
// for every object of the process.
extern int32_t thaw_commit_vols;

namespace tf {

inline constexpr char thaw_commit_reporter[] = "TimeFinder_thaw_commit";

}  // namespace tf
