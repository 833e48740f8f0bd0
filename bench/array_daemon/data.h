// Splits and establishes, against the commands that copy files.
#pragma once

namespace bench {

// Prints the results. The arrays are built.
void measure_data(int repetitions);

}  // namespace bench
