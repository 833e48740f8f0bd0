// Who uses a loop device.
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <string>
#include <vector>

#include "lab/common/descriptor.h"

namespace qz {

// An attachment of a loop device. The kernel's count tells it from a later one of the same number.
struct Attachment {
    unsigned minor = 0;
    uint64_t sequence = 0;
};

Attachment attachment_of(int device, unsigned minor);
bool is_attached(const Attachment &loop);
// Its node, to be opened.
std::string node_of(const Attachment &loop);

// Which process of this host has it open, "open in process 12 (dd)", but this one and the holder;
// "" is none.
std::string open_in(const Attachment &loop, pid_t holder);
// The same, or where it is mounted, or "in use" for what another host of the machine does with it.
std::string use_of(const Attachment &loop, pid_t holder);

// An open descriptor that keeps everybody from mounting it; none when it is in use already.
lab::common::Descriptor take_exclusively(const Attachment &loop);

// Waits until it is free. Throws when it is not after a while.
void wait_until_free(const Attachment &loop);

}  // namespace qz
