// Which disks an import takes. Apart from the devices, so that every case can be tried.
#pragma once

#include <string>
#include <vector>

#include "lab/qzvm/groups.h"

namespace qz {

// An online disk and what it says of itself.
struct Candidate {
    Disk disk;
    Found found;
    std::string trouble;  // why it cannot be read; "": it can
    bool taken = false;   // it belongs to a group that is imported here
};

struct Choice {
    Imported imported;           // as its disks say, the newest of them where they differ
    std::vector<Region> before;  // what each of imported.disks says
    Notices notices;
};

// Finds a group by name. Of disks with the same disk id that are not taken, the one that was put
// online last. Throws qz::Error when there is none, when disks of two groups have that name, when a
// disk is missing, or when another host has it imported and clear_host is not given.
Choice choose_disks(const std::vector<Candidate> &candidates, const std::string &group,
                    const std::string &this_host, bool clear_host);

}  // namespace qz
