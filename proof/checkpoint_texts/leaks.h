// Blocks of memory that an action leaves behind each time. Whoever links this has its allocator
// counted, whatever library it is called from.
#pragma once

#include <functional>

namespace proof {

// Blocks that the process holds.
long blocks_held();

// How many blocks more are held after each time that the action was taken; 0 when it is none. What
// is made once, and what grows now and then, is no leak, so the action is taken twice, and up to
// six times when there is something to find out.
long leaked_blocks(const std::function<void()> &action);

}  // namespace proof
