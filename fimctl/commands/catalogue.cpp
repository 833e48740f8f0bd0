// list and show: what the catalogue knows.
#include <cstdio>
#include <memory>

#include "fimctl/array_reader.h"
#include "fimctl/commands/command.h"
#include "fimctl/listing.h"

namespace fimctl {
namespace {

struct Options {
    int64_t id = 0;
    bool all = false;
    bool json = false;
    bool ids = false;
};

void list(const Common &common, const Options &options) {
    std::vector<SnapshotRecord> shown;
    if (Catalogue::exists(common.settings.state)) {
        for (auto &snapshot : Catalogue(common.settings.state, false).all()) {
            if (options.all || !is_over(snapshot.state)) shown.push_back(snapshot);
        }
    }
    if (options.ids) {
        for (const SnapshotRecord &snapshot : shown) {
            printf("%lld\n", static_cast<long long>(snapshot.id));
        }
        return;
    }
    fputs(listing(shown, options.json).c_str(), stdout);
}

void show(const Common &common, const Options &options) {
    std::optional<SnapshotRecord> snapshot;
    if (Catalogue::exists(common.settings.state)) {
        snapshot = Catalogue(common.settings.state, false).find(options.id);
    }
    if (!snapshot) throw no_such_snapshot(options.id);
    std::vector<Pair> pairs;
    for (const ObjectRecord &object : snapshot->objects) {
        for (const PairRecord &record : object.pairs) pairs.push_back(record.pair);
    }
    std::vector<long> now;
    try {
        if (pairs.empty() || has_array_database()) {
            now = read_pair_states(pairs, Step::states);
        } else {
            log::problem(no_database_yet);
        }
    } catch (const Failure &failure) {
        log::problem(failure.what());
    }
    fputs(description(*snapshot, now, options.json).c_str(), stdout);
}

}  // namespace

void add_catalogue_commands(Commands &commands) {
    const Common &common = commands.common();
    const auto options = std::make_shared<Options>();
    CLI::App *listed = commands.add("list", "the snapshots that are not over", Access::reading,
                                    [&common, options] { list(common, *options); });
    listed->add_flag("--all", options->all, "those that are over as well");
    listed->add_flag("--ids", options->ids, "only their numbers, one a line");
    CLI::App *shown = commands.add("show", "one snapshot, with its pairs as they are now",
                                   Access::reading, [&common, options] { show(common, *options); });
    add_id(shown, options->id);
    for (CLI::App *command : {listed, shown}) {
        command->add_flag("--json", options->json, "one JSON document");
    }
}

}  // namespace fimctl
