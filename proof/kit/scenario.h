// The ways in which the method is used, each as the processes that one snapshot takes. What a row
// breaks is one of those processes; the others go as ever.
#pragma once

#include <string>
#include <vector>

#include "tests/support/lab_world.h"

namespace proof {

using test::Words;

// One process of the framework on a host: the steps of tfphase, and what the framework, or an
// administrator, does on that host (lines of the shell; they must succeed).
struct Process {
    std::string name;  // "freeze", "volumes", "release", ...
    std::string host;
    Words before;  // each time that the process is to run
    Words steps;
    Words after = {};   // once it has succeeded
    Words repair = {};  // before it is repeated, because it failed
};

struct Scenario {
    std::string name;   // "file_system"
    std::string world;  // of lab/scenarios
    Words hosts;        // the first one is the primary
    Words prepare;      // lines of the shell on the primary host, once a world
    std::vector<Process> processes;
    // What brings the world back to where the first process began, after the last one and after a
    // failure whose recovery is over: lines of the shell on the primary host.
    Words settle;
    // Lines of the shell on the primary host that print what must be the same before and after,
    // beside what LabWorld::picture() sees: checksums of the originals.
    Words content;
};

// file_system   one ext4, its pair synchronised before, as between two snapshots
// block_device  the device, its pair split before: established by control code 4
// two_objects   two file systems on two arrays, their pairs split before and established together
// multipath     an ext4 behind the multipath driver, established in full by the freeze
// association   another group's BCV is synchronised with the primary, and is released first
// volumes       two volumes of one disk group, by the clone tool on their host
// import        the same read on the backup host, by import, and released on the primary
// restore       the same, frozen for the backup host, and restored
const std::vector<Scenario> &scenarios();
// Those, and what no snapshot reaches, for the rows that break single calls of the library itself:
//
// names         what the library exports for the framework itself: from a path to its mount and
//               device, and back, also through a volume set
// devices       the same: what a path is
// quiesce       the same: ufs and qzfs without writes, and the list of file systems to lock
// parser        the same: the configuration parser
// resolved      a freeze for a backup host whose name the name service knows: it is this host
const std::vector<Scenario> &call_scenarios();
// The scenario of a name, one of all these; throws when there is none.
const Scenario &scenario(const std::string &name);

}  // namespace proof
