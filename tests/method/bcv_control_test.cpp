#include "method/bcv_control.h"

#include <malloc.h>

#include "method/text.h"
#include "symapi/symapi_session.h"
#include "symapi/symapi_wrappers.h"
#include "tests/support/allocation_faults.h"
#include "tests/support/fake_array.h"
#include "tests/support/method_fixture.h"
#include "tests/support/sleeps.h"

namespace test {
namespace {

using Calls = std::vector<std::string>;

class BcvControl : public Method {
  protected:
    BcvControl() { sleeps().clear(); }
    ~BcvControl() override {
        on_sleep(nullptr);
        for (prim_mir_info *pm : pairs) free(pm);
    }

    // A pair of an array, in the order in which the pairs are queued.
    void queue(const char *symid, const char *primary, const char *bcv) {
        pairs.push_back(make_pm(symid, primary, bcv, "/dev/p"));
        list.push_back(pairs.back());
    }
    int32_t control(int32_t action, uint32_t option) {
        return emc_tf_bcv_control_all(action, option, static_cast<int32_t>(list.size()),
                                      list.data());
    }

    FakeArray array;
    std::vector<prim_mir_info *> pairs, list;
};

TEST_F(BcvControl, one_pair_is_one_call_with_a_list_of_one) {
    queue("000000000001", "0001", "0101");
    EXPECT_EQ(control(2, 0x400800), 0);
    EXPECT_EQ(array.calls, Calls{"SymDevListBcvControl 000000000001 1 [0001] [0101] action 2 "
                                 "option 0x400800 0"});
    expect_no_failure();
    EXPECT_EQ(whole_log(), "");
}

TEST_F(BcvControl, three_arrays_in_mixed_order_are_three_calls_in_the_sorted_order) {
    queue("000000000003", "0001", "0101");
    queue("000000000001", "0002", "0102");
    queue("000000000002", "0003", "0103");
    queue("000000000001", "0004", "0104");
    queue("000000000003", "0005", "0105");
    queue("000000000001", "0006", "0106");
    EXPECT_EQ(control(3, 0x400000), 0);
    EXPECT_EQ(array.calls,
              (Calls{"SymDevListBcvControl 000000000001 3 [0002,0004,0006] [0102,0104,0106] "
                     "action 3 option 0x400000 0",
                     "SymDevListBcvControl 000000000002 1 [0003] [0103] action 3 option 0x400000 0",
                     "SymDevListBcvControl 000000000003 2 [0001,0005] [0101,0105] action 3 "
                     "option 0x400000 0"}));
}

TEST_F(BcvControl, the_callers_table_is_sorted_in_place) {
    queue("000000000002", "0001", "0101");
    queue("000000000001", "0002", "0102");
    EXPECT_EQ(control(2, 0), 0);
    EXPECT_EQ(list, (std::vector<prim_mir_info *>{pairs[1], pairs[0]}));
}

TEST_F(BcvControl, an_empty_batch_is_no_call) {
    EXPECT_EQ(control(2, 0), 0);
    EXPECT_EQ(emc_tf_bcv_control_all(2, 0, 0, nullptr), 0);
    EXPECT_TRUE(array.calls.empty());
}

TEST_F(BcvControl, the_open_session_is_used) {
    static int32_t used;
    p_emc_tf_SymDevListBcvControl = [](int32_t handle, const char *, int, const char *const *,
                                       const char *const *, int, int, int) {
        used = handle;
        return 0;
    };
    queue("000000000001", "0001", "0101");
    EXPECT_EQ(control(2, 0), 0);
    EXPECT_EQ(used, 7);
}

TEST_F(BcvControl, a_split_in_the_background_is_waited_for_in_steps_of_ten_seconds) {
    queue("000000000001", "0001", "0101");
    array.script("SymDevListBcvControl", {1012, 1012});
    EXPECT_EQ(control(3, 0x400000), 0);
    EXPECT_EQ(sleeps(), (std::vector<unsigned>{10, 10}));
    EXPECT_EQ(array.calls.size(), 3U);
    EXPECT_EQ(array.calls[0], array.calls[2]) << "the very same call";
    EXPECT_EQ(whole_log(),
              "Waiting split in background to finish\n"
              "Waiting split in background to finish\n");
    expect_no_failure();
}

TEST_F(BcvControl, code_1013_is_waited_for_as_well_and_announced_at_level_0) {
    set_level(0);
    queue("000000000001", "0001", "0101");
    array.script("SymDevListBcvControl", {1013, 1012});
    EXPECT_EQ(control(3, 0), 0);
    EXPECT_EQ(times_logged("Waiting split in background to finish"), 2);
}

TEST_F(BcvControl, the_wait_for_a_background_split_has_no_limit) {
    queue("000000000001", "0001", "0101");
    array.script("SymDevListBcvControl", std::vector<int>(2000, 1012));
    EXPECT_EQ(control(3, 0), 0);
    EXPECT_EQ(sleeps().size(), 2000U);
}

TEST_F(BcvControl, a_failure_after_the_wait_is_a_failure) {
    queue("000000000001", "0001", "0101");
    array.script("SymDevListBcvControl", {1012, 9});
    EXPECT_EQ(control(3, 0), 11);
    EXPECT_EQ(sleeps().size(), 1U);
}

TEST_F(BcvControl, a_failure_on_the_first_array_leaves_the_second_one_untouched) {
    queue("000000000002", "0001", "0101");
    queue("000000000001", "0002", "0102");
    array.script("SymDevListBcvControl", {9});
    EXPECT_EQ(control(5, 0), 11);
    EXPECT_EQ(array.calls,
              Calls{"SymDevListBcvControl 000000000001 1 [0002] [0102] action 5 option 0x0 0"});
    EXPECT_TRUE(sleeps().empty());
}

TEST_F(BcvControl, a_failed_split_is_reported_with_the_words_to_establish) {
    queue("000000000001", "0001", "0101");
    array.script("SymDevListBcvControl", {9});
    EXPECT_EQ(control(2, 0x800), 11);
    expect_failure(7,
                   "emc_tf_bcv_control_all: SymAPI call to SymDevListBcvControl to establish BCV "
                   "failed with code: 9 (array error 9)");
    EXPECT_EQ(log_lines().size(), 1U);
}

TEST_F(BcvControl, codes_beside_those_of_a_background_split_are_failures) {
    for (const int code : {1011, 1014, -1}) {
        list.clear();
        queue("000000000001", "0001", "0101");
        array.script("SymDevListBcvControl", {code});
        EXPECT_EQ(control(2, 0), 11) << code;
    }
}

TEST_F(BcvControl, a_full_table_on_one_array_has_room_for_its_null_slot) {
    for (int i = 0; i < TF_PRIMMIRLIST_SIZE; ++i) queue("000000000001", "0001", "0101");
    EXPECT_EQ(control(2, 0), 0);
    ASSERT_EQ(array.calls.size(), 1U);
    EXPECT_TRUE(array.calls[0].starts_with("SymDevListBcvControl 000000000001 2048 [0001,0001,"));
    EXPECT_EQ(array.calls[0].find("no null slot"), std::string::npos);
}

TEST_F(BcvControl, two_thousand_pairs_on_three_arrays_are_three_calls) {
    for (int i = 0; i < 2046; ++i) {
        const std::string symid = "00000000000" + std::to_string(i % 3);
        queue(symid.c_str(), "0001", "0101");
    }
    EXPECT_EQ(control(2, 0), 0);
    EXPECT_EQ(array.calls.size(), 3U);
}

TEST_F(BcvControl, nothing_is_left_allocated) {
    queue("000000000001", "0001", "0101");
    queue("000000000002", "0002", "0102");
    p_emc_tf_SymDevListBcvControl = [](int32_t, const char *, int, const char *const *,
                                       const char *const *, int, int, int) { return 9; };
    set_level(-1);
    EXPECT_EQ(control(2, 0), 11);
    // malloc counts what it holds back for reuse, so only what grows with the calls is a leak.
    const size_t before = mallinfo2().uordblks;
    for (int i = 0; i < 1000; ++i) EXPECT_EQ(control(2, 0), 11);
    p_emc_tf_SymDevListBcvControl = [](int32_t, const char *, int, const char *const *,
                                       const char *const *, int, int, int) { return 0; };
    for (int i = 0; i < 1000; ++i) EXPECT_EQ(control(2, 0), 0);
    EXPECT_LT(mallinfo2().uordblks, before + 10000);
}

TEST_F(BcvControl, no_memory_for_the_lists_is_reported_before_any_call) {
    queue("000000000001", "0001", "0101");
    fail_allocation(1);
    EXPECT_EQ(control(2, 0), 11);
    // The number that goes with this message everywhere, not that of a plain allocation failure.
    expect_failure(3, "emc_tf_bcv_control_all: Out of available memory");
    EXPECT_TRUE(array.calls.empty());
}

class WaitForEstablish : public Method {
  protected:
    WaitForEstablish() : pm(make_pm("000000000001", "0001", "0101", "/dev/emcpowera")) {
        sleeps().clear();
        FakeDevice &primary = array.add_primary("000000000001", "0001", "/dev/emcpowera");
        array.pair(primary, array.add_bcv("000000000001", "0101", "/dev/b"), 2);
    }
    ~WaitForEstablish() override {
        on_sleep(nullptr);
        free(pm);
    }

    int32_t wait_from(long pair_state) {
        array.set_state("000000000001", "0001", pair_state);
        return emc_tf_wait_for_establish(nullptr, pm, &state);
    }
    // The pair's state becomes this one during the n-th sleep from now on.
    void end_at_sleep(size_t n, long end_state) {
        on_sleep([this, n, end_state](unsigned) {
            if (sleeps().size() == n) array.set_state("000000000001", "0001", end_state);
        });
    }

    FakeArray array;
    prim_mir_info *pm;
    int32_t state = -1;
};

const std::string waiting = "...Waiting to exit SYNC_IN_PROGRESS state...";

TEST_F(WaitForEstablish, a_synchronised_pair_ends_it_after_one_read_without_sleeping) {
    EXPECT_EQ(wait_from(2), 0);
    EXPECT_EQ(state, 2);
    EXPECT_TRUE(sleeps().empty());
    EXPECT_EQ(array.calls,
              (Calls{"SymDevSync 000000000001 0101 2 0", "SymPdevShow /dev/emcpowera"}));
    EXPECT_FALSE(logged(waiting));
    expect_no_failure();
}

TEST_F(WaitForEstablish, any_other_state_ends_it_too_and_is_for_the_caller_to_judge) {
    for (const long other : {0L, 3L, 5L, 8L, 99L}) {
        EXPECT_EQ(wait_from(other), 0);
        EXPECT_EQ(state, other);
    }
    EXPECT_TRUE(sleeps().empty());
}

TEST_F(WaitForEstablish, a_synchronising_pair_is_polled_once_a_second) {
    end_at_sleep(3, 2);
    EXPECT_EQ(wait_from(1), 0);
    EXPECT_EQ(state, 2);
    EXPECT_EQ(sleeps(), (std::vector<unsigned>{1, 1, 1}));
    EXPECT_EQ(array.calls_of("SymDevSync").size(), 4U);
    EXPECT_EQ(array.calls_of("SymPdevShow").size(), 4U);
    EXPECT_EQ(array.calls[0], "SymDevSync 000000000001 0101 2 0");
    EXPECT_EQ(array.calls[6], "SymDevSync 000000000001 0101 2 0");
}

TEST_F(WaitForEstablish, a_restoring_pair_is_waited_for_like_a_synchronising_one) {
    end_at_sleep(2, 8);
    EXPECT_EQ(wait_from(7), 0);
    EXPECT_EQ(state, 8);
    EXPECT_EQ(sleeps(), (std::vector<unsigned>{1, 1}));
}

TEST_F(WaitForEstablish, a_pair_that_goes_from_one_of_both_to_the_other_is_still_waited_for) {
    on_sleep([this](unsigned) {
        array.set_state("000000000001", "0001", sleeps().size() == 1 ? 1 : 5);
    });
    EXPECT_EQ(wait_from(7), 0);
    EXPECT_EQ(state, 5);
    EXPECT_EQ(sleeps().size(), 2U);
}

TEST_F(WaitForEstablish, the_wait_is_logged_at_once_and_every_thirty_polls) {
    for (const auto &[polls, lines] :
         {std::pair<size_t, long>{1, 1}, {30, 1}, {31, 2}, {60, 2}, {61, 3}}) {
        sleeps().clear();
        log_lines().clear();
        end_at_sleep(polls, 2);
        EXPECT_EQ(wait_from(1), 0);
        EXPECT_EQ(times_logged(waiting), lines) << polls;
    }
}

TEST_F(WaitForEstablish, the_wait_is_logged_at_level_2_only) {
    set_level(1);
    end_at_sleep(1, 2);
    EXPECT_EQ(wait_from(1), 0);
    EXPECT_EQ(whole_log(), "");
}

TEST_F(WaitForEstablish, it_has_no_limit) {
    end_at_sleep(5000, 2);
    EXPECT_EQ(wait_from(1), 0);
    EXPECT_EQ(sleeps().size(), 5000U);
}

TEST_F(WaitForEstablish, a_failed_sync_is_reported_with_state_10) {
    array.script("SymDevSync", {9});
    EXPECT_EQ(wait_from(1), 11);
    EXPECT_EQ(state, 10);
    expect_failure(3,
                   "wait_for_establish: SymAPI call to SymDevSync on device 0101 failed with code "
                   "9 (array error 9)");
    EXPECT_TRUE(array.calls_of("SymPdevShow").empty());
}

TEST_F(WaitForEstablish, a_failed_show_is_reported_with_state_10) {
    array.script("SymPdevShow", {9});
    EXPECT_EQ(wait_from(1), 11);
    EXPECT_EQ(state, 10);
    expect_failure(3,
                   "wait_for_establish: SymAPI call to SymPdevShow on device /dev/emcpowera failed "
                   "with code 9 (array error 9)");
}

TEST_F(WaitForEstablish, a_sync_that_fails_while_polling_is_reported_with_the_last_state) {
    array.script("SymDevSync", {0, 0, 9});
    EXPECT_EQ(wait_from(1), 11);
    EXPECT_EQ(state, 1);
    expect_failure(3,
                   "wait_for_establish: SymAPI call to SymDevSync on device 0101 failed with code "
                   "9 (array error 9)");
    EXPECT_EQ(sleeps().size(), 2U);
}

TEST_F(WaitForEstablish, a_show_that_fails_while_polling_is_reported_under_the_name_of_the_sync) {
    array.script("SymPdevShow", {0, 9});
    EXPECT_EQ(wait_from(1), 11);
    EXPECT_EQ(state, 1);
    expect_failure(3,
                   "wait_for_establish: SymAPI call to SymDevSync on device /dev/emcpowera failed "
                   "with code 9 (array error 9)");
}

TEST_F(WaitForEstablish, a_bcv_that_is_not_in_the_record_is_find_bcv_infos_failure) {
    tf::put(pm->bcvdev_sym_devname, "0999");
    EXPECT_EQ(wait_from(1), 11);
    EXPECT_EQ(state, 10);
    expect_failure(10, "find_bcv_info: Cannot find BCV 0999 for disk 0001 in group DG");
    EXPECT_EQ(log_lines().size(), 1U) << "no second message";
}

TEST_F(WaitForEstablish, a_bcv_that_vanishes_while_polling_is_find_bcv_infos_failure) {
    on_sleep([this](unsigned) { array.device("000000000001", "0001").record.bcv_count = 0; });
    EXPECT_EQ(wait_from(1), 11);
    EXPECT_EQ(state, 1);
    expect_failure(10, "find_bcv_info: Cannot find BCV 0101 for disk 0001 in group DG");
}

TEST_F(BcvControl, nothing_to_control_is_no_call_and_needs_no_memory) {
    fail_allocations_from(1);
    EXPECT_EQ(emc_tf_bcv_control_all(2, 0, 0, nullptr), 0);
    EXPECT_EQ(emc_tf_bcv_control_all(2, 0, -1, nullptr), 0);
    no_more_faults();
    EXPECT_TRUE(array.calls.empty());
}

}  // namespace
}  // namespace test
