// The host side of a restore's end: what the method has taken away comes back, or comes back as it
// was before.
#pragma once

#include <string>
#include <vector>

#include "fimctl/restore/plan.h"

namespace fimctl {

// Each answers what could not be done, "" when all was.

// After a restore: mounts the file systems that the method did not mount, and gives each the mount
// options that it had. The method has checked all of them, but as one type; the others are checked
// here.
std::string mount_restored(const RestorePlan &plan);
// After a restore that changed nothing on the array: imports the groups that are away, and puts
// every file system where it was.
std::string put_back(const RestorePlan &plan);
// Imports those groups of the plan that are not imported here, or not from their primaries.
std::string import_groups(const RestorePlan &plan);

// The primary disk that the imported group does not lie on, "" when there is none: volumes that are
// started hold their disks, and it may be the mirrors that are held.
std::string foreign_disk(const RestorePlan &plan, const std::string &group);

}  // namespace fimctl
