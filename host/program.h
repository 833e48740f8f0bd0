// One of the host's own programs, run to its end.
#pragma once

#include "tessera_host.h"

namespace tessera {

// Exit status of a program that could not be started or waited for; a program that a signal ended
// has 128 and the signal's number.
constexpr int not_started = 127;
constexpr int ended_by_signal = 128;

// Runs a program with these arguments (the first is its plain name; null closes the list) and
// answers its exit status. It is looked for in the system's program folders alone, gets PATH and
// LC_ALL=C as its whole environment, the null device as its input, and the descriptors of the
// options (the null device for -1) as output and error streams; it inherits no other descriptor.
int run_program(const char *const *arguments, const Q_sys_cmd_exec_options &options);

}  // namespace tessera
