// Whether the row knows all that the shipped libraries call.
#pragma once

#include <string>
#include <vector>

namespace proof {

// The functions of the C library that a shipped library imports, and that are neither met by this
// row or by the row "allocations" nor known to be unable to fail. There should be none.
std::vector<std::string> unknown_imports();

}  // namespace proof
