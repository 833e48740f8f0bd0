// The loop devices of a world, by the number that tells one attachment from the next.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "lab/host/system.h"

namespace tflab {

struct Loop {
    int number = 0;
    uint64_t sequence = 0;  // the kernel's count of what was ever attached
    std::string file;
};

// All attached loop devices over files below a folder of this process's namespace. Nodes are made
// in the given folder, to look at them.
std::vector<Loop> loops_below(const fs::path &folder, const fs::path &nodes);
// Whether that very attachment is still there.
bool is_attached(const Loop &loop);

// Attaches a file to a free loop device that frees itself when its last user is gone. The answer
// is its first user; path is the node, made in the folder where it is missing.
Fd attach_loop(const fs::path &file, const fs::path &nodes, fs::path *node);

}  // namespace tflab
