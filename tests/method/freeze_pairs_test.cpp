// The pairs of a freeze, with and without waiting, and how it ends.
#include "tests/method/freeze_fixture.h"

namespace {

using namespace test;

class FreezePairs : public FreezeTest {
  protected:
    FreezePairs() {
        mount_device("/dev/qz/dsk/datadg/vol1");
        add_pair("0002", "/dev/native_1");
        add_pair("0003", "/dev/native_2");
        clone_tool_answers(std::string(raw_disk) + "\n/dev/native_1\n/dev/native_2\n");
    }
    static constexpr const char *pairs_failed = "TimeFinder_freeze: find_all_bcv_pairs failed";

    // A failed freeze that holds locks comes back with its handle.
    void expect_handed_back() {
        ASSERT_NE(handle, nullptr);
        ASSERT_NE(handle, untouched);
        ASSERT_NE(dg_find("datadg"), nullptr);
        EXPECT_EQ(dg_find("datadg")->members->h, handle);
        EXPECT_EQ(handle->pminfo_list->lock_set, 1);
        EXPECT_EQ(client_count, 1);
    }
};

TEST_F(FreezePairs, every_device_gets_its_bcv_and_the_session_stays_open) {
    ASSERT_EQ(freeze(), 0) << errmsg;
    std::vector<std::string> bcvs;
    for (const prim_mir_info *pm = handle->pminfo_list; pm != nullptr; pm = pm->next) {
        bcvs.emplace_back(pm->bcvdev_sym_devname);
        EXPECT_EQ(pm->lock_set, 1);
    }
    EXPECT_EQ(bcvs, (std::vector<std::string>{"0101", "0102", "0103"}));
    EXPECT_TRUE(array.calls_of("SymExit").empty());
    EXPECT_EQ(array.calls.back(), "SymPrefsSet 1 0");
    EXPECT_EQ(sH, 7);
    EXPECT_EQ(total_freeze_volumes, 1);
}

TEST_F(FreezePairs, all_pairs_are_found_before_the_first_is_waited_for_again) {
    ASSERT_EQ(freeze(), 0) << errmsg;
    // One wait inside each discovery, one behind all of them.
    const std::vector<std::string> syncs = array.calls_of("SymDevSync");
    EXPECT_EQ(syncs, (std::vector<std::string>{
                         "SymDevSync 000184500123 0101 2 0", "SymDevSync 000184500123 0102 2 0",
                         "SymDevSync 000184500123 0103 2 0", "SymDevSync 000184500123 0101 2 0",
                         "SymDevSync 000184500123 0102 2 0", "SymDevSync 000184500123 0103 2 0"}));
}

TEST_F(FreezePairs, with_flag_1_it_waits_until_the_pair_is_synchronised) {
    array.set_state(array_id, "0002", 1);
    on_sleep([this](unsigned) { array.set_state(array_id, "0002", 2); });
    ASSERT_EQ(freeze(), 0) << errmsg;
    EXPECT_EQ(sleeps(), (std::vector<unsigned>{1}));
    on_sleep(nullptr);
}

TEST_F(FreezePairs, with_flag_3_nothing_is_waited_for_and_the_session_stays_open) {
    array.set_state(array_id, "0002", 1);
    ASSERT_EQ(freeze("sync_at_start=1", "/data", TF_FREEZE_NO_WAIT), 0) << errmsg;
    EXPECT_TRUE(sleeps().empty());
    EXPECT_TRUE(array.calls_of("SymDevSync").empty());
    EXPECT_TRUE(array.calls_of("SymPrefsSet").empty());
    EXPECT_TRUE(array.calls_of("SymExit").empty());
    EXPECT_EQ(sH, 7);
    EXPECT_EQ(total_freeze_volumes, 0);
    EXPECT_EQ(client_count, 1);
    EXPECT_EQ(prim_mir_info_size, 0);  // asked only: nothing is queued
    EXPECT_NE(handle, nullptr);
}

TEST_F(FreezePairs, with_flag_3_a_failure_is_returned_with_the_handle_and_the_session) {
    array.script_call("SymPdevSync", 2, 31);
    EXPECT_EQ(freeze(nullptr, "/data", TF_FREEZE_NO_WAIT), 11);
    expect_handed_back();
    EXPECT_EQ(log_lines().back(), pairs_failed);
    EXPECT_TRUE(array.calls_of("SymPrefsSet").empty());
    EXPECT_TRUE(array.calls_of("SymExit").empty());
    EXPECT_EQ(sH, 7);
    EXPECT_EQ(total_freeze_volumes, 0);
}

TEST_F(FreezePairs, the_first_device_without_a_pair_ends_the_walk_and_the_session) {
    array.device(array_id, "0002").record.bcv_count = 0;
    EXPECT_EQ(freeze(), 11);
    expect_failure(10, "find_bcv_pair: Device /dev/native_1 is not a member of a BCV pair");
    expect_handed_back();
    EXPECT_EQ(array.calls_of("SymPdevSync").size(), 2U);  // the third device was not asked for
    EXPECT_EQ(times_logged(pairs_failed), 1);
    EXPECT_EQ(times_logged("wait_for_establish failed"), 0);
    // No pair is waited for again; the preference is set all the same, and the session goes.
    const auto &calls = array.calls;
    ASSERT_GE(calls.size(), 2U);
    EXPECT_EQ(calls[calls.size() - 2], "SymPrefsSet 1 0");
    EXPECT_EQ(calls.back(), "SymExit 7 0");
    EXPECT_EQ(array.calls_of("SymDevSync").size(), 1U);
    EXPECT_EQ(log_lines().back(), "Waiting for SymExit...");
    EXPECT_EQ(sH, -1);
    EXPECT_EQ(total_freeze_volumes, 1);
}

TEST_F(FreezePairs, a_failed_wait_is_logged_and_ends_the_session) {
    array.script_call("SymDevSync", 5, 32);  // the second of the waits behind the discoveries
    EXPECT_EQ(freeze(), 11);
    expect_failure(3,
                   "wait_for_establish: SymAPI call to SymDevSync on device 0102 failed with code "
                   "32 (array error 32)");
    expect_handed_back();
    EXPECT_EQ(array.calls_of("SymDevSync").size(), 5U);
    EXPECT_EQ(times_logged("wait_for_establish failed"), 1);
    EXPECT_EQ(times_logged(pairs_failed), 1);
    EXPECT_EQ(sH, -1);
    EXPECT_EQ(total_freeze_volumes, 1);
}

TEST_F(FreezePairs, the_failure_lines_are_progress) {
    set_level(0);
    array.script_call("SymDevSync", 4, 32);
    EXPECT_EQ(freeze(), 11);
    EXPECT_EQ(whole_log(),
              "wait_for_establish: SymAPI call to SymDevSync on device 0101 failed with code 32 "
              "(array error 32)\n"
              "wait_for_establish failed\n"
              "TimeFinder_freeze: find_all_bcv_pairs failed\n");
}

TEST_F(FreezePairs, a_failed_preference_ends_the_session) {
    array.script("SymPrefsSet", {33});
    EXPECT_EQ(freeze(), 11);
    expect_failure(
        3, "TimeFinder_freeze: SymAPI call to SymPrefsSet failed with code 33 (array error 33)");
    expect_handed_back();
    EXPECT_EQ(times_logged(errmsg), 1);
    EXPECT_EQ(times_logged(pairs_failed), 0);
    EXPECT_EQ(array.calls.back(), "SymExit 7 0");
    EXPECT_EQ(sH, -1);
    EXPECT_EQ(total_freeze_volumes, 1);
}

TEST_F(FreezePairs, a_failed_end_of_the_session_is_the_message_that_stays) {
    array.script("SymPrefsSet", {33});
    array.script("SymExit", {34});
    EXPECT_EQ(freeze(), 11);
    expect_failure(
        3, "TimeFinder_freeze: SymAPI call to SymExit failed with code 34 (array error 34)");
    expect_handed_back();
    EXPECT_EQ(sH, -1);  // it counts as ended
    EXPECT_EQ(total_freeze_volumes, 1);
}

TEST_F(FreezePairs, behind_a_session_that_ended_no_further_one_is_started) {
    array.script("SymPrefsSet", {33});
    EXPECT_EQ(freeze(), 11);
    array.calls.clear();
    ASSERT_EQ(freeze(), 0) << errmsg;
    EXPECT_TRUE(array.calls_of("SymInitV").empty());
    EXPECT_EQ(sH, -1);
    EXPECT_EQ(client_count, 2);
    EXPECT_EQ(total_freeze_volumes, 2);
}

TEST_F(FreezePairs, pairs_to_be_resynchronised_are_queued) {
    for (const char *name : {"0001", "0002", "0003"}) array.set_state(array_id, name, 5);
    ASSERT_EQ(freeze("sync_at_start=1"), 0) << errmsg;
    EXPECT_EQ(prim_mir_info_size, 3);
    EXPECT_EQ(primmirlist[0], handle->pminfo_list);
}

}  // namespace
