// What one pair more costs in instructions, with many pairs and with few: a step of the method that
// looks at all pairs for each pair shows here, whatever the system calls around it cost.
#pragma once

#include <map>
#include <string>

namespace bench {

// The numbers of pairs that are compared.
struct Sizes {
    int few, more, most;
};

// The mark of what this phase of a cycle over so many pairs costs (kit/callgrind.h).
std::string mark_of(const std::string &phase, int pairs);
// The phase under which the whole floor is counted.
inline constexpr char whole_floor[] = "the floor";

// Prints a result for each entry point, for the whole cycle, and for what the cycle costs beyond
// its floor. Whether none of them grows faster than the number of pairs.
bool print_growth(const std::string &row, const std::map<std::string, double> &instructions,
                  const Sizes &sizes);

}  // namespace bench
