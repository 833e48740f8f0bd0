#include "fimctl/disk_group.h"

#include <set>

#include "fimctl/failure.h"
#include "fimctl/host.h"

namespace fimctl {
namespace {

// The cut stands before the suffix, so that no name is longer than the volume manager takes.
constexpr size_t longest_stem = 25;
constexpr char suffix[] = "_clone";

// One disk group of a snapshot: its name on its primary host.
struct Group {
    std::string host, name;
    bool is_target = false;
};

// The name that two groups would share, or "". What was carried here is only ever brought up by a
// process that rebuilt it.
std::string shared_name(const Group &one, const Group &two) {
    std::string rebuilt = clone_name(one.host, one.name);
    if (rebuilt == clone_name(two.host, two.name)) return rebuilt;
    const std::string plain = clone_name(one.name);
    return !one.is_target && !two.is_target && plain == clone_name(two.name) ? plain : "";
}

std::set<std::string> groups_of(const SnapshotRecord &snapshot) {
    std::set<std::string> found;
    for (const ObjectRecord &object : snapshot.objects) {
        if (object.is_volume()) found.insert(object.vol_group);
    }
    return found;
}

Failure unusable(const std::string &text, const std::string &next) {
    Failure failure(Step::check, ExitCode::usage, text);
    failure.next = next;
    return failure;
}

void refuse_within(const std::vector<Group> &groups) {
    for (size_t i = 0; i < groups.size(); ++i) {
        for (size_t k = 0; k < i; ++k) {
            const std::string name = shared_name(groups[k], groups[i]);
            if (name.empty()) continue;
            throw unusable("the copies of disk groups " + groups[k].name + " and " +
                               groups[i].name + " would both be named " + name + " (names are cut)",
                           "take the groups in two snapshots, one after the other, or give one of "
                           "them another name");
        }
    }
}

void refuse_against(const Group &group, const SnapshotRecord &snapshot) {
    const std::string held_by =
        " snapshot " + std::to_string(snapshot.id) + " (" + name_of(snapshot.state) + ")";
    const std::string next = "end that one first: fimctl release " + std::to_string(snapshot.id);
    for (const std::string &name : groups_of(snapshot)) {
        const Group other = {primary_host_of(snapshot), name, snapshot.is_target};
        // A volume shares its disks with the group's other volumes, and so it does its mirrors.
        if (other.name == group.name && other.host == group.host) {
            throw unusable("disk group " + group.name + " is held by" + held_by, next);
        }
        const std::string shared = shared_name(group, other);
        if (shared.empty()) continue;
        throw unusable("the copy of disk group " + group.name + " would be named " + shared +
                           ", as that of disk group " + name + " of" + held_by + " (names are cut)",
                       next);
    }
}

void refuse(const std::vector<Group> &groups, const std::vector<SnapshotRecord> &snapshots) {
    refuse_within(groups);
    for (const SnapshotRecord &snapshot : snapshots) {
        if (is_over(snapshot.state)) continue;
        for (const Group &group : groups) refuse_against(group, snapshot);
    }
}

}  // namespace

std::string clone_name(const std::string &group) {
    return group.substr(0, longest_stem) + suffix;
}

std::string clone_name(const std::string &primary_host, const std::string &group) {
    return clone_name(primary_host + "_" + group);
}

std::string primary_host_of(const SnapshotRecord &snapshot) {
    if (!snapshot.is_target) return snapshot.host;
    return snapshot.origin.substr(0, snapshot.origin.rfind(':'));
}

void refuse_equal_clone_names(const std::vector<Source> &sources,
                              const std::vector<SnapshotRecord> &snapshots) {
    std::vector<Group> groups;
    std::set<std::string> seen;
    for (const Source &source : sources) {
        if (source.is_volume() && seen.insert(source.vol_group).second) {
            groups.push_back({short_host_name(), source.vol_group, false});
        }
    }
    refuse(groups, snapshots);
}

void refuse_equal_clone_names(const SnapshotRecord &arriving,
                              const std::vector<SnapshotRecord> &snapshots) {
    std::vector<Group> groups;
    for (const std::string &name : groups_of(arriving)) {
        groups.push_back({primary_host_of(arriving), name, true});
    }
    refuse(groups, snapshots);
}

}  // namespace fimctl
