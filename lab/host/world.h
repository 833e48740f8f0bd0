// A world: one array and its hosts in namespaces of their own, with an end that leaves nothing.
//
// The process that starts a world has one child, the world's first process. It lives in a mount and
// a process namespace of its own and is killed by the kernel when its parent ends; with it go all
// processes of the world, with them the mounts and the file systems in memory, and with those the
// loop devices. There is no clean-up that could be forgotten, so kill -9 leaves nothing either.
#pragma once

#include <cstdint>
#include <functional>
#include <string>

#include "lab/host/system.h"

namespace tflab {

struct WorldOptions {
    fs::path build;                      // the build folder: bin/, lib/, lab/
    uint64_t store_bytes = 16ULL << 30;  // of the array's store; it is sparse
    std::string media = "loop";          // what the array makes its devices of
    bool array = true;                   // false: namespaces only
    std::function<void(pid_t)>
        in_outer;  // called in the waiting process with the first one's number
};

// The exit status of a world that could not be taken down whole.
constexpr int something_left = 124;

// Starts a world, runs body inside it as a process of its own, takes the world down and answers the
// body's result. Returns when nothing of the world is left. Throws when this process may not make
// namespaces; a failure inside the world is printed and is status 125.
int run_world(const WorldOptions &options, const std::function<int()> &body);

// Throws unless the calling process is in a world.
void require_world();
// Runs the administrator's command of the array of this world; throws with its output on failure.
void administer(const std::vector<std::string> &arguments);

}  // namespace tflab
