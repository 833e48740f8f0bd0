// A scenario: a TOML file that builds arrays. docs/array.md describes the format.
#pragma once

#include <nlohmann/json.hpp>
#include <stdexcept>
#include <string>
#include <vector>

namespace lab {

struct ScenarioError : std::runtime_error {
    using std::runtime_error::runtime_error;
};

// The administrator's commands that a scenario stands for, in their order. Throws ScenarioError for
// a file that cannot be read, an unknown key, a missing or a badly typed one.
std::vector<nlohmann::json> commands_of_file(const std::string &path);
std::vector<nlohmann::json> commands_of_text(const std::string &toml, const std::string &name);

// Bytes of "64M", "2G" or a plain number; throws ScenarioError.
uint64_t bytes_of(const std::string &text);

}  // namespace lab
