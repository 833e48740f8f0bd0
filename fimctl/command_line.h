// The command as a user meets it.
#pragma once

namespace fimctl {

// Runs fimctl with these arguments and returns its exit code. Results go to standard output,
// everything else to standard error.
int run_command_line(int argc, const char *const *argv);

}  // namespace fimctl
