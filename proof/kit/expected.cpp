#include "proof/kit/expected.h"

#include <fstream>
#include <set>
#include <sstream>
#include <utility>
#include <vector>

namespace proof {
namespace {

std::vector<std::string> parts_of(const std::string &key) {
    std::vector<std::string> parts;
    std::istringstream in(key);
    for (std::string part; std::getline(in, part, '/');) parts.push_back(part);
    parts.resize(3);
    return parts;
}

// The keys that may speak for a whole one, the longest first.
std::vector<std::string> shorter(const std::string &key) {
    const std::vector<std::string> part = parts_of(key);
    return {key, part[0] + "/" + part[1], part[0] + "/*/" + part[2], part[0]};
}

bool fits(const std::string &pattern, const std::string &key) {
    for (const std::string &one : shorter(key)) {
        if (one == pattern) return true;
    }
    return false;
}

// The shortest keys that stand for exactly those with an outcome.
std::set<std::string> shortest(const std::map<std::string, std::string> &keys,
                               const std::string &outcome) {
    std::set<std::string> result;
    for (const auto &[key, came] : keys) {
        if (came != outcome) continue;
        std::vector<std::string> patterns = shorter(key);
        for (auto pattern = patterns.rbegin(); pattern != patterns.rend(); ++pattern) {
            bool alone = true;
            for (const auto &[other, other_came] : keys) {
                if (fits(*pattern, other) && other_came != outcome) alone = false;
            }
            if (!alone && *pattern != key) continue;
            result.insert(*pattern);
            break;
        }
    }
    return result;
}

}  // namespace

Expected::Sections &Expected::of(const std::string &scenario) {
    if (const auto found = read_.find(scenario); found != read_.end()) return found->second;
    Sections &sections = read_[scenario];
    std::ifstream in(folder_ / scenario);
    std::string section;
    for (std::string line; std::getline(in, line);) {
        if (line.empty() || line[0] == '#') continue;
        if (line[0] != ' ') {
            section = line;
            continue;
        }
        const size_t colon = line.find(": ");
        std::istringstream keys(line.substr(0, colon));
        for (std::string key; keys >> key;) sections[section][key] = line.substr(colon + 2);
    }
    return sections;
}

const std::string *Expected::find(const std::string &scenario, const std::string &section,
                                  const std::string &key) {
    const Sections &sections = of(scenario);
    const auto keys = sections.find(section);
    if (keys == sections.end()) return nullptr;
    for (const std::string &one : shorter(key)) {
        const auto found = keys->second.find(one);
        if (found != keys->second.end()) return &found->second;
    }
    return nullptr;
}

void Expected::put_down(const std::string &scenario, const std::string &section,
                        const std::string &key, const std::string &outcome) {
    put_down_[scenario][section][key] = outcome;
}

void Expected::write() {
    for (const auto &[scenario, sections] : put_down_) {
        Sections all = of(scenario);
        for (const auto &[section, keys] : sections) {
            // What was there before is kept, with what differs from it behind.
            const bool is_new = !all.contains(section);
            for (const auto &[key, outcome] : keys) {
                const std::string *known = is_new ? nullptr : find(scenario, section, key);
                if (known == nullptr || *known != outcome) all[section][key] = outcome;
            }
        }
        std::filesystem::create_directories(folder_);
        std::ofstream out(folder_ / scenario);
        for (const auto &[section, keys] : all) {
            out << section << "\n";
            const bool is_old = of(scenario).contains(section);
            std::map<std::string, std::set<std::string>> lines;  // outcome -> keys
            for (const auto &[key, outcome] : keys) {
                if (is_old)
                    lines[outcome].insert(key);
                else
                    lines[outcome] = shortest(keys, outcome);
            }
            for (const auto &[outcome, patterns] : lines) {
                out << "   ";
                for (const std::string &pattern : patterns) out << " " << pattern;
                out << ": " << outcome << "\n";
            }
        }
    }
}

}  // namespace proof
