// The volume manager's commands that bring a disk group up, as volumes and restore use them.
#pragma once

#include <cstdint>

#include "include/records.h"

namespace tf {

// Imports a disk group, clearing the host lock on its disks, under the name new_name, or under its
// own where that is null. After a failure the volume manager's daemon is enabled and the import
// tried once more. h's capture files take the output. Returns 0 or the second import's status.
int32_t import_disk_group(const hdef *h, const char *group, const char *new_name);
// Starts all volumes of a disk group: 0 or the command's status.
int32_t start_volumes(const hdef *h, const char *group);

}  // namespace tf
