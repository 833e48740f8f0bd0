// config: every setting, and who said it.
#include <cstdio>
#include <memory>

#include "fimctl/commands/command.h"

namespace fimctl {

void add_configuration_commands(Commands &commands) {
    const auto json = std::make_shared<bool>(false);
    CLI::App *command = commands.add(
        "config", "every setting, its value and where that comes from", Access::reading,
        [&commands, json] {
            for (const std::string &name : Configuration::unknown_variables()) {
                log::problem(name + ": no setting has this variable");
            }
            fputs(configuration_listing(commands.configuration(), commands.common(), *json).c_str(),
                  stdout);
        });
    command->add_flag("--json", *json, "one JSON document");
}

}  // namespace fimctl
