// The holder: the process of a group with started volumes. It does nothing but keep descriptors: of
// every disk of the group, each opened for itself alone, and of every loop device. To change what
// it holds, another one takes its place, and there is no moment at which nobody holds the disks.
#pragma once

#include <sys/types.h>

#include <map>
#include <string>
#include <vector>

#include "lab/common/descriptor.h"
#include "lab/qzvm/use.h"

namespace qz {

// What is held for a group. The holder writes it down, so that it is known even of one that was
// killed; a volume that is mounted stays attached after that.
struct Holding {
    bool alive = false;
    pid_t pid = 0;
    std::map<std::string, int> disks;           // block path -> its descriptor there
    std::map<std::string, Attachment> volumes;  // those that are still attached
};

Holding holding_of(const std::string &group);

// What the next holder is to hold.
struct Hold {
    std::map<std::string, lab::common::Descriptor> disks;
    std::map<std::string, Attachment> volumes;
    std::vector<lab::common::Descriptor> loops;  // of the volumes
};

// A disk for the next holder: from the one there is, or opened for nobody else.
lab::common::Descriptor hold_disk(const Holding &now, const std::string &path);

// Starts a holder and ends the one there is.
void replace_holder(const std::string &group, const Hold &hold);
// Ends the holder, if there is one, and waits for that.
void end_holder(const std::string &group);

}  // namespace qz
