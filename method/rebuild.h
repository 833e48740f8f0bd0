// Rebuilding one device record from the fields that a checkpoint text carries, and the end of what
// failed rebuilds left.
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
// Frees the records of rebuilds that failed, with their files; runs when the library is unloaded.
// No handle of such a record may be used afterwards.
void free_failed_rebuilds();

}  // namespace tf
