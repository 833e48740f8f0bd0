// Ends what `orphans` names.
#pragma once

#include <cstdint>
#include <vector>

#include "fimctl/cycle.h"

namespace fimctl {

struct CleanupWish {
    std::vector<int64_t> ids;  // these snapshots and nothing else; none: whatever was interrupted
    bool all = false;          // also the snapshots that only wait for their next command
};

// Tells what it does, and what it had to leave with the command for it. True when nothing of what
// was asked for is left. Throws Failure (no_such_snapshot) before anything is done.
bool clean_up(const Settings &settings, const CleanupWish &wish);

}  // namespace fimctl
