// Splits and establishes, against the commands that copy files.
#pragma once

#include <string>

namespace bench {

// Prints the results for those numbers and sizes of pairs whose name holds `only`. The arrays are
// built.
void measure_data(int repetitions, const std::string &only);

}  // namespace bench
