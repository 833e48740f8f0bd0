// The directories on which copies are mounted.
#pragma once

#include <string>
#include <vector>

#include "fimctl/catalogue.h"

namespace fimctl {

// Makes a folder unless it is there, for root alone; true when it was made. Throws Failure (usage).
bool make_folder(const std::string &folder);

// Throws Failure (usage) when the real name of a folder is the place of a copy of a snapshot that
// is not over: the release of either one would unmount whatever is mounted there. what: how the
// message names it.
void refuse_promised(const std::string &what, const std::string &real,
                     const std::vector<SnapshotRecord> &others);

}  // namespace fimctl
