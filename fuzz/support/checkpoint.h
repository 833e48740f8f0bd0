// The two directions of the checkpoint in one process each, for the target that is fed with texts
// and the test that is fed with records.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "include/records.h"

namespace fuzz {

// What the framework adds to a text.
struct Additions {
    int32_t is_tgt = 0;
    int32_t restore = 0;
};

// What a rebuild gave.
struct Rebuilt {
    int32_t status = 0;
    Additions additions;            // what the text had added
    std::string text;               // after a success, the checkpoint of the record
    std::string clone_information;  // and what stands in its transfer file
};

// Rebuilds the text in a process of its own, on a host where these stale copies lie: each of them
// has to be deleted. Whatever else the library must not do is a finding.
Rebuilt rebuild_and_write(const std::string &text, const std::vector<std::string> &stale = {});
// The text with these additions in front.
std::string with_additions(const std::string &text, const Additions &additions);

}  // namespace fuzz
