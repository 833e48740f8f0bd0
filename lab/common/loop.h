// Loop devices that free themselves when their last user is gone, also after kill -9.
//
// Nodes are made in a folder that the caller names: a private /dev has none, and the machine's own
// must not be written. All functions throw std::system_error.
#pragma once

#include <cstdint>
#include <string>

#include "lab/common/descriptor.h"

namespace lab::common {

constexpr unsigned loop_major = 7;

struct Window {
    uint64_t offset = 0, size = 0;  // in bytes; size 0: to the end
    // Past the cache of what lies beneath, where that can be done. A write is then in the device
    // beneath when it is done, in the order in which it was done.
    bool direct = false;
};

struct AttachedLoop {
    Descriptor device;  // its first user
    unsigned minor = 0;
    std::string node;
};

// The node of a loop device in that folder, made where it is missing.
std::string loop_node(const std::string &folder, unsigned minor);

// Attaches a file or block device to a free loop device. name is what the kernel shows of it.
AttachedLoop attach_loop(int backing, const std::string &name, const Window &window,
                         const std::string &folder);

}  // namespace lab::common
