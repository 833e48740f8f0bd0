// The command that reads the copy.
#pragma once

#include <string>
#include <vector>

namespace fimctl {

// The command with the copies' paths put in: every argument that holds "{}" is replaced by one
// argument a copy, in the order of the objects, its "{}" standing for the copy's path.
std::vector<std::string> with_copies(const std::vector<std::string> &command,
                                     const std::vector<std::string> &copies);

// Whether the program can be found, so that a typing error costs no snapshot.
bool can_be_run(const std::string &program);

// Runs a command in the terminal's foreground and waits for its end; returns its wait status. A
// signal that a process sent to fimctl is handed on to it.
int run_command(const std::vector<std::string> &command);

}  // namespace fimctl
