// run and freeze: what begins a snapshot.
#include <cstdio>
#include <memory>

#include "fimctl/commands/command.h"

namespace fimctl {
namespace {

constexpr double default_freeze_deadline = 10;
constexpr double longest_freeze_deadline = 3600;

struct Options {
    std::vector<std::string> paths;
    bool no_quiesce = false;
};

void add_options(CLI::App *command, Common &common, Options &options) {
    Settings &settings = common.settings;
    settings.freeze_deadline = default_freeze_deadline;
    command->add_option("PATH", options.paths, "file systems or devices to freeze")->required();
    command->add_option("--config", settings.config,
                        "the method's configuration, such as sync_at_start=1");
    command->add_option("--mount-at", settings.mount_at,
                        "where the copy is mounted (several paths: DIR/1, DIR/2, ...)");
    command
        ->add_option("--freeze-deadline", settings.freeze_deadline,
                     "seconds after which frozen file systems are thawed, come what may")
        ->check(CLI::Range(0.05, longest_freeze_deadline))
        ->capture_default_str();
    command->add_flag("--no-quiesce", options.no_quiesce,
                      "do not freeze the file systems around the cut");
}

}  // namespace

void add_freezing_commands(Commands &commands) {
    Common &common = commands.common();
    const auto options = std::make_shared<Options>();
    CLI::App *run = commands.add(
        "run", "the whole cycle around a command: fimctl run PATH... -- COMMAND ARG...",
        Access::working, [&common, options] {
            common.settings.quiesce = !options->no_quiesce;
            Catalogue catalogue(common.settings.state, true);
            Cycle(common.settings, catalogue).run(options->paths, common.trailing);
        });
    commands.takes_trailing(run, "COMMAND");
    CLI::App *freeze = commands.add(
        "freeze", "take a snapshot; prints its number", Access::working, [&common, options] {
            common.settings.quiesce = !options->no_quiesce;
            Catalogue catalogue(common.settings.state, true);
            const int64_t id = Cycle(common.settings, catalogue).freeze(options->paths);
            printf("%lld\n", static_cast<long long>(id));
        });
    for (CLI::App *command : {run, freeze}) add_options(command, common, *options);
}

}  // namespace fimctl
