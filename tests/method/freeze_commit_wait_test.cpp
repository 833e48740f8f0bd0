// How a freeze commit waits for the split.
#include "tests/method/freeze_commit_fixture.h"

namespace {

using namespace test;

class FreezeCommitWait : public FreezeCommitTest {};

TEST_F(FreezeCommitWait, a_failed_split_call_is_reported_but_the_waits_decide) {
    hdef *const h = object("datadg");
    prim_mir_info *const pm = device(h, "0001");
    array.script("SymDevListBcvControl", {43});
    // The call's effect came although its answer was lost.
    array.on_call = [this](const std::string &line) {
        if (line.starts_with("SymDevListBcvControl")) array.set_state(array_id, "0001", 5);
    };
    EXPECT_EQ(TimeFinder_freeze_commit(h), 0);
    expect_failure(7,
                   "emc_tf_bcv_control_all: SymAPI call to SymDevListBcvControl to establish BCV "
                   "failed with code: 43 (array error 43)");
    EXPECT_TRUE(logged("Split end"));
    EXPECT_EQ(pm->sync_at_end, 1);
    EXPECT_EQ(freeze_commit_done, 1);
}

TEST_F(FreezeCommitWait, without_memory_for_the_split_call_the_waits_decide_as_well) {
    hdef *const h = object("datadg");
    prim_mir_info *const pm = device(h, "0001");
    fail_allocation(1);
    EXPECT_EQ(TimeFinder_freeze_commit(h), 11);
    no_more_faults();
    EXPECT_TRUE(logged("emc_tf_bcv_control_all: Out of available memory"));
    EXPECT_TRUE(array.calls_of("SymDevListBcvControl").empty());
    EXPECT_EQ(sleeps(), std::vector<unsigned>(6, 10));
    expect_failure(13, "emc_tf_wait_for_split: Cannot split device /dev/disk_1230001: state: 2");
    EXPECT_EQ(pm->sync_at_end, 1);
    expect_uncommitted(1);
}

TEST_F(FreezeCommitWait, the_pairs_of_an_array_that_split_are_awaited_before_another_array_fails) {
    hdef *const h = object("datadg");
    device(h, "0001");
    prim_mir_info *const second = device(h, "0002", 2, other_array);
    array.script("SymDevListBcvControl", {0, 43});
    EXPECT_EQ(TimeFinder_freeze_commit(h), 11);
    expect_failure(13, "emc_tf_wait_for_split: Cannot split device /dev/disk_9990002: state: 2");
    EXPECT_EQ(array.state(array_id, "0001"), 5);
    EXPECT_EQ(times_logged("...Finished"), 1);
    EXPECT_EQ(second->sync_at_end, 1);
    expect_uncommitted(1);
}

TEST_F(FreezeCommitWait, a_failed_split_call_without_effect_fails_in_the_waits) {
    hdef *const h = object("datadg");
    prim_mir_info *const pm = device(h, "0001");
    array.script("SymDevListBcvControl", {43});
    EXPECT_EQ(TimeFinder_freeze_commit(h), 11);
    expect_failure(13, "emc_tf_wait_for_split: Cannot split device /dev/disk_1230001: state: 2");
    EXPECT_EQ(pm->sync_at_end, 1);
    expect_uncommitted(1);
}

TEST_F(FreezeCommitWait, a_pair_that_stays_synchronised_is_asked_7_times_10_seconds_apart) {
    hdef *const h = object("datadg");
    device(h, "0001");
    array.state_after_action[2] = 2;
    EXPECT_EQ(TimeFinder_freeze_commit(h), 11);
    expect_failure(13, "emc_tf_wait_for_split: Cannot split device /dev/disk_1230001: state: 2");
    EXPECT_EQ(sleeps(), std::vector<unsigned>(6, 10));
    EXPECT_EQ(array.calls_of("SymDevSync").size(), 1U + 7U);
    EXPECT_EQ(times_logged("...Waiting for split to finish..."), 7);
    expect_uncommitted(1);
}

TEST_F(FreezeCommitWait, a_pair_that_splits_after_6_retries_is_good) {
    hdef *const h = object("datadg");
    device(h, "0001");
    array.state_after_action[2] = 8;
    on_sleep([this](unsigned) {
        if (sleeps().size() == 6) array.set_state(array_id, "0001", 5);
    });
    EXPECT_EQ(TimeFinder_freeze_commit(h), 0) << errmsg;
    EXPECT_EQ(sleeps(), std::vector<unsigned>(6, 10));
}

TEST_F(FreezeCommitWait, a_split_in_progress_is_polled_every_second_without_limit) {
    hdef *const h = object("datadg");
    device(h, "0001");
    array.state_after_action[2] = 3;
    on_sleep([this](unsigned) {
        if (sleeps().size() == 500) array.set_state(array_id, "0001", 5);
    });
    EXPECT_EQ(TimeFinder_freeze_commit(h), 0) << errmsg;
    EXPECT_EQ(sleeps(), std::vector<unsigned>(500, 1));
}

TEST_F(FreezeCommitWait, polls_do_not_use_up_the_retries) {
    hdef *const h = object("datadg");
    device(h, "0001");
    array.state_after_action[2] = 3;
    on_sleep([this](unsigned) {
        // 20 seconds in progress, then back to synchronised for good.
        if (sleeps().size() == 20) array.set_state(array_id, "0001", 2);
    });
    EXPECT_EQ(TimeFinder_freeze_commit(h), 11);
    EXPECT_EQ(sleeps().size(), 26U);
}

TEST_F(FreezeCommitWait, every_pair_has_its_own_retries) {
    hdef *const h = object("datadg");
    device(h, "0001");
    device(h, "0002");
    array.state_after_action[2] = 2;
    on_sleep([this](unsigned) {
        if (sleeps().size() == 5) array.set_state(array_id, "0001", 5);
        if (sleeps().size() == 10) array.set_state(array_id, "0002", 5);
    });
    EXPECT_EQ(TimeFinder_freeze_commit(h), 0) << errmsg;
    EXPECT_EQ(sleeps().size(), 10U);
}

TEST_F(FreezeCommitWait, the_waits_traces_belong_to_level_2) {
    set_level(1);
    hdef *const h = object("datadg");
    device(h, "0001");
    EXPECT_EQ(TimeFinder_freeze_commit(h), 0);
    EXPECT_FALSE(logged("...Waiting for split to finish..."));
    EXPECT_FALSE(logged("...Finished"));
    EXPECT_FALSE(logged("Waiting for SymExit..."));
}

TEST_F(FreezeCommitWait, a_failed_refresh_in_the_waits_is_reported) {
    hdef *const h = object("datadg");
    prim_mir_info *const pm = device(h, "0001");
    array.script_call("SymDevSync", 2, 44);
    EXPECT_EQ(TimeFinder_freeze_commit(h), 11);
    expect_failure(3,
                   "emc_tf_wait_for_split: SymAPI call to SymDevSync on device 0101 failed with "
                   "code 44 (array error 44)");
    EXPECT_EQ(log_lines().back(), errmsg);
    EXPECT_EQ(pm->sync_at_end, 1);
    expect_uncommitted(1);
}

TEST_F(FreezeCommitWait, a_failed_show_in_the_waits_is_reported) {
    hdef *const h = object("datadg");
    device(h, "0001");
    array.script_call("SymPdevShow", 2, 45);
    EXPECT_EQ(TimeFinder_freeze_commit(h), 11);
    expect_failure(3,
                   "emc_tf_wait_for_split: SymAPI call to SymPdevShow on device /dev/disk_1230001 "
                   "failed with code 45 (array error 45)");
    expect_uncommitted(1);
}

TEST_F(FreezeCommitWait, a_bcv_that_is_gone_in_the_waits_is_reported_by_the_lookup) {
    hdef *const h = object("datadg");
    device(h, "0001");
    array.on_call = [this](const std::string &line) {
        if (line.starts_with("SymDevListBcvControl")) {
            array.device(array_id, "0001").record.bcv_count = 0;
        }
    };
    EXPECT_EQ(TimeFinder_freeze_commit(h), 11);
    expect_failure(10, "find_bcv_info: Cannot find BCV 0101 for disk 0001 in group DG");
    expect_uncommitted(1);
}

}  // namespace
