// What a thaw commit does around the array's work when the primaries are restored from the mirrors.
#pragma once

#include <cstdint>

#include "include/records.h"

namespace tf {

// Takes one object off line: unmounts its file system, and with the last object of a disk group
// deports the group before its disks are overwritten. *complete is whether the group was deported;
// until then the call has nothing more to do. Returns 0, 11, or the status of the command.
int32_t prepare_restore(const hdef *h, bool *complete);
// Waits for the first count entries of primmirlist. Returns the result of the last wait, or 11
// after a report when a pair ended in another state than synchronised or restored.
int32_t wait_for_restore(const hdef *h, int32_t count);
// Imports the restored disk groups and checks and mounts the file systems again. h is the object
// of the call: its capture files take the output, and it says what is mounted. status is the status
// so far and the answer when there is nothing to do; otherwise the last command's status.
int32_t bring_restored_back(const hdef *h, int32_t status);

}  // namespace tf
