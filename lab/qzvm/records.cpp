#include "lab/qzvm/records.h"

#include <algorithm>
#include <map>

namespace qz {

void Survey::add(const std::string &path, const Disk *disk, const std::string &group_id) {
    if (disk == nullptr) {
        trouble_ = "disk " + path + " is missing";
        return;
    }
    Found found;
    try {
        found = read_region(disk->block);
    } catch (const Error &error) {
        trouble_ = error.what();
        return;
    }
    if (found.content == Content::damaged) {
        trouble_ = "the private region of disk " + disk->name + " is damaged: " + found.reason;
        damaged_.push_back(*disk);
        return;
    }
    const Group &group = found.region.group;
    const bool foreign = !group.host.empty() && group.host != this_host();
    if (found.content == Content::good && group.id == group_id && !foreign) {
        disks_.push_back(*disk);
        regions_.push_back(found.region);
    } else {
        notices_.push_back("disk " + disk->name +
                           " does not carry the group any more and is left as it is");
    }
}

void Survey::require_sound() const {
    if (!trouble_.empty()) throw Error(trouble_);
}

Imported Survey::carriers() const {
    Imported imported;
    imported.disks = disks_;
    for (const Region &region : regions_) {
        if (region.group.generation >= imported.group.generation) imported.group = region.group;
    }
    return imported;
}

std::vector<Region> Survey::regions() const {
    return regions_;
}

std::vector<Disk> Survey::own_disks() const {
    std::vector<Disk> all = disks_;
    all.insert(all.end(), damaged_.begin(), damaged_.end());
    return all;
}

Survey survey_group(const State &state, const std::string &name) {
    const auto found = state.groups.find(name);
    if (found == state.groups.end()) throw Error("group " + name + " is not imported here");
    const Disks disks = Disks::scan(state);
    Survey survey;
    for (const std::string &path : found->second.disks) {
        survey.add(path, disks.find(path), found->second.id);
    }
    return survey;
}

Imported read_group(const State &state, const std::string &name) {
    const Survey survey = survey_group(state, name);
    survey.require_sound();
    if (!survey.complete()) throw Error(survey.notices().front());
    Imported imported = survey.carriers();
    imported.group.name = name;  // an interrupted import may have left the old one
    // In the order of the group's list, which is the same on all of them.
    std::map<std::string, Disk> by_id;
    const std::vector<Region> regions = survey.regions();
    for (size_t i = 0; i < regions.size(); ++i) by_id[regions[i].disk_id] = imported.disks[i];
    imported.disks.clear();
    for (const GroupDisk &disk : imported.group.disks) {
        const auto one = by_id.find(disk.id);
        if (one == by_id.end()) {
            throw Error("disk " + disk.name + " of group " + name + " is missing");
        }
        imported.disks.push_back(one->second);
    }
    return imported;
}

void write_group(const Imported &imported, const std::vector<std::string> &ids,
                 const std::vector<Region> &before) {
    for (size_t i = 0; i < imported.disks.size(); ++i) {
        try {
            write_region(imported.disks[i].block, {imported.group, ids[i]});
        } catch (const Error &) {
            for (size_t done = 0; done < i; ++done) {
                if (before.empty()) {
                    clear_region(imported.disks[done].block);
                } else {
                    write_region(imported.disks[done].block, before[done]);
                }
            }
            throw;
        }
    }
}

Group renewed(const Group &like, const std::vector<Disk> &disks) {
    Group group = like;
    group.id = new_id();
    group.generation = 1;
    std::map<std::string, std::string> ids;
    for (size_t i = 0; i < disks.size(); ++i) {
        const std::string id = new_id();
        ids[like.disks[i].id] = id;
        group.disks[i] = {id, disks[i].name};
    }
    for (Volume &volume : group.volumes) {
        for (std::string &id : volume.disks) {
            const auto renamed = ids.find(id);
            if (renamed == ids.end()) {
                throw Error("volume " + volume.name + " is listed over a disk that is not there");
            }
            id = renamed->second;
        }
    }
    return group;
}

}  // namespace qz
