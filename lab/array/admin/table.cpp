#include "lab/array/admin/table.h"

#include <algorithm>
#include <map>
#include <sstream>
#include <vector>

namespace lab {
namespace {

using nlohmann::json;
using Row = std::vector<std::string>;

// Columns as wide as their widest cell, two blanks apart; no blanks at a line's end.
std::string columns(const std::vector<Row> &rows, const std::string &indent) {
    std::vector<size_t> widths;
    for (const Row &row : rows) {
        widths.resize(std::max(widths.size(), row.size()));
        for (size_t i = 0; i < row.size(); ++i) widths[i] = std::max(widths[i], row[i].size());
    }
    std::string text;
    for (const Row &row : rows) {
        std::string line = indent;
        for (size_t i = 0; i < row.size(); ++i) {
            line += row[i] + std::string(widths[i] - row[i].size() + 2, ' ');
        }
        text += line.substr(0, line.find_last_not_of(' ') + 1) + "\n";
    }
    return text;
}

std::string or_dash(const std::string &text) {
    return text.empty() ? "-" : text;
}

std::string seen_as(const json &mask) {
    std::string text = mask.at("host").get<std::string>() + ":";
    for (const json &path : mask.at("paths")) {
        text += " " + path.at("path").get<std::string>();
        if (path.at("port").get<bool>()) text += " (port)";
        if (path.at("down").get<bool>()) text += " (down)";
    }
    return text;
}

std::string state_of(const json &pair) {
    std::string text = pair.at("state_name");
    const int percent = pair.at("percent");
    if (percent < 100) text += " " + std::to_string(percent) + "%";
    if (pair.at("background").get<bool>()) text += " (finishing)";
    return text;
}

std::string devices(const json &array, const std::map<std::string, Row> &masks) {
    std::vector<Row> rows = {
        {"DEVICE", "KIND", "SIZE", "GROUP", "LABEL", "BLOCK DEVICE", "READY", "SEEN AS"}};
    for (const json &device : array.at("devices")) {
        const std::string name = device.at("name");
        Row row = {name,
                   device.at("bcv").get<bool>() ? "BCV" : "standard",
                   readable_size(device.at("size")),
                   or_dash(device.at("group")),
                   or_dash(device.at("label")),
                   device.at("device"),
                   device.at("ready").get<bool>() ? "yes" : "no"};
        const auto found = masks.find(array.at("symid").get<std::string>() + " " + name);
        if (found == masks.end()) row.push_back("-");
        if (found != masks.end()) row.push_back(found->second.front());
        rows.push_back(row);
        for (size_t i = 1; found != masks.end() && i < found->second.size(); ++i) {
            rows.push_back({"", "", "", "", "", "", "", found->second[i]});
        }
    }
    return columns(rows, "  ");
}

std::string pairs(const json &array) {
    if (array.at("pairs").empty()) return "  no pairs\n";
    std::vector<Row> rows = {{"STANDARD", "BCV", "STATE", "MOVED"}};
    for (const json &pair : array.at("pairs")) {
        const uint64_t tracks = pair.at("tracks");
        rows.push_back({pair.at("primary"), pair.at("bcv"), state_of(pair),
                        pair.at("established_before").get<bool>()
                            ? std::to_string(tracks) + " tracks"
                            : "never"});
    }
    return columns(rows, "  ");
}

std::string faults(const json &all) {
    std::vector<Row> rows = {{"FAULT", "FUNCTION", "DEVICE", "HOST", "CALL", "WHAT", "SEEN"}};
    for (const json &one : all) {
        const int code = one.at("code"), delay = one.at("delay_ms");
        std::string what;
        if (code != 0) what = "code " + std::to_string(code);
        if (code != 0 && one.at("after").get<bool>()) what += " after the effect";
        if (delay != 0) what += (what.empty() ? "" : ", ") + std::to_string(delay) + " ms later";
        rows.push_back({std::to_string(one.at("id").get<int64_t>()), one.at("function"),
                        or_dash(one.at("device")), or_dash(one.at("host")),
                        std::to_string(one.at("at").get<int64_t>()) +
                            (one.at("for_good").get<bool>() ? " and later" : ""),
                        what, std::to_string(one.at("seen").get<int64_t>())});
    }
    return "\n" + columns(rows, "  ");
}

}  // namespace

std::string readable_size(uint64_t bytes) {
    if (bytes >= uint64_t{1} << 30 && bytes % (uint64_t{1} << 30) == 0) {
        return std::to_string(bytes >> 30) + " GiB";
    }
    if (bytes >= uint64_t{1} << 20) return std::to_string(bytes >> 20) + " MiB";
    return std::to_string(bytes >> 10) + " KiB";
}

std::string table_of(const json &report) {
    std::ostringstream text;
    const json &settings = report.at("settings"), &clock = report.at("clock");
    text << "Release " << settings.at("version_text").get<std::string>() << ", patch "
         << settings.at("patch").get<std::string>() << "; " << settings.at("rate")
         << " MiB/s; clock " << clock.at("seconds").get<double>() << " s"
         << (clock.at("running").get<bool>() ? "" : " (stopped)") << "\n";
    const std::string limits = report.at("limits");
    if (!limits.empty()) text << "Media: " << limits << "\n";
    std::map<std::string, Row> masks;
    for (const json &mask : report.at("masks")) {
        masks[mask.at("symid").get<std::string>() + " " + mask.at("device").get<std::string>()]
            .push_back(seen_as(mask));
    }
    for (const json &array : report.at("arrays")) {
        text << "\nArray " << array.at("symid").get<std::string>() << "\n"
             << devices(array, masks) << "\n"
             << pairs(array);
    }
    if (report.at("arrays").empty()) text << "\nNo arrays.\n";
    if (!report.at("faults").empty()) text << faults(report.at("faults"));
    return text.str();
}

}  // namespace lab
