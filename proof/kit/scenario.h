// The ways in which the method is used, each as the processes that one snapshot takes. What a row
// breaks is one of those processes; the others go as ever.
#pragma once

#include <string>
#include <vector>

#include "tests/support/lab_world.h"

namespace proof {

using test::Words;

// One process of the framework on a host: the steps of tfphase, and what the framework, or an
// administrator, does on that host before (lines of the shell; they must succeed).
struct Process {
    std::string name;  // "freeze", "volumes", "release", ...
    std::string host;
    Words before;
    Words steps;
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

// file_system, block_device, two_objects, volumes, import, restore.
const std::vector<Scenario> &scenarios();
// The scenario of a name; throws when there is none.
const Scenario &scenario(const std::string &name);

}  // namespace proof
