// The process of a restore: rebuild, thaw, and thaw commit of objects whose texts ask for it.
#pragma once

#include <string>
#include <vector>

#include "fimctl/channel.h"

namespace fimctl {

struct RestoreJob {
    std::string method;
    std::vector<std::string> texts;  // in the order in which they are rebuilt
    std::vector<size_t> ends;        // the order of the thaw commits: indices into texts
};

// Sends {"rebuilt"} once the array's locks are held and nothing is touched yet, and {"ending"} with
// its place in the order before each object is ended. After the first go it ends what it does,
// whatever signal comes.
void run_restore_phase(const RestoreJob &job, Channel &channel);

}  // namespace fimctl
