// Completion in the shell, made from the commands and options themselves.
#pragma once

#include <string>

namespace CLI {
class App;
}

namespace fimctl {

// A bash script that completes the commands, options and snapshot numbers of this command line.
// takes_command: whether what stands behind "--" is a command, by the name of the subcommand.
std::string bash_completion(const CLI::App &app, const std::string &takes_command);

}  // namespace fimctl
