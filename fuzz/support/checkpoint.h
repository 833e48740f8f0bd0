// The two directions of the checkpoint in one process each, for the target that is fed with texts
// and the test that is fed with records.
#pragma once

#include <cstdint>
#include <string>

#include "include/records.h"

namespace fuzz {

// What the framework adds to a text.
struct Additions {
    int32_t is_tgt = 0;
    int32_t restore = 0;
};

// Rebuilds the text in a process of its own. Returns the status; after a success *again is the
// checkpoint of the record, and *additions what the text had added. Whatever the library must not
// do is a finding.
int32_t rebuild_and_write(const std::string &text, std::string *again, Additions *additions);
// The text with these additions in front.
std::string with_additions(const std::string &text, const Additions &additions);

}  // namespace fuzz
