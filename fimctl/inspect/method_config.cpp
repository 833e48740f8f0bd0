#include "fimctl/inspect/method_config.h"

#include <strings.h>

#include <climits>
#include <cstdlib>

namespace fimctl {
namespace {

constexpr size_t longest_config = 1024;

struct Keyword {
    const char *name;
    bool is_number;
    int64_t min, max;
};

constexpr Keyword keywords[] = {
    {"async_resync", true, 0, 1},
    {"sync_at_start", true, 0, 2},
    {"alternate_backup_client", false, 0, 0},
    {"backup_copy", true, INT_MIN, INT_MAX},
    {"plexname", false, 0, 0},
    {"max_snapshots", true, 0, INT_MAX},
    {"keep_fi", true, 0, 1},
};

const Keyword *find(const std::string &name) {
    for (const Keyword &keyword : keywords) {
        if (strcasecmp(keyword.name, name.c_str()) == 0) return &keyword;
    }
    return nullptr;
}

// Takes one pair; what is wrong with it, or "".
std::string take(const std::string &pair, MethodConfig &config) {
    const size_t sign = pair.find('=');
    if (pair.empty()) return "an empty pair";
    if (sign == std::string::npos) return pair + ": no value";
    if (sign == 0) return pair + ": no keyword";
    const std::string value = pair.substr(sign + 1);
    const Keyword *keyword = find(pair.substr(0, sign));
    if (keyword == nullptr) {
        config.unknown.push_back(pair.substr(0, sign));
        return "";
    }
    const std::string name = keyword->name;
    if (keyword->is_number) {
        char *end = nullptr;
        const int64_t number = strtoll(value.c_str(), &end, 10);
        if (*end != '\0') return pair + ": not a number";
        if (number < keyword->min || number > keyword->max) {
            return pair + ": not between " + std::to_string(keyword->min) + " and " +
                   std::to_string(keyword->max);
        }
        if (name == "sync_at_start") config.sync_at_start = number;
    } else if (!value.empty()) {
        if (name == "plexname") config.plex = value;
        if (name == "alternate_backup_client") config.client = value;
    }
    return "";
}

}  // namespace

MethodConfig parse_method_config(const std::string &text) {
    MethodConfig config;
    if (text.size() > longest_config) {
        config.trouble = "longer than " + std::to_string(longest_config) + " characters";
        return config;
    }
    for (size_t start = 0; start < text.size() && config.trouble.empty();) {
        const size_t end = text.find(',', start);
        const size_t size = end == std::string::npos ? text.size() - start : end - start;
        config.trouble = take(text.substr(start, size), config);
        start += size + 1;
    }
    return config;
}

std::string warning_of_keyword(const std::string &unknown) {
    return "the configuration string: the method knows no keyword " + unknown +
           ", and passes it over";
}

}  // namespace fimctl
