// The split of everything that a process has frozen.
#include "method/freeze_commit.h"

#include "tests/method/freeze_fixture.h"

namespace {

using namespace test;

constexpr char other_array[] = "000184500999";

class FreezeCommit : public Method {
  protected:
    ~FreezeCommit() override { on_sleep(nullptr); }

    // An object as freeze leaves it, entered in its disk group.
    static hdef *object(const char *group) {
        hdef *const h = tf::make_zeroed<hdef>();
        tf::put(h->vol_group, group);
        h->is_vol = 1;
        EXPECT_EQ(dg_insert(h), 0);
        ++client_count;
        return h;
    }
    static hdef *object_without_devices() {
        hdef *const h = object("datadg");
        return h;
    }
    // One more device at the end of an object's list, known to the array under its own path.
    prim_mir_info *device(hdef *h, const std::string &name, long state = 2,
                          const char *symid = array_id) {
        const std::string bcv_name = "01" + name.substr(2);
        const std::string path = "/dev/disk_" + std::string(symid).substr(9) + name;
        FakeDevice &bcv = array.add_bcv(symid, bcv_name, "/dev/sdq");
        FakeDevice &primary = array.add_primary(symid, name, path);
        primary.record.bcv_count = 0;
        array.pair(primary, bcv, state);
        prim_mir_info *const pm = make_pm(symid, name.c_str(), bcv_name.c_str(), path.c_str());
        prim_mir_info **link = &h->pminfo_list;
        while (*link != nullptr) link = &(*link)->next;
        *link = pm;
        return pm;
    }
    static void expect_uncommitted(int32_t clients) {
        EXPECT_EQ(freeze_commit_done, 0);
        EXPECT_EQ(client_count, clients);
        EXPECT_EQ(sH, 7);
    }
    static std::vector<std::string> lines_from(const std::string &first) {
        const auto &lines = log_lines();
        return {std::find(lines.begin(), lines.end(), first), lines.end()};
    }

    FakeArray array;
};

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

TEST_F(FreezeCommit, the_newest_group_and_object_go_first) {
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

TEST_F(FreezeCommit, a_restored_pair_is_split_like_a_synchronised_one) {
    hdef *const h = object("datadg");
    device(h, "0001", 8);
    EXPECT_EQ(TimeFinder_freeze_commit(h), 0);
    EXPECT_TRUE(logged("Adding <0001, 0101> to split list"));
}

TEST_F(FreezeCommit, a_primary_of_two_objects_is_split_once) {
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

TEST_F(FreezeCommit, equal_names_on_two_arrays_count_as_one_device) {
    hdef *const h = object("datadg");
    device(h, "0001");
    device(h, "0001", 2, other_array);
    EXPECT_EQ(TimeFinder_freeze_commit(h), 0);
    EXPECT_TRUE(logged("Total BCVs to split : 1"));
    EXPECT_EQ(array.state(other_array, "0001"), 2);
}

TEST_F(FreezeCommit, a_pair_split_for_the_group_before_is_passed_over) {
    hdef *const h = object("datadg");
    prim_mir_info *const pm = device(h, "0001", 5);
    pm->issplit = 1;
    EXPECT_EQ(TimeFinder_freeze_commit(h), 0) << errmsg;
    EXPECT_TRUE(logged("Device /dev/disk_1230001 has already been split"));
    EXPECT_TRUE(array.calls_of("SymDevListBcvControl").empty());
    EXPECT_FALSE(logged("Total BCVs to split : 0"));
    EXPECT_EQ(pm->sync_at_end, 0);
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

TEST_F(FreezeCommit, a_pair_in_state_5_that_nobody_split_fails) {
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

TEST_F(FreezeCommit, every_other_state_fails_and_shows_itself) {
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

TEST_F(FreezeCommit, one_bad_pair_keeps_every_other_pair_from_being_split) {
    hdef *const h = object("datadg");
    device(h, "0001");
    device(h, "0002", 1);
    device(h, "0003");
    EXPECT_EQ(TimeFinder_freeze_commit(h), 11);
    EXPECT_EQ(array.calls_of("SymPdevShow").size(), 2U);
    EXPECT_TRUE(array.calls_of("SymDevListBcvControl").empty());
    EXPECT_EQ(prim_mir_info_size, 0);
}

TEST_F(FreezeCommit, a_failed_pass_can_be_tried_again) {
    hdef *const h = object("datadg");
    device(h, "0001", 1);
    EXPECT_EQ(TimeFinder_freeze_commit(h), 11);
    array.set_state(array_id, "0001", 2);
    EXPECT_EQ(TimeFinder_freeze_commit(h), 0);
    EXPECT_TRUE(logged("Total BCVs to split : 1"));
    EXPECT_EQ(freeze_commit_done, 1);
}

TEST_F(FreezeCommit, a_failed_refresh_in_prepare_is_reported) {
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

TEST_F(FreezeCommit, a_failed_show_in_prepare_is_reported) {
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

TEST_F(FreezeCommit, a_bcv_that_is_gone_in_prepare_is_reported_by_the_lookup) {
    hdef *const h = object("datadg");
    device(h, "0001");
    array.device(array_id, "0001").record.bcv_count = 0;
    EXPECT_EQ(TimeFinder_freeze_commit(h), 11);
    expect_failure(10, "find_bcv_info: Cannot find BCV 0101 for disk 0001 in group DG");
    EXPECT_EQ(log_lines().back(), "split_device failed");
    expect_uncommitted(1);
}

TEST_F(FreezeCommit, a_failed_split_call_is_reported_but_the_waits_decide) {
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

TEST_F(FreezeCommit, a_failed_split_call_without_effect_fails_in_the_waits) {
    hdef *const h = object("datadg");
    prim_mir_info *const pm = device(h, "0001");
    array.script("SymDevListBcvControl", {43});
    EXPECT_EQ(TimeFinder_freeze_commit(h), 11);
    expect_failure(13, "emc_tf_wait_for_split: Cannot split device /dev/disk_1230001: state: 2");
    EXPECT_EQ(pm->sync_at_end, 1);
    expect_uncommitted(1);
}

TEST_F(FreezeCommit, a_pair_that_stays_synchronised_is_asked_7_times_10_seconds_apart) {
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

TEST_F(FreezeCommit, a_pair_that_splits_after_6_retries_is_good) {
    hdef *const h = object("datadg");
    device(h, "0001");
    array.state_after_action[2] = 8;
    on_sleep([this](unsigned) {
        if (sleeps().size() == 6) array.set_state(array_id, "0001", 5);
    });
    EXPECT_EQ(TimeFinder_freeze_commit(h), 0) << errmsg;
    EXPECT_EQ(sleeps(), std::vector<unsigned>(6, 10));
}

TEST_F(FreezeCommit, a_split_in_progress_is_polled_every_second_without_limit) {
    hdef *const h = object("datadg");
    device(h, "0001");
    array.state_after_action[2] = 3;
    on_sleep([this](unsigned) {
        if (sleeps().size() == 500) array.set_state(array_id, "0001", 5);
    });
    EXPECT_EQ(TimeFinder_freeze_commit(h), 0) << errmsg;
    EXPECT_EQ(sleeps(), std::vector<unsigned>(500, 1));
}

TEST_F(FreezeCommit, polls_do_not_use_up_the_retries) {
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

TEST_F(FreezeCommit, every_pair_has_its_own_retries) {
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

TEST_F(FreezeCommit, the_waits_traces_belong_to_level_2) {
    set_level(1);
    hdef *const h = object("datadg");
    device(h, "0001");
    EXPECT_EQ(TimeFinder_freeze_commit(h), 0);
    EXPECT_FALSE(logged("...Waiting for split to finish..."));
    EXPECT_FALSE(logged("...Finished"));
    EXPECT_FALSE(logged("Waiting for SymExit..."));
}

TEST_F(FreezeCommit, a_failed_refresh_in_the_waits_is_reported) {
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

TEST_F(FreezeCommit, a_failed_show_in_the_waits_is_reported) {
    hdef *const h = object("datadg");
    device(h, "0001");
    array.script_call("SymPdevShow", 2, 45);
    EXPECT_EQ(TimeFinder_freeze_commit(h), 11);
    expect_failure(3,
                   "emc_tf_wait_for_split: SymAPI call to SymPdevShow on device /dev/disk_1230001 "
                   "failed with code 45 (array error 45)");
    expect_uncommitted(1);
}

TEST_F(FreezeCommit, a_bcv_that_is_gone_in_the_waits_is_reported_by_the_lookup) {
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

TEST_F(FreezeCommit, a_session_that_does_not_end_fails_the_call_but_the_pass_is_done) {
    hdef *const h = object("datadg");
    device(h, "0001");
    array.script("SymExit", {46});
    EXPECT_EQ(TimeFinder_freeze_commit(h), 11);
    expect_failure(
        3, "TimeFinder_freeze_commit: SymAPI call to SymExit failed with code 46 (array error 46)");
    EXPECT_EQ(freeze_commit_done, 1);
    EXPECT_EQ(client_count, 0);
    EXPECT_EQ(sH, -1);  // it counts as ended
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

class FreezeCommitLimit : public FreezeCommit {
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
