// The array as a table that a person can read.
#pragma once

#include <nlohmann/json.hpp>
#include <string>

namespace lab {

// `report` is the array's answer to "show".
std::string table_of(const nlohmann::json &report);
// "64 MiB", "1 GiB", "512 KiB".
std::string readable_size(uint64_t bytes);

}  // namespace lab
