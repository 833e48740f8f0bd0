// The method's configuration string, as far as a plan depends on it.
#pragma once

#include <cstdint>
#include <string>

namespace fimctl {

struct MethodConfig {
    int64_t sync_at_start = 0;
    std::string client;            // the alternate backup host, "" for none
    std::string plex = "DEFAULT";  // as the clone tool gets it
    std::string unknown;           // a keyword that the method passes over, "" for none
    std::string trouble;           // why the method would refuse the string; "" when it takes it
};

// By the method's own rules: pairs apart by commas, no blanks taken away, keywords in either case,
// unknown ones passed over, the last one of a keyword holds.
MethodConfig parse_method_config(const std::string &text);

}  // namespace fimctl
