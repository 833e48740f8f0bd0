#include "tests/support/world.h"

#include <unistd.h>

namespace test {
namespace {

std::string whole_log(const Call &call) {
    std::string text;
    for (const std::string &line : call.log) text += "  " + line + "\n";
    return text;
}

}  // namespace

void expect_failure(const Call &call, int number, const std::string &text, int status) {
    EXPECT_EQ(call.status, status) << call.step;
    EXPECT_EQ(call.number, number) << call.step;
    EXPECT_EQ(call.errmsg, text) << call.step;
    EXPECT_EQ(call.logmsg, text) << call.step;
    EXPECT_TRUE(call.logged(text)) << call.step << " logged:\n" << whole_log(call);
}

void expect_success(const Call &call) {
    EXPECT_EQ(call.status, 0) << call.step << ": " << call.errmsg << "\n" << whole_log(call);
}

void World::SetUp() {
    if (geteuid() != 0) GTEST_SKIP() << "worlds need root";
    start();
}

void World::TearDown() {
    stop();
}

Phase World::end_phase(const Running &running, int expected_status) {
    Phase result = LabWorld::end_phase(running, expected_status);
    for (const Call &call : result.calls) {
        for (const std::string &what : call.changed) {
            ADD_FAILURE() << call.step << " changed the process that called it: " << what;
        }
    }
    return result;
}

Phase World::phase(const Words &steps, int level, const Words &environment) {
    return end_phase(begin_phase(steps, level, environment));
}

void World::expect_a_snapshot_succeeds(const std::string &source) {
    const Phase good = phase(
        {"freeze", "-", source, "/copy", "ctl", "4", "commit", "thaw", "thaw_commit", "close"});
    EXPECT_EQ(good.calls.size(), 6U);
    for (const Call &call : good.calls) {
        expect_success(call);
        EXPECT_EQ(call.number, -1) << call.step << ": " << call.errmsg;
    }
    EXPECT_TRUE(good.at("commit").logged("Split end"));
    EXPECT_EQ(counter_files(), "");
    EXPECT_EQ(host("ls -A /tmp"), "");
}

}  // namespace test
