// Instructions instead of time: they are the same in every run, whatever else the machine does.
//
// A program runs itself once more under callgrind, with an option that tells it so; there it sets
// marks around what is to be counted:
//
//     bench::count_from_here();
//     work();
//     bench::count_to_here("out, 64 pairs");
//
// Between marks valgrind runs without counting, and outside it the marks do nothing.
#pragma once

#include <map>
#include <string>

namespace bench {

// The mark is not longer than 200 characters. What one mark names more than once, also in several
// processes that fork from one another, is added up. A process that a counted one makes and that
// runs another program is not in it.
void count_from_here();
void count_to_here(const std::string &mark);

// Runs the program with these arguments (quoted for a shell where they need it) under callgrind.
// Its standard output goes to this process's standard error. Instructions by mark; throws when the
// program failed.
std::map<std::string, double> count_instructions(const std::string &program,
                                                 const std::string &arguments);

}  // namespace bench
