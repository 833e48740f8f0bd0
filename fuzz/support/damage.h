// A checkpoint text damaged in every way of a list.
#pragma once

#include <string>
#include <vector>

namespace fuzz {

struct Damaged {
    std::string name;  // "cut at 12", "line 3 missing"
    std::string text;
};

// Cut off at every byte; every line missing, twice, swapped with every other; every value oversized
// by a little and by much, empty, and hostile. Each has a name of its own.
std::vector<Damaged> every_damage(const std::string &text);

}  // namespace fuzz
