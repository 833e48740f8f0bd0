// The host's file-system commands with their output in an object's capture files.
#pragma once

#include <cstdint>

#include "include/records.h"

namespace tf {

// Whether there is anything under a path. A path that cannot be looked at counts as there: what
// uses it next then fails and says why, where leaving it out would go unnoticed.
bool path_exists(const char *path);

// Checks and mounts report in the given name and then dump both capture files into the log.
// Each returns 0, or 11 after a report (error number 3).
int32_t check_file_system(const hdef *h, const char *reporter, const char *device,
                          const char *fstype);
int32_t mount_file_system(const hdef *h, const char *reporter, const char *block, const char *dir,
                          const char *fstype);
// Unmounts a directory: 0, or 11 without a report, since the host's service reports its own error.
int32_t unmount_file_system(const hdef *h, const char *dir);

}  // namespace tf
