// completion: the shell's help with this command line.
#include <cstdio>
#include <memory>

#include "fimctl/commands/command.h"
#include "fimctl/completion.h"

namespace fimctl {

void add_completion_commands(Commands &commands) {
    const auto shell = std::make_shared<std::string>();
    CLI::App *command = commands.add(
        "completion", "print a script for the shell: source <(fimctl completion bash)",
        Access::telling,
        [&commands, shell] { fputs(bash_completion(commands.app(), "run").c_str(), stdout); });
    command->add_option("SHELL", *shell, "the shell: bash")
        ->required()
        ->check(CLI::IsMember({"bash"}));
}

}  // namespace fimctl
