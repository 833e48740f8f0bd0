// What one pair more costs in calls, and which step of the cycle asks for each of them.
#pragma once

#include <string>

#include "bench/cycle/calls.h"

namespace bench {

// Prints a result for each function that one pair more calls: how often it does, how often the
// steps of the cycle ask for it, and which steps these are. few and many are the calls of a cycle
// with so many pairs. Whether every entry point calls what its steps ask for and nothing else; a
// function that no step asks for may not be called once.
bool print_calls_per_pair(const std::string &row, const Calls &few, int few_pairs,
                          const Calls &many, int many_pairs);

}  // namespace bench
