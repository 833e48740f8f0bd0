// The ordinary nodes of a private /dev.
#pragma once

#include "lab/host/system.h"

namespace tflab {

// Makes null, zero, full, random, urandom, tty, the links to the own descriptors, and folders for
// terminals and shared memory, in an empty folder that allows nodes.
void fill_devices(const fs::path &dev);

}  // namespace tflab
