// The disks that this host sees: block nodes of the array in its /dev.
//
// A disk is its device number. It may have several names (paths to the same device); the raw twin
// /dev/qz/rdmp/NAME of /dev/qz/dmp/NAME is the same disk. The volume manager uses a disk only after
// it was defined and put online, so what else the host sees is left alone.
#pragma once

#include <sys/types.h>

#include <string>
#include <unordered_map>
#include <vector>

#include "lab/qzvm/state.h"

namespace qz {

struct Disk {
    dev_t device = 0;
    std::string name;                // "p0" of /dev/qz/dmp/p0, "c2t0d1" of /dev/rdsk/c2t0d1
    std::string block;               // the path of its first name
    std::string raw;                 // its raw twin's path where there is one, else as block
    std::vector<std::string> paths;  // of all its block nodes, block first
    bool defined = false, online = false;
    uint64_t order = 0;  // grows with every disk that is put online
};

class Disks {
  public:
    // The nodes of /dev together with what is known of them.
    static Disks scan(const State &state);
    const std::vector<Disk> &all() const { return disks_; }
    // By its name or one of its paths, the raw one included; null when it is not seen.
    const Disk *find(const std::string &name) const;
    // The same; throws when it is not seen.
    const Disk &at(const std::string &name) const;

  private:
    void add(const std::string &path, const std::string &raw, dev_t device);
    void index(const std::string &name, size_t at) { by_name_.emplace(name, at); }

    std::vector<Disk> disks_;
    std::unordered_map<dev_t, size_t> by_device_;
    std::unordered_map<std::string, size_t> by_name_;  // names and paths; the first of each
};

// Which disks belong to groups that are imported here.
class Taken {
  public:
    explicit Taken(const State &state);
    // The name of its group; "" when it belongs to none.
    std::string by(const Disk &disk) const;

  private:
    std::unordered_map<std::string, std::string> groups_;  // of a path
};

// Administration. All throw when the disk is not seen, and online and offline when it is not
// defined.
void define_disk(const std::string &name);
void undefine_disk(const std::string &name);  // refused while its group is imported
void online_disk(const std::string &name);
void offline_disk(const std::string &name);  // refused while its group is imported

}  // namespace qz
