// What holds of every command that fails, whichever it is.
#pragma once

#include <string>
#include <vector>

#include "proof/commands/bench.h"

namespace proof {

// Whether the command goes through the shell and the method's own runner.
bool is_run_by_shell(const Command &command);
// The exit status that the fault gives the command; 0 where it counts as success.
int exit_status(const Fault &fault, bool shell_is_replaced);

// What the process did that it must not do: ended by a signal, hung, left messages that differ,
// kept silent about a command that failed, or told of one that did not.
std::vector<std::string> wrong_with(const test::Phase &phase, const Command &command,
                                    const Fault &fault, bool shell_is_replaced);

}  // namespace proof
