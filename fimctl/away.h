// A snapshot in the hands of the backup host.
#pragma once

#include <string>

#include "fimctl/catalogue.h"
#include "fimctl/failure.h"

namespace fimctl {

// Throws Failure (usage) when the snapshot was exported and has not come back: what works on its
// mirrors here would pull them away from under the backup. command: what the user asked for, such
// as "release"; it is told to come back with --abandoned where abandoning is no option of it
// already. abandoned: the user says that the backup host will never return it.
void refuse_away(const SnapshotRecord &snapshot, const std::string &command, bool abandoned);

}  // namespace fimctl
