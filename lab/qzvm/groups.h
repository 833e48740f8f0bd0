// What can be done with disk groups. Every function is one operation: it locks out the others of
// this host, checks everything first, and changes nothing when it throws qz::Error before the first
// change. Whoever needs several in one piece holds an Exclusive around them.
#pragma once

#include <string>
#include <vector>

#include "lab/qzvm/disks.h"
#include "lab/qzvm/region.h"

namespace qz {

// A group that is imported here, as its disks say now.
struct Imported {
    Group group;
    std::vector<Disk> disks;  // in the order of group.disks

    const Disk &disk(const std::string &id) const;
    // Throws when there is no such volume.
    const Volume &volume(const std::string &name) const;
};

std::vector<std::string> imported_names();
bool is_imported(const std::string &name);
// Throws when it is not imported, or one of its disks cannot be read or does not carry it any more.
Imported imported_group(const std::string &name);

// A group that some online disk carries and that is not imported here.
struct Seen {
    std::string name, id, host;
    std::vector<std::string> disks;
};
std::vector<Seen> other_groups();

// A line for standard output: what an operation passed over or left as it is.
using Notices = std::vector<std::string>;

// Makes a group of disks (names or paths) and imports it; defines the disks and puts them online.
// A disk that belongs to a group is refused, and unless force, one that holds anything else.
void init_group(const std::string &name, const std::vector<std::string> &disks, bool force = false);

struct ImportOptions {
    std::string new_name;     // "": keeps its name
    bool clear_host = false;  // also when another host has it imported
};
Notices import_group(const std::string &name, const ImportOptions &options);

// Stops its volumes; refused while one is in use. With a new name the disks carry that from then
// on.
Notices deport_group(const std::string &name, const std::string &new_name = "");

// Makes a group of disks that carry something else: overwrites their regions with a group of the
// given name, a new id and new disk ids, and imports it. volumes and sets are those of like; disks
// holds, for each of like.disks, the disk that takes its place (name or path). Refused for a disk
// that is in use or belongs to a group that is imported here.
void clone_group(const std::string &name, const Group &like, const std::vector<std::string> &disks);

// Deports a group and clears the regions of its disks.
void destroy_group(const std::string &name);

// Volumes and sets of an imported group.
struct NewVolume {
    std::string name;
    uint64_t length = 0;             // rounded up to whole MiB
    std::vector<std::string> disks;  // names or paths; none: the first disk with room
    std::string fstype;
};
void make_volume(const std::string &group, const NewVolume &volume);
void remove_volume(const std::string &group, const std::string &volume);  // a stopped one
void make_set(const std::string &group, const std::string &set,
              const std::vector<std::string> &volumes);
void remove_set(const std::string &group, const std::string &set);

}  // namespace qz
