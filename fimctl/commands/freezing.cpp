// run and freeze: what begins a snapshot.
#include <cstdio>
#include <memory>

#include "fimctl/commands/command.h"

namespace fimctl {
namespace {

struct Options {
    std::vector<std::string> paths;
};

void add_options(CLI::App *command, Commands &commands, Options &options) {
    command->add_option("PATH", options.paths, "file systems or devices to freeze")->required();
    command
        ->add_option("--mount-at", commands.common().settings.mount_at,
                     "where the copy is mounted (several paths: DIR/1, DIR/2, ...)")
        ->check(trouble_of_folder)
        ->type_name("DIR");
    commands.configuration().add_options(command, Scope::freezing);
}

}  // namespace

void add_freezing_commands(Commands &commands) {
    Common &common = commands.common();
    const auto options = std::make_shared<Options>();
    CLI::App *run = commands.add(
        "run", "the whole cycle around a command: fimctl run PATH... -- COMMAND ARG...",
        Access::working, [&common, options] {
            Catalogue catalogue(common.settings.state, true);
            Cycle(common.settings, catalogue).run(options->paths, common.trailing);
        });
    commands.takes_trailing(run, "COMMAND");
    CLI::App *freeze = commands.add(
        "freeze", "take a snapshot; prints its number", Access::working, [&common, options] {
            Catalogue catalogue(common.settings.state, true);
            const int64_t id = Cycle(common.settings, catalogue).freeze(options->paths);
            printf("%lld\n", static_cast<long long>(id));
            tell_result(id, "was taken", "its number");
        });
    for (CLI::App *command : {run, freeze}) add_options(command, commands, *options);
}

}  // namespace fimctl
