#include "proof/kit/scenario.h"

#include <set>
#include <stdexcept>

namespace proof {
namespace {

TEST(Scenarios, have_names_of_their_own_and_processes_on_their_hosts) {
    std::set<std::string> names;
    for (const Scenario &one : call_scenarios()) {
        EXPECT_TRUE(names.insert(one.name).second) << one.name;
        EXPECT_EQ(&scenario(one.name), &one);
        for (const Process &process : one.processes) {
            const std::set<std::string> hosts(one.hosts.begin(), one.hosts.end());
            EXPECT_TRUE(hosts.contains(process.host)) << one.name << "/" << process.name;
        }
    }
    EXPECT_THROW(scenario("none"), std::runtime_error);
}

}  // namespace
}  // namespace proof
