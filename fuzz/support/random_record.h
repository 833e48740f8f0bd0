// A random record, written as a checkpoint and rebuilt from it.
#pragma once

#include <cstdint>

namespace fuzz {

// Every field that the text carries comes back, or it is a finding. The same seed makes the same
// record.
void round_trip(uint64_t seed);

}  // namespace fuzz
