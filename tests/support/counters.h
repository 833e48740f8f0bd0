// What the compiler's counters of lines and branches lose when a process aborts.
#pragma once

namespace test {

// From now on this process writes its counters also when it aborts. In a build that counts nothing
// this does nothing.
void count_until_an_abort();

}  // namespace test
