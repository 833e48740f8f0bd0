#include "fimctl/inspect/plan.h"

#include <algorithm>
#include <map>

#include "fimctl/copy_folder.h"
#include "fimctl/disk_group.h"
#include "fimctl/held_devices.h"

namespace fimctl {
namespace {

// Turns what a check throws into a line of the plan.
template <typename Check>
void as_problem(Plan &plan, Check check) {
    try {
        check();
    } catch (const Failure &failure) {
        plan.problem(failure.what(), failure.next);
    }
}

// Whether any of the objects is held.
bool find_holders(const std::vector<Source> &sources, const std::vector<SnapshotRecord> &snapshots,
                  Plan &plan) {
    bool found = false;
    for (const SnapshotRecord &snapshot : snapshots) {
        if (is_over(snapshot.state)) continue;
        for (const ObjectRecord &object : snapshot.objects) {
            for (const Source &source : sources) {
                if (object.device != static_cast<int64_t>(source.device)) continue;
                plan.problem(source.path + " is held by snapshot " + std::to_string(snapshot.id) +
                                 " (" + name_of(snapshot.state) + ")",
                             "fimctl release " + std::to_string(snapshot.id));
                found = true;
            }
        }
    }
    return found;
}

void add_objects(const std::vector<Source> &sources, Plan &plan) {
    for (const Source &source : sources) {
        PlannedObject object;
        object.source = source;
        plan.objects.push_back(std::move(object));
    }
}

std::vector<SnapshotRecord> snapshots_of(const Settings &settings) {
    if (!Catalogue::exists(settings.state)) return {};
    return Catalogue(settings.state, false).all();
}

// The method tells the devices of a batch apart by their names on the array, without the array.
void find_doubles(Plan &plan) {
    std::map<std::string, std::string> arrays;
    for (const PlannedObject &object : plan.objects) {
        for (const PlannedPair &pair : object.pairs) {
            if (!pair.device.trouble.empty() || pair.device.name.empty()) continue;
            const auto known = arrays.emplace(pair.device.name, pair.device.symid).first;
            if (known->second == pair.device.symid) continue;
            plan.problem("device " + pair.device.name + " is on array " + known->second +
                             " and on array " + pair.device.symid +
                             ": devices of the same name cannot be in one snapshot",
                         "take the paths in two snapshots");
        }
    }
}

}  // namespace

const BcvView *PlannedPair::bcv() const {
    return choice.index < 0 ? nullptr : &device.bcvs[static_cast<size_t>(choice.index)];
}

bool Plan::is_prevented() const {
    return std::any_of(problems.begin(), problems.end(),
                       [](const Problem &problem) { return problem.prevents; });
}

Plan make_plan(const Settings &settings, const std::vector<std::string> &paths) {
    const auto sources = look_at_sources(paths);
    Plan plan;
    plan.config = parse_method_config(settings.config);
    if (!plan.config.trouble.empty()) {
        plan.problem("the configuration string: " + plan.config.trouble, "correct --config");
    }
    for (const std::string &keyword : plan.config.unknown) {
        plan.note(warning_of_keyword(keyword),
                  "correct --config, unless it is meant for a later release");
    }
    if (settings.quiesce) {
        plan.quiesced = file_systems_of(sources);
        as_problem(plan, [&] { refuse_writing_to_frozen(sources, written_places(settings)); });
    }
    as_problem(plan, [&] { refuse_mount_at(settings, sources); });
    const auto snapshots = snapshots_of(settings);
    const bool held = find_holders(sources, snapshots, plan);
    as_problem(plan, [&] { refuse_equal_clone_names(sources, snapshots); });
    add_objects(sources, plan);
    find_devices(settings, plan);
    find_pairs(plan);
    // Told already, or by the array's names of a device that has several on this host.
    if (!held) {
        as_problem(plan, [&] { refuse_held_devices(sources, devices_of(plan), snapshots); });
    }
    find_doubles(plan);
    find_locks(plan);
    find_commands(settings, plan);
    return plan;
}

}  // namespace fimctl
