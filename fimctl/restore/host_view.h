// What this host says about the things that a restore touches: mounts, their users, sizes.
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <vector>

namespace fimctl {

// One line of the mount table.
struct MountLine {
    dev_t device = 0;
    std::string root;  // which part of the file system is mounted; "/" is all of it
    std::string directory;
    std::string source;
    std::string options;  // of this mount, such as "ro,nosuid"; not those of the file system
};
std::vector<MountLine> read_mounts();

// A process that keeps a file system from being unmounted, or a device from being given away.
struct User {
    pid_t pid = 0;
    std::string command;
};
// What is asked about: file systems by the devices that they are mounted from, and devices of which
// nobody may have the device itself open. Who has one of the disks below open as well is the volume
// manager, which lets go of both.
struct Busy {
    std::set<dev_t> file_systems, devices, disks;
};
// By what the processes that this host shows have open, run, or stand in; in one walk for all. What
// only the kernel uses (a loop device, swap) is not found.
std::map<dev_t, std::vector<User>> users_of(const Busy &asked);
std::string names_of(const std::vector<User> &users);

// The number of the block device behind a path; nothing when the path is none.
std::optional<dev_t> block_number(const std::string &path);
// The name under which a disk can be read as a block device: a raw name's twin where the raw name
// is none. "" when neither is.
std::string readable_disk(const std::string &raw);
// The size in bytes; nothing when it cannot be asked.
std::optional<uint64_t> size_of_disk(const std::string &device);
// Whether somebody holds a device for himself, as started volumes hold their disks.
bool is_held(const std::string &device);

// Whether the first path is the second one, or lies below it.
bool lies_below(const std::string &path, const std::string &directory);

}  // namespace fimctl
