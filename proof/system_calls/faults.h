// In which ways a call of the system can fail where the method runs, and why one has to expect it.
#pragma once

#include <span>
#include <string>

namespace proof {

struct Fault {
    const char *function;  // as the agent counts it
    const char *fate;      // "fail", "fail_after" or "lie" (a short one)
    const char *name;      // "EIO", "short_0"
    long value;            // errno, the function's own error number, or a number of bytes
    // Whether every later call of the function can meet it, too. An interrupted call is repeated,
    // and somebody else's child is reaped once.
    bool lasts;
    const char *why;
};

// All ways of one function; none for a function that cannot fail, or that is unknown.
std::span<const Fault> faults_of(const std::string &function);

}  // namespace proof
