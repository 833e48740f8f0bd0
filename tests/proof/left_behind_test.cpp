// What a process of a scenario may not leave behind, and how the rows come to know of it.
#include <unistd.h>

#include <algorithm>
#include <filesystem>

#include "proof/kit/agent.h"
#include "proof/kit/faulted_run.h"
#include "proof/kit/processes.h"

namespace proof {
namespace {

namespace fs = std::filesystem;

const Words nothing;

TEST(EndOfAProcess, without_blocks_and_library_is_right) {
    EXPECT_EQ(wrong_at_the_end({"site 1 2 alloc malloc 3", "unloaded"}, 0), nothing);
}

TEST(EndOfAProcess, with_a_block_is_wrong) {
    EXPECT_EQ(wrong_at_the_end({"unloaded", "held libtessera_host.so+1f"}, 0),
              Words{"a block stays: held libtessera_host.so+1f"});
}

TEST(EndOfAProcess, with_the_library_still_loaded_is_wrong) {
    EXPECT_EQ(wrong_at_the_end({"met 1"}, 0), Words{"the library was not unloaded"});
}

TEST(EndOfAProcess, that_was_killed_before_it_is_not_looked_at) {
    EXPECT_EQ(wrong_at_the_end({"met 1"}, 137), nothing);
}

// One process that does nothing with the method but load it.
Scenario scenario_with(const std::string &line) {
    return {"test", "demo", {"client1"}, {}, {{"one", "client1", {}, {"bare", "run", line}}},
            {},     {}};
}

bool tells(const Words &wrong, const std::string &part) {
    return std::any_of(wrong.begin(), wrong.end(), [&part](const std::string &one) {
        return one.find(part) != std::string::npos;
    });
}

class LeftBehind : public testing::Test {
  protected:
    void SetUp() override {
        if (geteuid() != 0) GTEST_SKIP() << "worlds need root";
    }
};

TEST_F(LeftBehind, by_a_good_process_is_nothing_needs_root) {
    const Scenario one = scenario_with("true");
    Bench bench(one, "array");
    EXPECT_EQ(bench.run_in(0, {}).wrong, nothing);
}

TEST_F(LeftBehind, a_block_of_the_library_is_wrong_needs_root) {
    const Scenario one = scenario_with("true");
    Bench bench(one, "array");
    test::LabWorld &world = bench.world();
    fs::copy_file(TF_BINARY_DIR "/leaking/libtimefinder_fim.so", world.exchange() / "leaking.so");
    world.host("cp /exchange/leaking.so /usr/quill/tessera/lib/libtimefinder_fim.so");
    const Words wrong = bench.run_in(0, {}).wrong;
    EXPECT_TRUE(tells(wrong, "a block stays: held libtimefinder_fim.so+"));
}

TEST_F(LeftBehind, a_process_is_wrong_needs_root) {
    const Scenario one = scenario_with("sleep 1000 >/dev/null 2>&1 &");
    Bench bench(one, "array");
    EXPECT_TRUE(tells(bench.run_in(0, {}).wrong, "\n+ process sleep"));
}

TEST_F(LeftBehind, a_process_is_waited_for_needs_root) {
    test::LabWorld world;
    world.start();
    install_process_list(world);
    EXPECT_EQ(world.host("sleep 0.3 >/dev/null 2>&1 & exec " + std::string(list_processes)), "");
    int status = 0;
    world.host("sleep 1000 >/dev/null 2>&1 &");
    EXPECT_EQ(world.host(std::string(list_processes) + " 3", &status), "process sleep\n");
    EXPECT_EQ(status, 1);
}

}  // namespace
}  // namespace proof
