// A row in which every call of a kind fails in turn: each place that a scenario reaches, at its
// first, a middle and its last call, once and for good, in every way that it can fail.
//
//   ROW --full|--quick --seed N --state DIR [--point NAME...]
//   ROW --full --state DIR --record      takes what is seen for the tables, to be read by a person:
//                                        of each place the error that stands for all. The next full
//                                        run shows which others end differently
//   ROW --full --state DIR --record --point NAME...      those, then
//   ROW --full --state DIR --record=S    only for scenario S, in DIR/recorded, not yet in a table
//
// What is expected stands in proof/expected/ROW/SCENARIO (see outcomes.h), the places that were
// reached when it was written in proof/expected/ROW/sites: "SCENARIO PROCESS CALLS SITE". The quick
// form draws from those; the full form looks which there are.
#pragma once

#include <functional>
#include <set>
#include <string>
#include <vector>

#include "proof/kit/faulted_run.h"

namespace proof {

// One way in which a call is met.
struct Way {
    std::string name;  // "EIO"; a word of the point's name
    std::string fate, word = "-";
    long value = 0;
    bool lasts = true;  // whether it can be for good
};

// A function that ought to have points in the row and has none, and why.
struct Gap {
    std::string function, why;
};

struct CallRow {
    std::string name;         // "allocations", also the folder of its tables
    std::string about;        // for --help
    std::string kind;         // of the agent: "alloc"
    std::string once_broken;  // the scope of a fault for good: "function", "kind"
    size_t quick = 0;         // points of the quick form
    // What the row misses, given the functions that some place calls; empty: nothing. None: the row
    // does not look.
    std::function<std::vector<Gap>(const std::set<std::string> &reached)> gaps;
    // How a call of this function can fail; none: it cannot.
    std::function<std::vector<Way>(const std::string &function)> ways;
    // Places that are left out, by the ends of their names, each for a reason that stands with it.
    std::vector<std::string> left_out{};
};

// Runs the row; the status of main().
int run_call_row(int argc, char **argv, const CallRow &row);

}  // namespace proof
