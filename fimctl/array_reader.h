// The array, for reading only: the states of pairs, straight from the array's own library.
#pragma once

#include <string>
#include <vector>

#include "fimctl/checkpoint_text.h"
#include "fimctl/failure.h"

namespace fimctl {

// Pair states as the array reports them.
namespace pair_state {
constexpr long synchronising = 1;
constexpr long synchronised = 2;
constexpr long splitting = 3;
constexpr long split = 5;
constexpr long restoring = 7;
constexpr long restored = 8;
}  // namespace pair_state
const char *name_of_pair_state(long state);

// Each opens a session of its own in a process of its own, so that it sees the array as it is now
// and shares nothing with the method's session. They throw Failure (array) when that cannot be
// done.

// The state of each pair, in order; state_unknown for a pair that the array does not know.
// Of a host on which the method has not worked yet: the array is not asked.
bool has_array_database();
inline constexpr char no_database_yet[] =
    "this host has no array database yet: pairs, BCVs and locks cannot be known";

std::vector<long> read_pair_states(const std::vector<Pair> &pairs, Step step);
// Whether the array can be reached at all: loads the library and, where the host's array database
// exists, opens a session. The database is not made: the method does that on first use.
void probe_array();

}  // namespace fimctl
