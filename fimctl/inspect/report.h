// How the inspecting commands show what they found: aligned columns, or one JSON document.
#pragma once

#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "fimctl/inspect/process.h"

namespace fimctl {

using Json = nlohmann::ordered_json;

// One document. A path may hold any byte; what is not UTF-8 is shown as such instead of ending the
// output.
std::string document(const Json &json);
// null for an instant that is not known.
Json instant(time_t when);

// Columns as wide as their widest cell; the last one is never padded. A line that belongs below a
// row, as an advice does, stands indented.
class Table {
  public:
    explicit Table(std::vector<std::string> head);
    void row(std::vector<std::string> cells);
    void below(const std::string &line);
    std::string text() const;

  private:
    struct Line {
        std::vector<std::string> cells;
        std::string below;
    };
    std::vector<Line> lines_;
};

}  // namespace fimctl
