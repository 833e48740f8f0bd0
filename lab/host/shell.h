// The shell of a lab world: what a person meets who wants to try things by hand.
#pragma once

namespace tflab {

// Says what can be tried in the host and runs a shell there: its exit status.
int run_shell_in_host(const char *host);

}  // namespace tflab
