// Disk groups of a snapshot's volumes: the names of their copies, and which of them may not be
// taken together.
#pragma once

#include <string>
#include <vector>

#include "fimctl/catalogue.h"
#include "fimctl/source.h"

namespace fimctl {

// The name under which the method brings a disk group's copy up: in the process that froze it, and
// in one that rebuilt it, where the name of the primary host stands before it. Both are cut.
std::string clone_name(const std::string &group);
std::string clone_name(const std::string &primary_host, const std::string &group);

// The primary host of a snapshot, as its clone names have it.
std::string primary_host_of(const SnapshotRecord &snapshot);

// Throws Failure (usage) when two disk groups of the sources would be brought up under one name, or
// one of theirs is held by, or has the name of, a snapshot that is not over.
void refuse_equal_clone_names(const std::vector<Source> &sources,
                              const std::vector<SnapshotRecord> &snapshots);
// The same for a snapshot that is carried to this host.
void refuse_equal_clone_names(const SnapshotRecord &arriving,
                              const std::vector<SnapshotRecord> &snapshots);

}  // namespace fimctl
