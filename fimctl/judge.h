// The judgement of a copy: whether every pair was split, and split by this commit.
//
// The method's commit succeeds in two cases that leave an old copy behind: it compares primaries by
// device name alone, so of two arrays with a device of the same name only one is split, and it
// passes over a pair that was split before under the same lock. So the array itself is asked.
#pragma once

#include <string>
#include <utility>
#include <vector>

#include "fimctl/catalogue.h"

namespace fimctl {

// Why the copy is void, one reason a pair; empty for a good copy. split_list: the pairs (device,
// BCV) that the method said it split, the evidence for a pair whose state before the commit could
// not be read.
std::vector<std::string> judge(const std::vector<PairRecord> &pairs,
                               const std::vector<std::pair<std::string, std::string>> &split_list);

// Why objects without pairs of their own make the copy void; empty when none does. The volumes of
// an imported disk group share its devices, which the first one of them names; any other object
// without pairs was not copied at all.
std::vector<std::string> judge_objects(const std::vector<ObjectRecord> &objects);

}  // namespace fimctl
