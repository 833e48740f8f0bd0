// Volumes and volume sets of a group: where they lie, and their names.
#include <algorithm>
#include <limits>

#include "lab/qzvm/groups.h"
#include "lab/qzvm/records.h"
#include "lab/qzvm/volumes.h"

namespace qz {
namespace {

// Starts and lengths are whole units, so that no file system meets a crooked boundary.
constexpr uint64_t unit = 1U << 20;

void require_new_name(const Group &group, const std::string &name, const char *what) {
    if (!is_name(name)) throw Error("'" + name + "' is no name for a " + std::string(what));
    if (group.volume(name) != nullptr) {
        throw Error("group " + group.name + " has a volume " + name + " already");
    }
    if (group.set(name) != nullptr) {
        throw Error("group " + group.name + " has a volume set " + name + " already");
    }
}

const std::string &id_of(const Imported &imported, const Disk &disk) {
    for (size_t i = 0; i < imported.disks.size(); ++i) {
        if (imported.disks[i].device == disk.device) return imported.group.disks[i].id;
    }
    throw Error("disk " + disk.name + " does not belong to group " + imported.group.name);
}

// The first place on a disk that is large enough; 0: there is none.
uint64_t room_on(const Imported &imported, const std::string &id, uint64_t length) {
    std::vector<Volume> there;
    for (const Volume &volume : imported.group.volumes) {
        if (volume.disks.front() == id) there.push_back(volume);
    }
    std::sort(there.begin(), there.end(),
              [](const Volume &a, const Volume &b) { return a.start < b.start; });
    uint64_t start = region_bytes;
    for (const Volume &volume : there) {
        if (volume.start > start && volume.start - start >= length) return start;
        start = std::max(start, volume.start + volume.length);
    }
    const uint64_t end = capacity_of(imported.disk(id).block);
    return end >= start && end - start >= length ? start : 0;
}

void write_changed(Imported *imported) {
    std::vector<Region> before;
    std::vector<std::string> ids;
    for (const Disk &disk : imported->disks) before.push_back(read_region(disk.block).region);
    for (const GroupDisk &disk : imported->group.disks) ids.push_back(disk.id);
    ++imported->group.generation;
    write_group(*imported, ids, before);
}

}  // namespace

void make_volume(const std::string &group, const NewVolume &wanted) {
    const Exclusive only;
    Imported imported = imported_group(group);
    require_new_name(imported.group, wanted.name, "volume");
    if (!wanted.fstype.empty() && !is_name(wanted.fstype)) {
        throw Error("'" + wanted.fstype + "' is no type of a file system");
    }
    if (wanted.length == 0) throw Error("a volume of no size cannot be made");
    if (wanted.length > std::numeric_limits<uint64_t>::max() - unit) {
        throw Error("there is no room for volume " + wanted.name);
    }
    Volume volume = {wanted.name, 0, (wanted.length + unit - 1) / unit * unit, wanted.fstype, {}};
    const Disks seen = Disks::scan(load_state());
    for (const std::string &name : wanted.disks) {
        const std::string &id = id_of(imported, seen.at(name));
        if (std::count(volume.disks.begin(), volume.disks.end(), id) != 0) {
            throw Error("disk " + name + " is given twice");
        }
        volume.disks.push_back(id);
    }
    if (!volume.disks.empty()) {
        volume.start = room_on(imported, volume.disks.front(), volume.length);
    }
    for (const GroupDisk &disk : imported.group.disks) {
        if (!volume.disks.empty()) break;
        volume.start = room_on(imported, disk.id, volume.length);
        if (volume.start != 0) volume.disks = {disk.id};
    }
    if (volume.start == 0) {
        throw Error("there is no room for volume " + wanted.name + " of " +
                    std::to_string(volume.length / unit) + " MiB");
    }
    imported.group.volumes.push_back(volume);
    write_changed(&imported);
}

void remove_volume(const std::string &group, const std::string &name) {
    const Exclusive only;
    Imported imported = imported_group(group);
    imported.volume(name);
    for (const VolumeSet &set : imported.group.sets) {
        if (std::count(set.volumes.begin(), set.volumes.end(), name) != 0) {
            throw Error("volume " + name + " belongs to the volume set " + set.name +
                        "; remove that first");
        }
    }
    if (volume_state(group, name).started) {
        throw Error("volume " + name + " of group " + group + " is started; stop it first");
    }
    std::erase_if(imported.group.volumes, [&name](const Volume &one) { return one.name == name; });
    write_changed(&imported);
}

void make_set(const std::string &group, const std::string &name,
              const std::vector<std::string> &volumes) {
    const Exclusive only;
    Imported imported = imported_group(group);
    require_new_name(imported.group, name, "volume set");
    if (volumes.empty()) throw Error("a volume set needs a volume");
    for (const std::string &volume : volumes) {
        imported.volume(volume);
        if (std::count(volumes.begin(), volumes.end(), volume) != 1) {
            throw Error("volume " + volume + " is given twice");
        }
        for (const VolumeSet &set : imported.group.sets) {
            if (std::count(set.volumes.begin(), set.volumes.end(), volume) != 0) {
                throw Error("volume " + volume + " belongs to the volume set " + set.name);
            }
        }
    }
    imported.group.sets.push_back({name, volumes});
    write_changed(&imported);
}

void remove_set(const std::string &group, const std::string &name) {
    const Exclusive only;
    Imported imported = imported_group(group);
    const VolumeSet *set = imported.group.set(name);
    if (set == nullptr) throw Error("group " + group + " has no volume set '" + name + "'");
    if (!volume_state(group, set->volumes.front()).use.empty()) {
        throw Error("volume set " + name + " of group " + group + " is in use");
    }
    std::erase_if(imported.group.sets, [&name](const VolumeSet &one) { return one.name == name; });
    write_changed(&imported);
}

}  // namespace qz
