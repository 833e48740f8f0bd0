// The regions of a group that is imported here, read and written together.
#pragma once

#include <string>
#include <vector>

#include "lab/qzvm/groups.h"

namespace qz {

// What became of the disks of an imported group. A mirror may be joined to its primary again, or
// carry something else, or be another host's by force; such a disk is left as it is.
class Survey {
  public:
    void add(const std::string &path, const Disk *disk, const std::string &group_id);

    // Throws when a disk is not seen, cannot be read or has a damaged region.
    void require_sound() const;
    // The group as the newest of the disks that still carry it say, with these disks alone and the
    // list of all of them.
    Imported carriers() const;
    std::vector<Region> regions() const;  // of the carriers, as they are
    std::vector<Disk> own_disks() const;  // the carriers, and those whose region is damaged
    Notices notices() const { return notices_; }
    bool complete() const { return notices_.empty(); }

  private:
    std::vector<Disk> disks_, damaged_;
    std::vector<Region> regions_;
    Notices notices_;
    std::string trouble_;
};

// Throws when the group is not imported here.
Survey survey_group(const State &state, const std::string &name);
// The group with all its disks; throws when one does not carry it.
Imported read_group(const State &state, const std::string &name);

// Writes the group to its disks, each with its id. When one cannot be written, those before it get
// back what they had: before[i], or zeros where before is empty.
void write_group(const Imported &imported, const std::vector<std::string> &ids,
                 const std::vector<Region> &before);

// The same volumes and sets with new ids, on other disks.
Group renewed(const Group &like, const std::vector<Disk> &disks);

}  // namespace qz
