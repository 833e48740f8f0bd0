#include "fimctl/inspect/report.h"

#include <algorithm>

namespace fimctl {

std::string document(const Json &json) {
    return json.dump(2, ' ', false, Json::error_handler_t::replace) + "\n";
}

Json instant(time_t when) {
    if (when == 0) return nullptr;
    return utc(when);
}

Table::Table(std::vector<std::string> head) {
    row(std::move(head));
}

void Table::row(std::vector<std::string> cells) {
    lines_.push_back({std::move(cells), ""});
}

void Table::below(const std::string &line) {
    lines_.push_back({{}, line});
}

std::string Table::text() const {
    std::vector<size_t> widths;
    for (const Line &line : lines_) {
        widths.resize(std::max(widths.size(), line.cells.size()));
        for (size_t i = 0; i + 1 < line.cells.size(); ++i) {
            widths[i] = std::max(widths[i], line.cells[i].size());
        }
    }
    std::string text;
    for (const Line &line : lines_) {
        if (line.cells.empty()) text += "    " + line.below;
        for (size_t i = 0; i < line.cells.size(); ++i) {
            std::string cell = line.cells[i];
            if (i + 1 < line.cells.size()) cell.resize(widths[i] + 2, ' ');
            text += cell;
        }
        while (!text.empty() && text.back() == ' ') text.pop_back();
        text += "\n";
    }
    return text;
}

}  // namespace fimctl
