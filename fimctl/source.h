// The objects of a snapshot as the user named them, and what this host says about them.
#pragma once

#include <sys/types.h>

#include <string>
#include <vector>

namespace fimctl {

enum class SourceKind { file_system, block_device, raw_device };
// As catalogue and reports have it.
const char *name_of(SourceKind kind);

struct Source {
    std::string path;  // absolute, as it goes to the method
    SourceKind kind = SourceKind::file_system;
    dev_t device = 0;       // of the file system, or of the block device
    std::string mount_dir;  // where the file system (or the device's file system) is mounted, or ""
    std::string mounted;    // the name of the mounted device, or ""
    std::string inside;     // the path below the root of the file system, "" for the root
    std::string vol_group;  // disk group and volume of a volume, or ""
    std::string vol_name;

    bool is_volume() const { return !vol_group.empty(); }
};

// A path from the root on. Throws Failure (usage) when the working directory is gone.
std::string absolute_path(const std::string &path);

// Looks at each path; throws Failure (usage) for one that cannot be frozen: missing, too long, with
// a newline (the checkpoint text has no escape, so the record could not be kept), or the same
// object as another one.
std::vector<Source> look_at_sources(const std::vector<std::string> &paths);

// The directories to quiesce: where the sources' file systems are mounted, each file system once.
std::vector<std::string> file_systems_of(const std::vector<Source> &sources);

// Where the cycle writes while they are frozen: each what and a path that need not exist yet.
struct WrittenPlace {
    std::string what, path;
};
// Throws Failure (usage) when one of them, or a file that standard output or standard error goes
// to, lies on a file system that is going to be frozen: the writer would wait for the thaw, and
// the thaw for the writer.
void refuse_writing_to_frozen(const std::vector<Source> &sources,
                              const std::vector<WrittenPlace> &places);

// The mount points at or below a directory, in the order in which they were mounted.
std::vector<std::string> mount_points_below(const std::string &directory);
// Where the file system of a block device is mounted on this host, or "".
std::string mount_point_of(dev_t device);
// Whether a directory is a mount point of this host.
bool is_mount_point(const std::string &directory);

}  // namespace fimctl
