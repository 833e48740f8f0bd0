// sleep() of the code under test: counted, not slept, so that a one-minute retry takes no time.
#pragma once

#include <functional>
#include <vector>

namespace test {

// The seconds of every sleep so far, in order.
std::vector<unsigned> &sleeps();
// Called with the seconds of every sleep: an array that makes progress while the caller waits.
void on_sleep(std::function<void(unsigned)> action);
// The next sleep is ended by a signal, with this many seconds left.
void interrupt_next_sleep(unsigned left);

}  // namespace test
