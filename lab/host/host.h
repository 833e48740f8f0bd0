// A client host of a world: its own root, devices, mount table, name and processes.
#pragma once

#include <string>
#include <vector>

#include "lab/host/system.h"

namespace tflab {

// Starts a host in the world of the calling process and makes it known to the array. With
// administrator the array's control socket is seen in the host too, for a shell that plays both
// parts. Returns when commands can be run in it.
void start_host(const std::string &name, bool administrator = false);
// Ends a host: its processes are killed, its mounts go with them.
void stop_host(const std::string &name);
std::vector<std::string> host_names();

// Runs a command in a host with a fresh environment (plus the given variables) and our own streams:
// its exit status. It ends when the calling process ends.
int execute_in_host(const std::string &name, const std::vector<std::string> &command,
                    const std::vector<std::string> &variables = {});

// Moves the calling process into the world of another process (its number as seen here).
void enter_world(pid_t first_process);

}  // namespace tflab
