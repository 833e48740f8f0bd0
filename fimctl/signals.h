// Interruption: a signal only raises a flag, and the work ends at the next point where it can end
// cleanly.
#pragma once

namespace fimctl::signals {

// SIGINT, SIGTERM and SIGHUP raise the flag from now on; a dead reader is no reason to die.
void install();
// The first signal that came, 0 when none did.
int raised();
// How many came: a second one means "now".
int count();
// Whether the first one came from a process rather than from the terminal. The terminal tells every
// process of its group, so only the former is handed on.
bool from_process();
// A second, or less when a signal comes.
void wait_a_second();
// From here on this process finishes what it does, whatever signal comes.
void ignore();
// For tests, which run more than one command in a process.
void reset();

}  // namespace fimctl::signals
