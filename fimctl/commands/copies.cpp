// mount and release: what goes on with a snapshot.
#include <cstdio>
#include <memory>

#include "fimctl/commands/command.h"

namespace fimctl {
namespace {

// Asking for a snapshot makes no catalogue.
Catalogue catalogue_with(const Common &common, int64_t id) {
    if (!Catalogue::exists(common.settings.state)) throw no_such_snapshot(id);
    return Catalogue(common.settings.state, false);
}

}  // namespace

void add_copy_commands(Commands &commands) {
    Common &common = commands.common();
    const auto id = std::make_shared<int64_t>(0);
    CLI::App *mount = commands.add(
        "mount", "bring a snapshot's copy up; prints where", Access::working, [&common, id] {
            Catalogue catalogue = catalogue_with(common, *id);
            for (const std::string &copy : Cycle(common.settings, catalogue).mount(*id)) {
                printf("%s\n", copy.c_str());
            }
            tell_result(*id, "is mounted", "where");
        });
    CLI::App *release = commands.add("release", "end a snapshot", Access::working, [&common, id] {
        Catalogue catalogue = catalogue_with(common, *id);
        Cycle(common.settings, catalogue).release(*id);
    });
    release->add_flag("--abandoned", common.settings.abandoned,
                      "also one that was exported, when the backup host will never use it again");
    for (CLI::App *command : {mount, release}) add_id(command, *id);
}

}  // namespace fimctl
