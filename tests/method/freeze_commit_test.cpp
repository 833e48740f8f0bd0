// The freeze commit as a whole: its arguments, the order of its work, its end.
#include "tests/method/freeze_commit_fixture.h"

namespace {

using namespace test;

class FreezeCommit : public FreezeCommitTest {};

TEST_F(FreezeCommit, a_null_handle_is_named) {
    EXPECT_EQ(TimeFinder_freeze_commit(nullptr), 11);
    expect_failure(7, "TimeFinder_freeze_commit: A required parameter is NULL: fih");
    EXPECT_EQ(freeze_commit_done, 0);
}

TEST_F(FreezeCommit, an_object_without_devices_is_refused) {
    hdef *const h = object_without_devices();
    EXPECT_EQ(TimeFinder_freeze_commit(h), 11);
    expect_failure(7, "TimeFinder_freeze_commit: No device information");
    expect_uncommitted(1);
    EXPECT_TRUE(array.calls.empty());
}

TEST_F(FreezeCommit, an_imported_object_without_devices_is_done_but_does_not_commit) {
    hdef *const h = object_without_devices();
    h->dgimport = 1;
    EXPECT_EQ(TimeFinder_freeze_commit(h), 0);
    expect_no_failure();
    expect_uncommitted(1);
    EXPECT_TRUE(array.calls.empty());
}

TEST_F(FreezeCommit, one_pair_is_refreshed_shown_split_and_awaited_in_this_order) {
    hdef *const h = object("datadg");
    prim_mir_info *const pm = device(h, "0001");
    EXPECT_EQ(TimeFinder_freeze_commit(h), 0) << errmsg;
    EXPECT_EQ(
        array.calls,
        (std::vector<std::string>{
            "SymDevSync 000184500123 0101 2 0", "SymPdevShow /dev/disk_1230001",
            "SymDevListBcvControl 000184500123 1 [0001] [0101] action 2 option 0x400800 0",
            "SymDevSync 000184500123 0101 2 0", "SymPdevShow /dev/disk_1230001", "SymExit 7 0"}));
    EXPECT_EQ(pm->sync_at_end, 1);
    EXPECT_EQ(freeze_commit_done, 1);
    EXPECT_EQ(client_count, 0);
    EXPECT_EQ(sH, -1);
    EXPECT_TRUE(sleeps().empty());
    expect_no_failure();
}

TEST_F(FreezeCommit, the_whole_log_at_level_0) {
    set_level(0);
    hdef *const h = object("datadg");
    device(h, "0001");
    EXPECT_EQ(TimeFinder_freeze_commit(h), 0);
    EXPECT_EQ(whole_log(),
              "Adding <0001, 0101> to split list\n"
              "Total BCVs to split : 1\n"
              "Split started ...\n"
              "Split end\n");
}

TEST_F(FreezeCommit, the_traces_at_level_2) {
    hdef *const h = object("datadg");
    device(h, "0001");
    EXPECT_EQ(TimeFinder_freeze_commit(h), 0);
    EXPECT_EQ(log_lines().front(),
              "emc_tf_split_prepare: calling SymPdevShow with disk /dev/disk_1230001");
    EXPECT_EQ(log_lines().back(), "Waiting for SymExit...");
    const auto waits = lines_from("Split end");
    ASSERT_GE(waits.size(), 2U);
    EXPECT_EQ(waits[1], "...Waiting for split to finish...");
    EXPECT_TRUE(logged("...Finished"));
}

TEST_F(FreezeCommit, before_version_5_the_option_word_is_the_old_one) {
    emc_tf_SymVersion = 0x04FF;
    hdef *const h = object("datadg");
    device(h, "0001");
    EXPECT_EQ(TimeFinder_freeze_commit(h), 0);
    EXPECT_EQ(array.calls_of("SymDevListBcvControl")[0],
              "SymDevListBcvControl 000184500123 1 [0001] [0101] action 2 option 0x800 0");
}

TEST_F(FreezeCommit, the_second_call_returns_0_without_touching_the_array) {
    hdef *const h = object("datadg");
    device(h, "0001");
    EXPECT_EQ(TimeFinder_freeze_commit(h), 0);
    array.calls.clear();
    log_lines().clear();
    EXPECT_EQ(TimeFinder_freeze_commit(h), 0);
    EXPECT_EQ(TimeFinder_freeze_commit(nullptr), 0);
    EXPECT_TRUE(array.calls.empty());
    EXPECT_EQ(whole_log(), "");
    EXPECT_EQ(client_count, 0);
}

TEST_F(FreezeCommit, with_several_objects_the_session_stays_for_the_others) {
    hdef *const first = object("a");
    device(first, "0001");
    hdef *const second = object("b");
    device(second, "0002");
    EXPECT_EQ(TimeFinder_freeze_commit(first), 0);
    EXPECT_EQ(freeze_commit_done, 1);
    EXPECT_EQ(client_count, 1);
    EXPECT_EQ(sH, 7);
    EXPECT_TRUE(array.calls_of("SymExit").empty());
    EXPECT_FALSE(logged("Waiting for SymExit..."));
}

TEST_F(FreezeCommit, a_count_that_falls_below_0_ends_no_session) {
    hdef *const h = object("datadg");
    device(h, "0001");
    client_count = 0;  // a rebuilt object was never counted
    EXPECT_EQ(TimeFinder_freeze_commit(h), 0);
    EXPECT_EQ(client_count, -1);
    EXPECT_TRUE(array.calls_of("SymExit").empty());
    EXPECT_EQ(sH, 7);
}

TEST_F(FreezeCommit, each_array_gets_one_call_and_the_waits_follow_the_sorted_table) {
    hdef *const h = object("datadg");
    device(h, "0001", 2, other_array);
    device(h, "0002");
    device(h, "0003", 2, other_array);
    EXPECT_EQ(TimeFinder_freeze_commit(h), 0);
    const auto controls = array.calls_of("SymDevListBcvControl");
    ASSERT_EQ(controls.size(), 2U);
    EXPECT_TRUE(controls[0].starts_with("SymDevListBcvControl 000184500123 1 [0002]"));
    EXPECT_TRUE(controls[1].starts_with("SymDevListBcvControl 000184500999 2 "));
    const auto shows = array.calls_of("SymPdevShow");
    ASSERT_EQ(shows.size(), 6U);
    EXPECT_EQ(shows[3], "SymPdevShow /dev/disk_1230002");
}

TEST_F(FreezeCommit, an_empty_split_list_still_commits_and_ends_the_session) {
    hdef *const h = object("datadg");
    device(h, "0001", 5)->issplit = 1;
    EXPECT_EQ(TimeFinder_freeze_commit(h), 0);
    EXPECT_EQ(freeze_commit_done, 1);
    EXPECT_EQ(client_count, 0);
    EXPECT_EQ(array.calls.back(), "SymExit 7 0");
    EXPECT_EQ(sH, -1);
}

TEST_F(FreezeCommit, a_session_that_does_not_end_fails_the_call_but_the_pass_is_done) {
    hdef *const h = object("datadg");
    device(h, "0001");
    tf::make_capture_files(h);
    array.script("SymExit", {46});
    EXPECT_EQ(TimeFinder_freeze_commit(h), 11);
    expect_failure(
        3, "TimeFinder_freeze_commit: SymAPI call to SymExit failed with code 46 (array error 46)");
    EXPECT_EQ(freeze_commit_done, 1);
    EXPECT_EQ(client_count, 0);
    EXPECT_EQ(sH, -1);  // it counts as ended
    EXPECT_FALSE(exists(h->out_file));
    EXPECT_FALSE(exists(h->err_file));
    EXPECT_EQ(TimeFinder_freeze_commit(h), 0);
}

TEST_F(FreezeCommit, the_handles_capture_files_are_removed_behind_a_good_pass) {
    hdef *const h = object("datadg");
    device(h, "0001");
    tf::make_capture_files(h);
    const std::string out = h->out_file, err = h->err_file;
    ASSERT_TRUE(exists(out) && exists(err));
    array.on_call = [&](const std::string &line) {
        if (line.starts_with("SymExit")) {
            EXPECT_TRUE(exists(out) && exists(err));
        }
    };
    EXPECT_EQ(TimeFinder_freeze_commit(h), 0);
    EXPECT_FALSE(exists(out));
    EXPECT_FALSE(exists(err));
    EXPECT_EQ(h->out_file, out);
}

TEST_F(FreezeCommit, a_failed_pass_leaves_the_capture_files) {
    hdef *const h = object("datadg");
    device(h, "0001", 1);
    tf::make_capture_files(h);
    EXPECT_EQ(TimeFinder_freeze_commit(h), 11);
    EXPECT_TRUE(exists(h->out_file));
    EXPECT_TRUE(exists(h->err_file));
    tf::remove_capture_files(h);
}

TEST_F(FreezeCommit, a_lonely_capture_file_stays) {
    hdef *const h = object("datadg");
    device(h, "0001");
    tf::make_capture_files(h);
    unlink(h->err_file);
    free(h->err_file);
    h->err_file = nullptr;
    EXPECT_EQ(TimeFinder_freeze_commit(h), 0);
    EXPECT_TRUE(exists(h->out_file));
    unlink(h->out_file);
}

TEST_F(FreezeCommit, an_earlier_queue_is_cleared_and_stays_empty) {
    hdef *const h = object("datadg");
    device(h, "0001");
    for (prim_mir_info *&slot : primmirlist) slot = h->pminfo_list;
    prim_mir_info_size = 5;
    EXPECT_EQ(TimeFinder_freeze_commit(h), 0);
    EXPECT_TRUE(logged("Total BCVs to split : 1"));
    EXPECT_EQ(primmirlist[0], h->pminfo_list);
    EXPECT_EQ(primmirlist[1], nullptr);
    EXPECT_EQ(primmirlist[2047], nullptr);
    EXPECT_EQ(prim_mir_info_size, 0);
}

}  // namespace
