// What the framework, or an operator, does when a process of a snapshot was killed.
#pragma once

#include <map>
#include <string>
#include <vector>

#include "proof/kit/scenario.h"

namespace proof {

// One object in the steps of a process.
struct ObjectSteps {
    std::string config, source, fifs;  // of its freeze; "" where the process does not freeze
    std::string text;                  // the file of the checkpoint text that it rebuilds or writes
};
std::map<int, ObjectSteps> objects_of(const Words &steps);
bool has_step(const Words &steps, const std::string &name);

// What the killed process left, and what its killer wants of the recovery.
struct Left {
    bool texts_kept = false;  // it freezes, and the text of every object was written
    bool shown_once = false;  // its copies are the clone tool's, which shows a copy once
    bool gives_up = false;    // of those: the copy is let go, and not shown
};

struct Recovery {
    Words before;                // lines of the shell on the host of the killed process
    std::vector<Process> first;  // processes that are run before the scenario goes on
    size_t next = 0;             // where it goes on
    bool prepared = false;       // the lines before that process have been run already
};

// With the texts of all objects the framework keeps the snapshot. Without them it is no snapshot:
// the objects are frozen again with resynchronisation at start, which establishes what was split,
// and let go; then everything is done anew. A mount that was cut short is taken down, from texts
// that say "mounted", and done again; a copy of the clone tool's is shown again where it is, since
// it cannot be made twice, or released from such texts. A release is done again from the same
// texts; a restore, too, with the disk group that it had deported brought in first.
Recovery recovery_of(const Scenario &scenario, size_t killed, const Left &left);

// The name of the file that holds such a text ("as if mounted").
std::string taken_down(const std::string &text);

}  // namespace proof
