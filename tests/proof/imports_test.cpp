#include "proof/system_calls/imports.h"

#include <fstream>
#include <set>
#include <string>

namespace proof {
namespace {

std::set<std::string> functions_of_the_places() {
    std::ifstream in(TF_SOURCE_DIR "/proof/expected/system_calls/sites");
    std::set<std::string> functions;
    for (std::string scenario, process, calls, site; in >> scenario >> process >> calls >> site;) {
        const size_t colon = site.find(':');
        functions.insert(site.substr(colon + 1, site.find('@') - colon - 1));
    }
    return functions;
}

std::string told(const std::vector<Gap> &gaps) {
    std::string text;
    for (const Gap &gap : gaps) text += gap.function + ": " + gap.why + "\n";
    return text;
}

TEST(Imports, are_all_called_by_some_place) {
    EXPECT_EQ(told(import_gaps(functions_of_the_places())), "");
}

TEST(Imports, that_no_place_calls_are_named) {
    std::set<std::string> reached = functions_of_the_places();
    for (const char *function : {"ioctl", "getifaddrs", "duplicate"})
        EXPECT_EQ(reached.erase(function), 1U) << function;
    EXPECT_EQ(told(import_gaps(reached)),
              "duplicate: it can fail, and no place calls it\n"
              "getifaddrs: it can fail, and no place calls it\n"
              "ioctl: it can fail, and no place calls it\n");
}

}  // namespace
}  // namespace proof
