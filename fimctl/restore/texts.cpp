#include "fimctl/restore/texts.h"

#include <algorithm>
#include <cstdlib>
#include <sstream>

namespace fimctl {
namespace {

constexpr char wanted_key[] = "PMINFO-sync_at_end=";

// Takes the value of a line of this key.
bool take(const std::string &line, const std::string &key, std::string &value) {
    if (line.compare(0, key.size(), key) != 0) return false;
    value = line.substr(key.size());
    return true;
}

// Takes a line of a record; true when it ends the record.
bool take_line(const std::string &line, PairLines &record) {
    std::string value;
    take(line, "PMINFO-symid=", record.pair.symid);
    take(line, "PMINFO-dev_sym_devname=", record.pair.device);
    take(line, "PMINFO-bcvdev_sym_devname=", record.pair.bcv);
    take(line, "PMINFO-dev_raw_device=", record.primary);
    take(line, "PMINFO-bcv_raw_device=", record.mirror);
    if (take(line, wanted_key, value)) {
        record.wanted = strtol(value.c_str(), nullptr, 10) != 0;
    }
    return line == "PRIM_MIR_INFO=NEXT";
}

}  // namespace

std::vector<PairLines> pair_lines(const std::string &text) {
    std::vector<PairLines> records;
    PairLines record;
    std::istringstream lines(text);
    for (std::string line; std::getline(lines, line);) {
        if (!take_line(line, record)) continue;
        records.push_back(record);
        record = {};
    }
    return records;
}

std::string text_for_restore(const std::string &text, const std::string &directory,
                             const std::vector<Pair> &done) {
    std::string made;
    PairLines record;
    std::istringstream lines(text);
    for (std::string line; std::getline(lines, line);) {
        if (take_line(line, record)) record = {};
        std::string value;
        // The names of a record stand before this line of it.
        const bool is_done = std::find(done.begin(), done.end(), record.pair) != done.end();
        if (is_done && take(line, wanted_key, value)) line = std::string(wanted_key) + "0";
        made += line + "\n";
    }
    made += "HDEF-restore=1\n";
    if (!directory.empty()) made += "HDEF-mount_point=" + directory + "\n";
    return made + "HDEF-is_mount=0\n";
}

}  // namespace fimctl
