// The processor time of this process, for tests that watch how a cost grows.
#pragma once

#include <ctime>

namespace test {

inline double processor_seconds() {
    timespec now = {};
    clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &now);
    return static_cast<double>(now.tv_sec) + static_cast<double>(now.tv_nsec) * 1e-9;
}

}  // namespace test
