#include "fimctl/checkpoint_text.h"

#include <cstdlib>
#include <fstream>
#include <sstream>

#include "fimctl/disk_group.h"

namespace fimctl {
namespace {

constexpr char object_type_file_system[] = "3";

bool starts(const std::string &line, const std::string &key) {
    return line.compare(0, key.size() + 1, key + "=") == 0;
}

// A last piece without a newline is no line of the format.
std::vector<std::string> lines_of(const std::string &text) {
    std::vector<std::string> lines;
    size_t start = 0;
    for (size_t end = text.find('\n'); end != std::string::npos; end = text.find('\n', start)) {
        lines.push_back(text.substr(start, end - start));
        start = end + 1;
    }
    return lines;
}

}  // namespace

CheckpointText::CheckpointText(const std::string &text) : lines_(lines_of(text)) {}

std::string CheckpointText::value(const std::string &key) const {
    for (auto line = lines_.rbegin(); line != lines_.rend(); ++line) {
        if (starts(*line, key)) return line->substr(key.size() + 1);
    }
    return "";
}

long CheckpointText::number(const std::string &key) const {
    return strtol(value(key).c_str(), nullptr, 10);
}

bool CheckpointText::is_file_system() const {
    return value("HDEF-object_type") == object_type_file_system;
}

bool CheckpointText::is_volume() const {
    return number("HDEF-is_vol") != 0;
}

bool CheckpointText::is_imported_group() const {
    return is_volume() && number("HDEF-dgimport") != 0;
}

bool CheckpointText::is_target() const {
    return number("HDEF-is_tgt") != 0;
}

std::vector<Pair> CheckpointText::pairs() const {
    std::vector<Pair> found;
    Pair pair;
    for (const std::string &line : lines_) {
        const auto take = [&line](const char *key, std::string &into) {
            if (starts(line, key)) into = line.substr(std::string(key).size() + 1);
        };
        take("PMINFO-symid", pair.symid);
        take("PMINFO-dev_sym_devname", pair.device);
        take("PMINFO-bcvdev_sym_devname", pair.bcv);
        if (line == "PRIM_MIR_INFO=NEXT") {
            found.push_back(pair);
            pair = {};
        }
    }
    return found;
}

std::string with_clone_information(const std::string &text) {
    std::string made;
    bool in_block = false;
    for (const std::string &line : lines_of(text)) {
        made += line + "\n";
        if (line == "HDEF-CLONE_INFO_FILE=START") in_block = true;
        if (line == "HDEF-CLONE_INFO_FILE=END") in_block = false;
        if (!in_block || !starts(line, "TRANSFER_FILE")) continue;
        std::ifstream file(line.substr(line.find('=') + 1));
        for (std::string content; std::getline(file, content);) made += content + "\n";
    }
    return made;
}

std::string for_backup_host(const std::string &text) {
    return "HDEF-is_tgt=1\n" + text;
}

std::string for_primary_host(const std::string &text) {
    std::string made;
    for (const std::string &line : lines_of(text)) {
        if (!starts(line, "HDEF-is_tgt")) made += line + "\n";
    }
    return made;
}

std::string as_if_mounted(const std::string &text) {
    const CheckpointText parsed(text);
    std::string made = text;
    if (parsed.is_file_system()) made += "HDEF-is_mount=1\n";
    if (parsed.is_volume()) {
        made += "HDEF-clone_group=" +
                clone_name(parsed.value("HDEF-primary_host"), parsed.value("HDEF-vol_group")) +
                "\n";
    }
    return made;
}

}  // namespace fimctl
