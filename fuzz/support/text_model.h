// What a rebuild makes of a checkpoint text, worked out a second time and in another way: over keys
// and values instead of records. It knows the array of every_device.h and its tools.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace fuzz {

struct Expected {
    int32_t status = 0;
    std::string text;                  // the checkpoint of the rebuilt record, after a success
    std::string clone_information;     // what stands in its transfer file then
    std::vector<std::string> deleted;  // the stale copies that the text names, in their order
};

Expected expected_rebuild(const std::string &text);

}  // namespace fuzz
