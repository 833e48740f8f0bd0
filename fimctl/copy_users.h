// Who keeps a copy from being taken down.
#pragma once

#include <string>

#include "fimctl/catalogue.h"

namespace fimctl {

// What is still up of a snapshot's copies, and which processes and mounts hold it there: the method
// gives no message for a failed unmount. "" when nothing is up.
std::string what_holds(const SnapshotRecord &snapshot);

}  // namespace fimctl
