// Scripted faults: never random, so that a test that failed once fails again.
#pragma once

#include <string>
#include <vector>

#include "lab/array/model/records.h"

namespace lab {

// What the faults make of one call. Codes are 0 where nothing fails.
struct Verdict {
    int before = 0;    // fail without the effect
    int after = 0;     // have the effect, then fail
    int delay_ms = 0;  // answer so much later
};

class Faults {
  public:
    // Enters a fault and answers its number. A code of 0 with no delay is refused.
    int64_t add(Fault fault);
    // Removes one fault, or all with 0. False when there is none of this number.
    bool clear(int64_t id);
    // Counts a call; `devices` are the array names of every device it concerns. *counted becomes
    // true when a fault's count changed, so that it has to be saved.
    Verdict ask(const std::string &function, const std::string &host,
                const std::vector<std::string> &devices, bool *counted);

    const std::vector<Fault> &all() const { return all_; }
    void load(const Fault &fault) { all_.push_back(fault); }

  private:
    std::vector<Fault> all_;
};

}  // namespace lab
