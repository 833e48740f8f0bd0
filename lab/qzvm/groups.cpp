#include "lab/qzvm/groups.h"

#include <fcntl.h>

#include <algorithm>
#include <set>

#include "lab/common/descriptor.h"
#include "lab/qzvm/choice.h"
#include "lab/qzvm/records.h"
#include "lab/qzvm/volumes.h"

namespace qz {
namespace {

using lab::common::Descriptor;

void refuse_imported(const State &state, const std::string &name) {
    if (state.groups.contains(name)) throw Error("group " + name + " is imported here already");
}

void require_name(const std::string &name) {
    if (!is_name(name)) throw Error("'" + name + "' is no name for a group");
}

std::vector<Candidate> candidates(const State &state) {
    std::vector<Candidate> all;
    const Disks disks = Disks::scan(state);
    const Taken taken(state);
    for (const Disk &disk : disks.all()) {
        if (!disk.online) continue;
        Candidate one = {disk, {}, "", !taken.by(disk).empty()};
        try {
            one.found = read_region(disk.block);
        } catch (const Error &error) {
            one.trouble = error.what();
        }
        all.push_back(std::move(one));
    }
    return all;
}

// Nobody else holds or has mounted it, neither on this host nor on another of the machine.
void require_free(const Taken &taken, const Disk &disk) {
    if (const std::string group = taken.by(disk); !group.empty()) {
        throw Error("disk " + disk.name + " belongs to group " + group +
                    ", which is imported here");
    }
    const Descriptor held(open(disk.block.c_str(), O_RDWR | O_EXCL | O_CLOEXEC));
    if (!held.good()) fails("take disk " + disk.name + " for the group");
    if (capacity_of(disk.block) < 2 * region_bytes) {
        throw Error("disk " + disk.name + " has no room for a group" +
                    " (a mirror that is joined to its primary has none)");
    }
}

std::vector<Disk> free_disks(const State &state, const std::vector<std::string> &names) {
    if (names.empty()) throw Error("a group needs a disk");
    const Disks seen = Disks::scan(state);
    const Taken taken(state);
    std::set<dev_t> devices;
    std::vector<Disk> disks;
    for (const std::string &name : names) {
        const Disk &disk = seen.at(name);
        if (!devices.insert(disk.device).second) {
            throw Error("disk " + disk.name + " is given twice");
        }
        require_free(taken, disk);
        disks.push_back(disk);
    }
    return disks;
}

void refuse_content(const Disk &disk, bool force) {
    const Found found = read_region(disk.block);
    if (found.content == Content::good) {
        throw Error("disk " + disk.name + " belongs to group " + found.region.group.name +
                    "; import that group and destroy it first");
    }
    if (force) return;
    if (found.content == Content::damaged) {
        throw Error("disk " + disk.name + " has a damaged private region (" + found.reason +
                    "); -f makes a new one");
    }
    if (!is_blank(disk.block)) {
        throw Error("disk " + disk.name + " holds something else; -f overwrites it");
    }
}

void remember(State *state, const Imported &imported) {
    ImportedGroup &group = state->groups[imported.group.name];
    group = {imported.group.id, {}};
    for (const Disk &disk : imported.disks) group.disks.push_back(disk.block);
}

// The regions come second: when this is interrupted, the group can be deported.
void take(State *state, const Imported &imported, const std::vector<Region> &before) {
    const State old = load_state();
    std::vector<std::string> ids;
    for (const GroupDisk &disk : imported.group.disks) ids.push_back(disk.id);
    remember(state, imported);
    save_state(*state);
    try {
        write_group(imported, ids, before);
    } catch (const Error &) {
        save_state(old);
        throw;
    }
}

const char *daemon_trouble(Daemon daemon) {
    switch (daemon) {
    case Daemon::enabled:
        return nullptr;
    case Daemon::disabled:
        return "the volume manager's daemon is disabled; 'qzdctl enable' enables it";
    case Daemon::stalled:
        break;
    }
    return "the volume manager's daemon does not answer; 'qzdctl enable' starts it anew";
}

}  // namespace

const Disk &Imported::disk(const std::string &id) const {
    for (size_t i = 0; i < group.disks.size(); ++i) {
        if (group.disks[i].id == id) return disks[i];
    }
    throw Error("group " + group.name + " has no disk " + id);
}

const Volume &Imported::volume(const std::string &name) const {
    const Volume *found = group.volume(name);
    if (found == nullptr) throw Error("group " + group.name + " has no volume '" + name + "'");
    return *found;
}

std::vector<std::string> imported_names() {
    const Exclusive only;
    const State state = load_state();
    std::vector<std::string> names;
    for (const auto &[name, group] : state.groups) names.push_back(name);
    return names;
}

bool is_imported(const std::string &name) {
    const Exclusive only;
    return load_state().groups.contains(name);
}

Imported imported_group(const std::string &name) {
    const Exclusive only;
    return read_group(load_state(), name);
}

std::vector<Seen> other_groups() {
    const Exclusive only;
    std::vector<Seen> all;
    for (const Candidate &one : candidates(load_state())) {
        if (one.found.content != Content::good || one.taken) continue;
        const Group &group = one.found.region.group;
        const auto same = std::find_if(all.begin(), all.end(), [&group](const Seen &seen) {
            return seen.name == group.name && seen.id == group.id && seen.host == group.host;
        });
        if (same != all.end()) {
            same->disks.push_back(one.disk.name);
        } else {
            all.push_back({group.name, group.id, group.host, {one.disk.name}});
        }
    }
    return all;
}

void init_group(const std::string &name, const std::vector<std::string> &names, bool force) {
    const Exclusive only;
    require_name(name);
    State state = load_state();
    refuse_imported(state, name);
    Imported imported;
    imported.disks = free_disks(state, names);
    for (const Disk &disk : imported.disks) refuse_content(disk, force);
    imported.group.name = name;
    imported.group.id = new_id();
    imported.group.generation = 1;
    imported.group.host = this_host();
    for (const Disk &disk : imported.disks) {
        imported.group.disks.push_back({new_id(), disk.name});
        state.disks[disk.block] = {true, ++state.order};
    }
    take(&state, imported, {});
}

Notices import_group(const std::string &name, const ImportOptions &options) {
    const Exclusive only;
    State state = load_state();
    if (const char *trouble = daemon_trouble(state.daemon)) throw Error(trouble);
    const std::string &known_as = options.new_name.empty() ? name : options.new_name;
    require_name(known_as);
    refuse_imported(state, known_as);
    Choice choice = choose_disks(candidates(state), name, this_host(), options.clear_host);
    Group &group = choice.imported.group;
    group.name = known_as;
    group.host = this_host();
    ++group.generation;
    take(&state, choice.imported, choice.before);
    return choice.notices;
}

Notices deport_group(const std::string &name, const std::string &new_name) {
    const Exclusive only;
    State state = load_state();
    if (!new_name.empty()) require_name(new_name);
    const Survey survey = survey_group(state, name);
    survey.require_sound();
    stop_volumes(name);
    Imported left = survey.carriers();
    left.group.name = new_name.empty() ? name : new_name;
    left.group.host.clear();
    ++left.group.generation;
    std::vector<std::string> ids;
    for (const Region &region : survey.regions()) ids.push_back(region.disk_id);
    write_group(left, ids, survey.regions());
    state.groups.erase(name);
    save_state(state);
    return survey.notices();
}

void clone_group(const std::string &name, const Group &like,
                 const std::vector<std::string> &names) {
    const Exclusive only;
    require_name(name);
    State state = load_state();
    refuse_imported(state, name);
    if (names.size() != like.disks.size()) {
        throw Error("the clone of a group of " + std::to_string(like.disks.size()) +
                    " disks cannot be made of " + std::to_string(names.size()));
    }
    Imported imported;
    imported.disks = free_disks(state, names);
    imported.group = renewed(like, imported.disks);
    imported.group.name = name;
    imported.group.host = this_host();
    std::vector<Region> before;
    for (const Disk &disk : imported.disks) {
        const Found found = read_region(disk.block);
        if (found.content == Content::good) before.push_back(found.region);
    }
    if (before.size() != imported.disks.size()) before.clear();
    take(&state, imported, before);
}

void destroy_group(const std::string &name) {
    const Exclusive only;
    State state = load_state();
    const Survey survey = survey_group(state, name);
    stop_volumes(name);
    for (const Disk &disk : survey.own_disks()) clear_region(disk.block);
    state.groups.erase(name);
    save_state(state);
}

}  // namespace qz
