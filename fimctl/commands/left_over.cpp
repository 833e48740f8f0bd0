// orphans and cleanup: what was begun on this host and has not ended.
#include <cstdio>
#include <memory>

#include "fimctl/commands/command.h"
#include "fimctl/inspect/cleanup.h"
#include "fimctl/inspect/orphans.h"

namespace fimctl {
namespace {

// Nothing on standard output means that nothing is left: that is easy to ask for in a script.
void orphans(const Common &common, bool json) {
    const auto found = find_orphans(common.settings);
    fputs(orphan_report(found, json).c_str(), stdout);
    if (found.empty() && !common.log.quiet) log::problem("nothing is left over on this host");
}

void cleanup(const Common &common, const CleanupWish &wish) {
    if (!clean_up(common.settings, wish)) throw Ended{ExitCode::left};
}

}  // namespace

void add_left_over_commands(Commands &commands) {
    const Common &common = commands.common();
    const auto json = std::make_shared<bool>(false);
    CLI::App *named = commands.add("orphans", "what was begun on this host and has not ended",
                                   Access::reading, [&common, json] { orphans(common, *json); });
    named->add_flag("--json", *json, "one JSON document");

    const auto wish = std::make_shared<CleanupWish>();
    CLI::App *ended = commands.add("cleanup", "end what orphans names", Access::working,
                                   [&common, wish] { cleanup(common, *wish); });
    CLI::Option *ids = ended->add_option("ID", wish->ids, "these snapshots, and nothing else")
                           ->check(trouble_of_id);
    ended->add_flag("--all", wish->all, "also the snapshots that wait to be mounted or released")
        ->excludes(ids);
}

}  // namespace fimctl
