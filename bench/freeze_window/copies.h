// Four ways of getting a mounted, checked copy of busy file systems as of one moment.
#pragma once

#include "bench/freeze_window/ground.h"

namespace bench {

struct Copied {
    double window = 0;  // seconds in which nobody could write
    double ready = 0;   // seconds from the request to the copies, mounted and checked
};

// Each leaves the ground as it was, but for the array's pairs, which are joined again.
Copied by_method(const Ground &ground);
// Freeze, copy the images by sharing their blocks, thaw; check and mount the copies.
Copied by_reflink(const Ground &ground);
// Freeze, read the devices and write what is not zero, thaw; check and mount the copies.
Copied by_dd(const Ground &ground);
// Freeze, copy the files into a folder, thaw. There is nothing to check.
Copied by_rsync(const Ground &ground);

}  // namespace bench
