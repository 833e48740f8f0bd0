// Points about many processes that use a few counter files at once, and are killed at random.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace locks {

// "race/50 processes/1 array" and the like.
std::vector<std::string> race_points();

struct RaceResult {
    std::string wrong;  // empty: it holds
    long changes = 0, refused = 0, killed = 0;
};
// Every process makes `rounds` increments and as many decrements.
RaceResult try_race_point(const std::string &point, int rounds, uint64_t seed);

}  // namespace locks
