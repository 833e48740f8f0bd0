#include "include/timefinder.h"
#include "method/pair_index.h"
#include "method/text.h"
#include "symapi/symapi_session.h"
#include "tests/support/fake_array.h"
#include "tests/support/method_fixture.h"
#include "tests/support/sleeps.h"

namespace test {
namespace {

using Calls = std::vector<std::string>;

class Control : public Method {
  protected:
    Control() {
        sleeps().clear();
        tf::clear_pairs();
    }
    ~Control() override {
        tf::clear_pairs();
        for (prim_mir_info *pm : pairs) free(pm);
        free(h);
    }

    // A pair of an array, queued by discovery, in the given state.
    void queue(const std::string &symid, const std::string &primary, const std::string &bcv,
               long state = 5) {
        const std::string path = "/dev/emcpower" + primary;
        FakeDevice &device = array.add_primary(symid, primary, path);
        array.pair(device, array.add_bcv(symid, bcv, "/dev/b" + bcv), state);
        pairs.push_back(make_pm(symid.c_str(), primary.c_str(), bcv.c_str(), path.c_str()));
        prim_mir_info_size = tf::append_pair(pairs.back(), prim_mir_info_size);
    }

    FakeArray array;
    std::vector<prim_mir_info *> pairs;
    hdef *h = tf::make_zeroed<hdef>();
};

TEST_F(Control, a_code_below_1_is_rejected) {
    EXPECT_EQ(TimeFinder_ctl(h, 0), 11);
    expect_failure(7, "TimeFinder_ctl: Invalid parameter value: cmd=0");
    EXPECT_EQ(TimeFinder_ctl(h, -7), 11);
    expect_failure(7, "TimeFinder_ctl: Invalid parameter value: cmd=-7");
}

TEST_F(Control, a_code_above_4_is_rejected_and_logged_at_level_0) {
    set_level(0);
    EXPECT_EQ(TimeFinder_ctl(h, 5), 11);
    expect_failure(7, "TimeFinder_ctl: Invalid parameter value: cmd=5");
    EXPECT_EQ(whole_log(), "TimeFinder_ctl: Invalid parameter value: cmd=5\n");
}

TEST_F(Control, a_rejected_code_leaves_the_queue_alone) {
    queue("000000000001", "0001", "0101");
    EXPECT_EQ(TimeFinder_ctl(h, 5), 11);
    EXPECT_EQ(prim_mir_info_size, 1);
    EXPECT_TRUE(array.calls.empty());
}

TEST_F(Control, codes_1_to_3_do_nothing) {
    queue("000000000001", "0001", "0101");
    for (const int32_t code : {1, 2, 3}) EXPECT_EQ(TimeFinder_ctl(h, code), 0);
    EXPECT_EQ(prim_mir_info_size, 1);
    EXPECT_TRUE(array.calls.empty());
    EXPECT_EQ(whole_log(), "");
    expect_no_failure();
}

TEST_F(Control, a_missing_object_is_reported_behind_the_code) {
    EXPECT_EQ(TimeFinder_ctl(nullptr, 4), 11);
    expect_failure(7, "TimeFinder_ctl: A required parameter is NULL: fih");
    EXPECT_EQ(TimeFinder_ctl(nullptr, 5), 11);
    expect_failure(7, "TimeFinder_ctl: Invalid parameter value: cmd=5");
}

TEST_F(Control, codes_1_to_3_need_an_object_too) {
    for (const int32_t code : {1, 2, 3}) {
        errnum = 0;
        errmsg[0] = logmsg[0] = '\0';
        EXPECT_EQ(TimeFinder_ctl(nullptr, code), 11) << code;
        expect_failure(7, "TimeFinder_ctl: A required parameter is NULL: fih");
    }
}

TEST_F(Control, code_4_with_an_empty_queue_asks_the_array_nothing) {
    EXPECT_EQ(TimeFinder_ctl(h, 4), 0);
    EXPECT_TRUE(array.calls.empty());
    EXPECT_EQ(prim_mir_info_size, 0);
    EXPECT_EQ(whole_log(), "");
}

TEST_F(Control, code_4_controls_each_array_once_and_waits_for_every_pair_in_the_sorted_order) {
    queue("000000000002", "0001", "0101");
    queue("000000000001", "0002", "0102");
    EXPECT_EQ(TimeFinder_ctl(h, 4), 0);
    EXPECT_EQ(array.calls,
              (Calls{"SymDevListBcvControl 000000000001 1 [0002] [0102] action 3 option 0x400000 0",
                     "SymDevListBcvControl 000000000002 1 [0001] [0101] action 3 option 0x400000 0",
                     "SymDevSync 000000000001 0102 2 0", "SymPdevShow /dev/emcpower0002",
                     "SymDevSync 000000000002 0101 2 0", "SymPdevShow /dev/emcpower0001"}));
    EXPECT_EQ(prim_mir_info_size, 0);
    expect_no_failure();
}

TEST_F(Control, code_4_logs_its_progress_at_level_0) {
    set_level(0);
    queue("000000000001", "0001", "0101");
    queue("000000000001", "0002", "0102");
    EXPECT_EQ(TimeFinder_ctl(h, 4), 0);
    EXPECT_EQ(whole_log(),
              "Total BCVs to resync at start : 2\n"
              "resync started ...\n"
              "resync end\n");
}

TEST_F(Control, a_release_before_5_gets_no_option) {
    emc_tf_SymVersion = 0x04ff;
    queue("000000000001", "0001", "0101");
    EXPECT_EQ(TimeFinder_ctl(h, 4), 0);
    EXPECT_EQ(array.calls[0],
              "SymDevListBcvControl 000000000001 1 [0001] [0101] action 3 option 0x0 0");
}

TEST_F(Control, waits_until_the_pairs_have_left_synchronisation) {
    array.state_after_action[3] = 1;
    queue("000000000001", "0001", "0101");
    on_sleep([this](unsigned) { array.set_state("000000000001", "0001", 2); });
    EXPECT_EQ(TimeFinder_ctl(h, 4), 0);
    EXPECT_EQ(sleeps(), std::vector<unsigned>{1});
    on_sleep(nullptr);
}

TEST_F(Control, a_failed_control_call_is_lost_when_the_waits_end_well) {
    set_level(0);
    queue("000000000001", "0001", "0101");
    array.script("SymDevListBcvControl", {9});
    EXPECT_EQ(TimeFinder_ctl(h, 4), 0);
    EXPECT_EQ(errnum, 7) << "reported all the same";
    EXPECT_EQ(array.calls_of("SymPdevShow").size(), 1U);
    EXPECT_EQ(prim_mir_info_size, 0);
    EXPECT_EQ(log_lines().size(), 4U);
    EXPECT_EQ(log_lines()[3], "resync end");
}

TEST_F(Control, the_first_failed_wait_ends_it_and_the_queue_is_consumed) {
    set_level(0);
    queue("000000000001", "0001", "0101");
    queue("000000000002", "0002", "0102");
    array.script("SymDevSync", {9});
    EXPECT_EQ(TimeFinder_ctl(h, 4), 11);
    expect_failure(3,
                   "wait_for_establish: SymAPI call to SymDevSync on device 0101 failed with code "
                   "9 (array error 9)");
    EXPECT_EQ(log_lines().back(), "wait_for_establish failed");
    EXPECT_EQ(array.calls_of("SymDevSync").size(), 1U);
    EXPECT_EQ(prim_mir_info_size, 0);
}

TEST_F(Control, a_mirror_that_is_gone_behind_the_control_call_fails_its_wait) {
    set_level(0);
    queue("000000000001", "0001", "0101");
    queue("000000000002", "0002", "0102");
    array.on_call = [this](const std::string &line) {
        if (!line.starts_with("SymDevListBcvControl 000000000001 ")) return;
        array.device("000000000001", "0001").record.bcv_count = 0;
    };
    EXPECT_EQ(TimeFinder_ctl(h, 4), 11);
    expect_failure(10, "find_bcv_info: Cannot find BCV 0101 for disk 0001 in group DG");
    EXPECT_EQ(log_lines().back(), "wait_for_establish failed");
    EXPECT_EQ(array.calls_of("SymDevListBcvControl").size(), 2U);
    EXPECT_EQ(array.calls_of("SymDevSync").size(), 1U);
    EXPECT_EQ(prim_mir_info_size, 0);
}

TEST_F(Control, a_second_request_without_a_new_freeze_does_nothing) {
    queue("000000000001", "0001", "0101");
    EXPECT_EQ(TimeFinder_ctl(h, 4), 0);
    array.calls.clear();
    EXPECT_EQ(TimeFinder_ctl(h, 4), 0);
    EXPECT_TRUE(array.calls.empty());
}

TEST_F(Control, a_count_beyond_the_table_is_not_followed) {
    queue("000000000001", "0001", "0101");
    for (int i = 1; i < TF_PRIMMIRLIST_SIZE + 10; ++i) {
        prim_mir_info_size = tf::append_pair(pairs[0], prim_mir_info_size);
    }
    EXPECT_EQ(prim_mir_info_size, 2058);
    EXPECT_EQ(TimeFinder_ctl(h, 4), 0);
    EXPECT_TRUE(logged("Total BCVs to resync at start : 2058"));
    EXPECT_EQ(array.calls_of("SymDevSync").size(), 2048U);
    EXPECT_EQ(prim_mir_info_size, 0);
}

}  // namespace
}  // namespace test
