// What list and show print.
#pragma once

#include <string>
#include <vector>

#include "fimctl/catalogue.h"

namespace fimctl {

// One line a snapshot, or one JSON array.
std::string listing(const std::vector<SnapshotRecord> &snapshots, bool json);
// Everything about one snapshot, with the states of its pairs as they are now (one a pair, in
// order; empty when the array could not be read).
std::string description(const SnapshotRecord &snapshot, const std::vector<long> &now, bool json);

}  // namespace fimctl
