// The private region: what a disk says of itself in its first MiB.
//
// It is a text, so that it can be looked at with head(1), and lies on the device itself, so that a
// mirror carries it. Every disk of a group holds the whole configuration of the group beside its
// own id. docs/volumes.md describes the format.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "lab/qzvm/error.h"

namespace qz {

constexpr uint64_t region_bytes = 1U << 20;  // data begin behind it
constexpr size_t longest_name = 63;

struct Volume {
    std::string name;
    uint64_t start = 0, length = 0;  // in bytes, on its first disk
    std::string fstype;              // a hint for the administrator; "" is none
    // Ids of the disks that it is listed over, at least one. Its data are on the first.
    std::vector<std::string> disks;
};

struct VolumeSet {
    std::string name;
    std::vector<std::string> volumes;
};

struct GroupDisk {
    std::string id;
    std::string name;  // what it was called where the group was made; a comment
};

// What all disks of a group agree on.
struct Group {
    std::string name, id;
    uint64_t generation = 0;  // goes up by one with every change
    std::string host;         // that has it imported; "" is none
    std::vector<GroupDisk> disks;
    std::vector<Volume> volumes;
    std::vector<VolumeSet> sets;

    const Volume *volume(const std::string &name) const;  // null: there is none
    const VolumeSet *set(const std::string &name) const;
};

struct Region {
    Group group;
    std::string disk_id;  // one of group.disks
};

// Letters, digits, '.', '_' and '-', not beginning with '.' or '-', at most longest_name.
bool is_name(const std::string &text);
std::string new_id();

// The text of a region, with version, length and checksum.
std::string to_text(const Region &region);

enum class Content {
    none,     // no disk of the volume manager
    damaged,  // begins as a region but is not whole
    good,
};
struct Found {
    Content content = Content::none;
    Region region;       // of a good one
    std::string reason;  // of a damaged one
};
// What stands at the beginning of a device. Text behind the region does not matter.
Found parse(const std::string &text);

// The device's region, past every cache. A device that cannot be opened or read throws; one without
// capacity (a mirror that is joined to its primary) has none.
Found read_region(const std::string &device);
// Writes it through to the device. Throws when the device has no capacity.
void write_region(const std::string &device, const Region &region);
// Overwrites the whole region with zeros.
void clear_region(const std::string &device);

// Whether the beginning of a device is all zeros, up to the region's end.
bool is_blank(const std::string &device);
// Bytes of a device; 0 for a mirror that is joined to its primary.
uint64_t capacity_of(const std::string &device);

}  // namespace qz
