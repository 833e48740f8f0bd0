// Calls a second over the array's socket, against the echo.
#pragma once

#include <string>

namespace bench {

struct CallOptions {
    int repetitions = 0;
    int calls = 0;     // in one repetition, of all clients together
    std::string only;  // results whose name holds it
};

// Prints the results. The arrays are built.
void measure_calls(const CallOptions &options);

}  // namespace bench
