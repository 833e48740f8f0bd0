// What runs in a host of the lab beside what always runs there: what a process has left, a copy's
// holder of the volume manager, a command that hangs.
#pragma once

#include "tests/support/lab_world.h"

namespace proof {

// Puts the program that looks into the world's exchange folder; once a world.
void install_process_list(const test::LabWorld &world);

// A line of the shell in a host: waits until nothing runs but holders, since what a process has
// started may end a moment after it, and prints "process NAME" for everything that still runs.
// Status 1 when some of that is no holder. It looks a hundred times a second, and 2000 times in
// all, or as often as a number behind it says.
inline constexpr char list_processes[] = "/exchange/processes";

}  // namespace proof
