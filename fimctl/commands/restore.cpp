// restore: the copy goes back over its primaries.
#include "fimctl/restore/restore.h"

#include <memory>

#include "fimctl/commands/command.h"

namespace fimctl {
namespace {

struct Chosen {
    int64_t id = 0;
    bool plan_only = false;
    RestoreOptions options;
};

void restore(const Common &common, const Chosen &chosen) {
    if (!Catalogue::exists(common.settings.state)) throw no_such_snapshot(chosen.id);
    Catalogue catalogue(common.settings.state, false);
    Restore work(common.settings, catalogue);
    log::about(static_cast<long>(chosen.id));
    if (chosen.plan_only) {
        work.show_plan(chosen.id, chosen.options);
    } else {
        work.perform(chosen.id, chosen.options);
    }
}

}  // namespace

void add_restore_commands(Commands &commands) {
    const Common &common = commands.common();
    const auto chosen = std::make_shared<Chosen>();
    RestoreOptions &options = chosen->options;
    CLI::App *command =
        commands.add("restore", "copy a snapshot back over its originals", Access::working,
                     [&common, chosen] { restore(common, *chosen); });
    add_id(command, chosen->id);
    CLI::Option *plan_only =
        command->add_flag("--plan-only", chosen->plan_only, "print what would be done, and end");
    CLI::Option *yes = command->add_flag("--yes", options.yes, "ask nothing");
    CLI::Option *confirm =
        command
            ->add_option("--confirm", options.confirm,
                         "the code of the plan that was seen, instead of a question")
            ->type_name("CODE");
    command->add_flag("--measure", options.plan.measure,
                      "compare mirrors and originals to tell how much changes");
    command->add_flag("--abandoned", options.plan.abandoned,
                      "also when the copy was exported and is not back");
    command->add_flag("--json", options.json, "the plan as one JSON document")->needs(plan_only);
    yes->excludes(plan_only)->excludes(confirm);
    confirm->excludes(plan_only);
}

}  // namespace fimctl
