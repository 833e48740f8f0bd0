// Whether the row meets all that the shipped libraries call.
#pragma once

#include <set>
#include <string>
#include <vector>

#include "proof/kit/call_row.h"

namespace proof {

// Of the functions of the C library that a shipped library imports, those
//   that are neither met by this row or by the row "allocations" nor known to be unable to fail;
//   that can fail, and that no place of the row calls, so that nobody has seen what comes of it.
// There should be none. reached: the functions that some place calls, as the agent counts them.
std::vector<Gap> import_gaps(const std::set<std::string> &reached);

}  // namespace proof
