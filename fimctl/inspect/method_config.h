// The method's configuration string, as far as a plan depends on it.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace fimctl {

struct MethodConfig {
    int64_t sync_at_start = 0;
    std::string client;                // the alternate backup host, "" for none
    std::string plex = "DEFAULT";      // as the clone tool gets it
    std::vector<std::string> unknown;  // keywords that the method passes over
    std::string trouble;  // why the method would refuse the string; "" when it takes it
};

// By the method's own rules: pairs apart by commas, no blanks taken away, keywords in either case,
// unknown ones passed over, the last one of a keyword holds.
MethodConfig parse_method_config(const std::string &text);

// What the operator is told of a keyword that the method passes over.
std::string warning_of_keyword(const std::string &unknown);

}  // namespace fimctl
