// Which disks and volumes a copy consists of, from what its mirrors say of themselves.
#include <algorithm>

#include "lab/tessera/clone_copy.h"

namespace tessera {
namespace {

constexpr char clone_suffix[] = "_clone";
constexpr size_t suffix_length = sizeof clone_suffix - 1;
constexpr size_t longest_kept_name = 25;

const Mirror *mirror_of(const std::vector<Mirror> &mirrors, const std::string &disk_id) {
    for (const Mirror &mirror : mirrors) {
        if (mirror.region.disk_id == disk_id) return &mirror;
    }
    return nullptr;
}

void check_volume_is_covered(const qz::Volume &volume, const std::vector<Mirror> &mirrors) {
    for (const std::string &id : volume.disks) {
        if (mirror_of(mirrors, id) == nullptr) {
            throw qz::Error("volume " + volume.name + " lies on disk " + id +
                            ", of which no mirror is listed");
        }
    }
}

[[noreturn]] void refuse(const CloneOptions &options, const std::string &why) {
    throw CloneInformationError(options.information + ": " + why);
}

bool is_same(const CloneVolume &told, const qz::Volume &found) {
    return told.start == found.start && told.length == found.length && told.disks == found.disks;
}

}  // namespace

qz::Group part_to_copy(const std::string &group, const std::vector<std::string> &volumes,
                       const std::vector<Mirror> &mirrors) {
    const qz::Group &whole = mirrors.front().region.group;
    for (const Mirror &mirror : mirrors) {
        const qz::Region &region = mirror.region;
        if (region.group.name != group) {
            throw qz::Error(mirror.pair.bcv + " belongs to disk group " + region.group.name +
                            ", not to " + group);
        }
        if (region.group.id != whole.id || region.group.generation != whole.generation) {
            throw qz::Error(mirror.pair.bcv + " and " + mirrors.front().pair.bcv +
                            " are copies of different times");
        }
        if (mirror_of(mirrors, region.disk_id) != &mirror) {
            throw qz::Error(mirror.pair.bcv + " is a copy of a disk that is listed already");
        }
    }
    // Sets are left out: they may name volumes that are not copied.
    qz::Group part;
    part.name = whole.name;
    part.id = whole.id;
    for (const qz::GroupDisk &disk : whole.disks) {
        if (mirror_of(mirrors, disk.id) != nullptr) part.disks.push_back(disk);
    }
    for (const std::string &name : volumes) {
        const qz::Volume *const volume = whole.volume(name);
        if (volume == nullptr) throw qz::Error("disk group " + group + " has no volume " + name);
        check_volume_is_covered(*volume, mirrors);
        if (part.volume(name) == nullptr) part.volumes.push_back(*volume);
    }
    return part;
}

void check_information(const CloneInformation &information, const CloneOptions &options) {
    if (information.group != options.group) {
        refuse(options,
               "it is about disk group " + information.group + ", not about " + options.group);
    }
    if (information.host != options.host) {
        refuse(options, "it was written on host " + information.host + ", not on " + options.host);
    }
    for (const DevicePair &pair : options.devices) {
        if (information.disk_at(pair.primary) == nullptr) {
            refuse(options, "it knows no disk " + pair.primary);
        }
    }
    for (const std::string &name : options.volumes) {
        if (information.volume(name) == nullptr) refuse(options, "it knows no volume " + name);
    }
}

void check_mirrors(const CloneInformation &information, const CloneOptions &options,
                   const std::vector<Mirror> &mirrors) {
    for (const Mirror &mirror : mirrors) {
        const CloneDisk *const disk = information.disk_at(mirror.pair.primary);
        const qz::Region &region = mirror.region;
        if (region.group.id != information.group_id || region.disk_id != disk->id) {
            refuse(options, mirror.pair.bcv + " is not the mirror of " + mirror.pair.primary);
        }
    }
    const qz::Group &group = mirrors.front().region.group;
    for (const std::string &name : options.volumes) {
        const qz::Volume *const found = group.volume(name);
        if (found != nullptr && !is_same(*information.volume(name), *found)) {
            refuse(options, "volume " + name + " lies elsewhere on the mirrors");
        }
    }
}

// The rule by which clone groups are named cuts; behind the cut, any group may be meant.
bool is_clone_name(const std::string &clone, const std::string &group) {
    if (clone.size() <= suffix_length || clone == group || !clone.ends_with(clone_suffix)) {
        return false;
    }
    const std::string kept = clone.substr(0, clone.size() - suffix_length);
    if (kept.size() > longest_kept_name) return false;
    if (clone == clone_group_name("", group)) return true;
    const bool cut = kept.size() == longest_kept_name;
    for (size_t at = kept.find('_', 1); at != std::string::npos; at = kept.find('_', at + 1)) {
        const std::string behind = kept.substr(at + 1);
        if (behind == group || (cut && group.starts_with(behind))) return true;
    }
    // The host's name alone may fill it.
    return cut && kept.find('_') == std::string::npos;
}

}  // namespace tessera
