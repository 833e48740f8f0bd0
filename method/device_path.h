// Which of a device's host paths the method uses.
#pragma once

#include "include/symapi.h"

namespace tf {

// Whether a path is a native disk's and can be opened.
bool is_usable_native_path(const char *path);
// The first alternate port that is, or null. Every port that has a path is traced until then.
const char *usable_port(const SymDevice &device);
// Replaces a raw multipath name of the device by its disk's own node. A name without an "s" has no
// such node and stays.
void prefer_disk_node(SymDevice *device);

}  // namespace tf
