// Ends a command as the worst case would: it and all that it has started, at one moment.
#pragma once

#include <sys/types.h>

#include <vector>

namespace test {

// The processes that one has started, and theirs.
std::vector<pid_t> descendants_of(pid_t pid);
// Stops them all first, so that none sees another one die, then kills them; waits for the command
// itself and until the others are gone.
void kill_with_all(pid_t pid);

}  // namespace test
