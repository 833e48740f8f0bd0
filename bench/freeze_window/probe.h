// Watches from inside file systems how long nobody could write to them.
#pragma once

#include <sys/types.h>

#include <string>
#include <vector>

namespace bench {

// Processes that write to a file in each directory all the time. Between construction and window()
// each keeps the longest time that passed between two of its writes.
class Probes {
  public:
    // Returns when all of them write. Throws when a file cannot be made.
    explicit Probes(const std::vector<std::string> &directories);
    Probes(const Probes &) = delete;
    Probes &operator=(const Probes &) = delete;
    ~Probes();

    // Ends them, and answers how long writing stood still: from the last write before the first of
    // these times to the first write after the last of them, in seconds. Holds the pause between
    // two writes of a probe, a tenth of a millisecond.
    double window();

  private:
    struct Longest;
    void end();

    size_t count_;
    Longest *longest_;  // one each, shared with the processes
    std::vector<pid_t> processes_;
};

// The monotonic clock, in seconds.
double now();

}  // namespace bench
