// Other state folders of this host.
#pragma once

#include <string>

namespace fimctl {

// One line about another state folder in which snapshots are, or were since the host has started;
// "" when none is known. What one catalogue holds no other one knows: a freeze from the second one
// establishes the mirrors of the first one's copies again, and nothing tells afterwards.
std::string warning_of_other_states(const std::string &directory);

}  // namespace fimctl
