// The files that every host of a world has on top of the machine's own.
#pragma once

#include "lab/host/system.h"

namespace tflab {

// Copies the built programs and libraries to their production paths below target, and makes the
// folders that the product's installation would have made. Says on stderr what is not built.
void install_tree(const fs::path &build, const fs::path &target);

}  // namespace tflab
