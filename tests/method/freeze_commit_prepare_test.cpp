// Which pairs a freeze commit splits, and which stop it.
#include "tests/method/freeze_commit_fixture.h"

namespace {

using namespace test;

class FreezeCommitPrepare : public FreezeCommitTest {};

TEST_F(FreezeCommitPrepare, the_newest_group_and_object_go_first) {
    hdef *const a1 = object("a");
    device(a1, "0001");
    device(a1, "0002");
    hdef *const b1 = object("b");
    device(b1, "0003");
    hdef *const a2 = object("a");
    device(a2, "0004");
    EXPECT_EQ(TimeFinder_freeze_commit(a1), 0);
    const std::vector<std::string> shows = array.calls_of("SymPdevShow");
    ASSERT_GE(shows.size(), 4U);
    EXPECT_EQ((std::vector<std::string>{shows.begin(), shows.begin() + 4}),
              (std::vector<std::string>{
                  "SymPdevShow /dev/disk_1230003", "SymPdevShow /dev/disk_1230004",
                  "SymPdevShow /dev/disk_1230001", "SymPdevShow /dev/disk_1230002"}));
    EXPECT_TRUE(logged("Total BCVs to split : 4"));
}

TEST_F(FreezeCommitPrepare, a_restored_pair_is_split_like_a_synchronised_one) {
    hdef *const h = object("datadg");
    device(h, "0001", 8);
    EXPECT_EQ(TimeFinder_freeze_commit(h), 0);
    EXPECT_TRUE(logged("Adding <0001, 0101> to split list"));
}

TEST_F(FreezeCommitPrepare, a_primary_of_two_objects_is_split_once) {
    hdef *const a = object("a");
    prim_mir_info *const of_a = device(a, "0001");
    hdef *const b = object("b");
    prim_mir_info *const of_b = device(b, "0001");
    EXPECT_EQ(TimeFinder_freeze_commit(a), 0);
    EXPECT_EQ(times_logged("Adding <0001, 0101> to split list"), 1);
    EXPECT_TRUE(logged("Total BCVs to split : 1"));
    EXPECT_EQ(array.calls_of("SymDevListBcvControl")[0],
              "SymDevListBcvControl 000184500123 1 [0001] [0101] action 2 option 0x400800 0");
    EXPECT_EQ(of_b->sync_at_end, 1);  // the newer object's record is the one in the list
    EXPECT_EQ(of_a->sync_at_end, 0);
}

TEST_F(FreezeCommitPrepare, equal_names_on_two_arrays_count_as_one_device) {
    hdef *const h = object("datadg");
    device(h, "0001");
    device(h, "0001", 2, other_array);
    EXPECT_EQ(TimeFinder_freeze_commit(h), 0);
    EXPECT_TRUE(logged("Total BCVs to split : 1"));
    EXPECT_EQ(array.state(other_array, "0001"), 2);
}

TEST_F(FreezeCommitPrepare, a_pair_split_for_the_group_before_is_passed_over) {
    hdef *const h = object("datadg");
    prim_mir_info *const pm = device(h, "0001", 5);
    pm->issplit = 1;
    EXPECT_EQ(TimeFinder_freeze_commit(h), 0) << errmsg;
    EXPECT_TRUE(logged("Device /dev/disk_1230001 has already been split"));
    EXPECT_TRUE(array.calls_of("SymDevListBcvControl").empty());
    EXPECT_FALSE(logged("Total BCVs to split : 0"));
    EXPECT_EQ(pm->sync_at_end, 0);
}

TEST_F(FreezeCommitPrepare, every_number_but_0_says_that_the_pair_was_split_before) {
    hdef *const h = object("datadg");
    device(h, "0001", 5)->issplit = -1;
    EXPECT_EQ(TimeFinder_freeze_commit(h), 0) << errmsg;
}

TEST_F(FreezeCommitPrepare, that_a_pair_was_split_before_is_progress) {
    set_level(0);
    hdef *const h = object("datadg");
    device(h, "0001", 5)->issplit = 1;
    EXPECT_EQ(TimeFinder_freeze_commit(h), 0);
    EXPECT_EQ(whole_log(), "Device /dev/disk_1230001 has already been split\n");
}

TEST_F(FreezeCommitPrepare, a_pair_in_state_5_that_nobody_split_fails) {
    hdef *const h = object("datadg");
    prim_mir_info *const pm = device(h, "0001", 5);
    pm->sync_at_end = 1;
    EXPECT_EQ(TimeFinder_freeze_commit(h), 11);
    expect_failure(11,
                   "emc_tf_split_prepare: Device /dev/disk_1230001 cannot be split at freeze; "
                   "bcv_pair_state=5");
    EXPECT_EQ(pm->sync_at_end, 0);
    EXPECT_EQ(log_lines().back(), "split_device failed");
    expect_uncommitted(1);
}

TEST_F(FreezeCommitPrepare, every_other_state_fails_and_shows_itself) {
    hdef *const h = object("datadg");
    prim_mir_info *const pm = device(h, "0001");
    pm->issplit = 1;
    for (const long state : {0L, 1L, 3L, 4L, 6L, 7L, 9L, 70000000000L}) {
        array.set_state(array_id, "0001", state);
        EXPECT_EQ(TimeFinder_freeze_commit(h), 11) << state;
        expect_failure(11,
                       "emc_tf_split_prepare: Device /dev/disk_1230001 cannot be split at freeze; "
                       "bcv_pair_state=" +
                           std::to_string(state));
    }
    EXPECT_TRUE(array.calls_of("SymDevListBcvControl").empty());
    expect_uncommitted(1);
}

TEST_F(FreezeCommitPrepare, one_bad_pair_keeps_every_other_pair_from_being_split) {
    hdef *const h = object("datadg");
    device(h, "0001");
    device(h, "0002", 1);
    device(h, "0003");
    EXPECT_EQ(TimeFinder_freeze_commit(h), 11);
    EXPECT_EQ(array.calls_of("SymPdevShow").size(), 2U);
    EXPECT_TRUE(array.calls_of("SymDevListBcvControl").empty());
    EXPECT_EQ(prim_mir_info_size, 0);
}

TEST_F(FreezeCommitPrepare, a_failed_pass_can_be_tried_again) {
    hdef *const h = object("datadg");
    device(h, "0001", 1);
    EXPECT_EQ(TimeFinder_freeze_commit(h), 11);
    array.set_state(array_id, "0001", 2);
    EXPECT_EQ(TimeFinder_freeze_commit(h), 0);
    EXPECT_TRUE(logged("Total BCVs to split : 1"));
    EXPECT_EQ(freeze_commit_done, 1);
}

TEST_F(FreezeCommitPrepare, a_failed_refresh_in_prepare_is_reported) {
    hdef *const h = object("datadg");
    device(h, "0001");
    array.script("SymDevSync", {41});
    EXPECT_EQ(TimeFinder_freeze_commit(h), 11);
    expect_failure(3,
                   "emc_tf_split_prepare: SymAPI call to SymDevSync on device 0101 failed with "
                   "code 41 (array error 41)");
    EXPECT_EQ(whole_log(), std::string(errmsg) + "\nsplit_device failed\n");
    expect_uncommitted(1);
}

TEST_F(FreezeCommitPrepare, a_failed_show_in_prepare_is_reported) {
    hdef *const h = object("datadg");
    device(h, "0001");
    array.script("SymPdevShow", {42});
    EXPECT_EQ(TimeFinder_freeze_commit(h), 11);
    expect_failure(3,
                   "emc_tf_split_prepare: SymAPI call to SymPdevShow on device /dev/disk_1230001 "
                   "failed with code 42 (array error 42)");
    EXPECT_EQ(log_lines().back(), "split_device failed");
    expect_uncommitted(1);
}

TEST_F(FreezeCommitPrepare, a_bcv_that_is_gone_in_prepare_is_reported_by_the_lookup) {
    hdef *const h = object("datadg");
    device(h, "0001");
    array.device(array_id, "0001").record.bcv_count = 0;
    EXPECT_EQ(TimeFinder_freeze_commit(h), 11);
    expect_failure(10, "find_bcv_info: Cannot find BCV 0101 for disk 0001 in group DG");
    EXPECT_EQ(log_lines().back(), "split_device failed");
    expect_uncommitted(1);
}

class FreezeCommitLimit : public FreezeCommitTest {
  protected:
    // count synchronised pairs, named 0000 to 0FFF in hexadecimal; every one answers alike, so one
    // device of the array stands for all.
    hdef *object_of(int count) {
        hdef *const h = object("datadg");
        FakeDevice &primary = array.add_primary(array_id, "P", "/dev/disk_p");
        array.pair(primary, array.add_bcv(array_id, "0101", "/dev/sdq"), 2);
        array.on_call = [this](const std::string &line) {
            if (line.starts_with("SymDevListBcvControl")) array.set_state(array_id, "P", 5);
        };
        prim_mir_info **tail = &h->pminfo_list;
        for (int i = 0; i < count; ++i) {
            char name[12];
            snprintf(name, sizeof name, "%04X", static_cast<unsigned>(i));
            *tail = make_pm(array_id, name, "0101", "/dev/disk_p");
            tail = &(*tail)->next;
        }
        return h;
    }
};

TEST_F(FreezeCommitLimit, pairs_2046_are_split) {
    hdef *const h = object_of(2046);
    set_level(0);
    EXPECT_EQ(TimeFinder_freeze_commit(h), 0) << errmsg;
    EXPECT_TRUE(logged("Total BCVs to split : 2046"));
}

TEST_F(FreezeCommitLimit, pairs_2047_are_too_many_though_the_message_says_2048) {
    hdef *const h = object_of(2047);
    set_level(0);
    EXPECT_EQ(TimeFinder_freeze_commit(h), 11);
    expect_failure(7, "emc_tf_split_prepare: Too many devices : 2047 (max 2048)");
    EXPECT_EQ(log_lines().back(), errmsg);
    EXPECT_EQ(times_logged("split_device failed"), 0);
    EXPECT_TRUE(array.calls_of("SymDevListBcvControl").empty());
    EXPECT_EQ(freeze_commit_done, 0);
}

TEST_F(FreezeCommitLimit, five_thousand_pairs_stop_at_the_limit_inside_the_table) {
    hdef *const h = object_of(5000);
    set_level(0);
    EXPECT_EQ(TimeFinder_freeze_commit(h), 11);
    expect_failure(7, "emc_tf_split_prepare: Too many devices : 2047 (max 2048)");
    EXPECT_EQ(array.calls_of("SymPdevShow").size(), 2047U);
    EXPECT_EQ(primmirlist[2047], nullptr);
}

}  // namespace
