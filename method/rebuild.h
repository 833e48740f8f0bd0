// Rebuilding one device record from the fields that a checkpoint text carries.
#pragma once

#include <cstdint>

#include "include/records.h"

namespace tf {

inline constexpr char rebuild_reporter[] = "TimeFinder_rebuild";

// Derives from the array and this host what the text does not carry: the mirror's path here and
// both block devices. With a disk group that is to be imported on an alternate host it refuses a
// visible primary and makes the mirror known to the volume manager. h's is_tgt and dgimport are
// those read so far. Returns 0, or 11 after a report.
int32_t derive_device_paths(const hdef *h, prim_mir_info *pm);

}  // namespace tf
