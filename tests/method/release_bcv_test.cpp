#include "symapi/symapi_session.h"
#include "symapi/symapi_wrappers.h"
#include "tests/method/valid_bcv_fixture.h"

namespace {

using Calls = std::vector<std::string>;
using test::ValidBcv;

// A BCV that is synchronised with the device under a wrong association is split off.
class ReleaseBcv : public ValidBcv {
  protected:
    // The pair that is released is the first one, and a split takes its time.
    void split_ends_at_sleep(size_t n) {
        array.state_after_action[2] = 3;
        test::on_sleep([this, n](unsigned) {
            if (test::sleeps().size() == n) array.set_state(symid, "0001", 5);
        });
    }
};

TEST_F(ReleaseBcv, a_synchronised_one_of_another_group_is_split_off_and_the_rest_is_considered) {
    add("0101", 2, unlabelled, "OTHER");
    add("0102", 5, unlabelled);
    EXPECT_EQ(choose(), "0102");
    EXPECT_EQ(need_establish, 1) << "the released mirror has to be replaced";
    EXPECT_EQ(array.calls_of("SymDevBcvControl"),
              Calls{"SymDevBcvControl 000000000001 0001 0101 action 2 option 0x400800"});
    EXPECT_EQ(array.state(symid, "0001"), 5);
    EXPECT_TRUE(logged(
        "find_valid_bcv: the BCV synchoronized with primary disk does not have correct association "
        ": BCV: <bcvdev_dgname: DG>, <bcvdev_dgname2: OTHER> <bcvdev_dgname3: DG> "
        "<dev_sym_devname: 0001>"));
    expect_no_failure();
}

TEST_F(ReleaseBcv, a_synchronised_one_behind_a_release_needs_no_establishing) {
    add("0101", 2, unlabelled, "OTHER");
    add("0102", 2, unlabelled);
    EXPECT_EQ(choose(), "0102");
    EXPECT_EQ(need_establish, 0) << "the mirror that stays is synchronised already";
    EXPECT_EQ(array.calls_of("SymDevBcvControl"),
              Calls{"SymDevBcvControl 000000000001 0001 0101 action 2 option 0x400800"});
}

TEST_F(ReleaseBcv, the_log_line_names_the_primarys_group_twice) {
    add("0101", 2, unlabelled, "BCVGROUP");
    tf::put(record().bcvs[0].dev_dgname, "PRIMGROUP");
    choose();
    EXPECT_TRUE(logged(
        "find_valid_bcv: the BCV synchoronized with primary disk does not have correct association "
        ": BCV: <bcvdev_dgname: PRIMGROUP>, <bcvdev_dgname2: BCVGROUP> <bcvdev_dgname3: PRIMGROUP> "
        "<dev_sym_devname: 0001>"));
}

TEST_F(ReleaseBcv, what_is_passed_over_and_what_is_released_is_noted_at_level_2_alone) {
    const std::string no_label = "find_valid_bcv: This BCV does not have TSR-BCV label: BCV001";
    const std::string wrong_association =
        "find_valid_bcv: the BCV synchoronized with primary disk does not have correct association "
        ": BCV: <bcvdev_dgname: DG>, <bcvdev_dgname2: OTHER> <bcvdev_dgname3: DG> "
        "<dev_sym_devname: 0001>";
    add("0101", 2, unlabelled);
    add("0102", 2, unlabelled, "OTHER");
    add("0103", 2, labelled, "OTHER");
    EXPECT_EQ(choose(), "none");
    EXPECT_EQ(times_logged(no_label), 2);
    EXPECT_EQ(times_logged(wrong_association), 1);
    set_level(1);
    record().bcvs[2].bcv_pair_state = 2;
    EXPECT_EQ(choose(), "none");
    EXPECT_EQ(array.calls_of("SymDevBcvControl").size(), 2U) << "the same was done again";
    EXPECT_EQ(whole_log(), "");
}

TEST_F(ReleaseBcv, a_release_before_5_gets_the_old_option) {
    emc_tf_SymVersion = 0x04ff;
    add("0101", 2, unlabelled, "OTHER");
    EXPECT_EQ(choose(), "none");
    EXPECT_EQ(array.calls_of("SymDevBcvControl"),
              Calls{"SymDevBcvControl 000000000001 0001 0101 action 2 option 0x800"});
}

TEST_F(ReleaseBcv, a_restored_one_is_released_as_well) {
    add("0101", 8, labelled, "OTHER");
    choose();
    EXPECT_EQ(array.calls_of("SymDevBcvControl").size(), 1U);
}

TEST_F(ReleaseBcv, one_without_label_is_passed_over_when_labels_are_in_use) {
    add("0101", 2, unlabelled, "OTHER");
    add("0102", 5, labelled);
    EXPECT_EQ(choose(), "0102");
    EXPECT_TRUE(array.calls_of("SymDevBcvControl").empty());
    EXPECT_TRUE(logged("find_valid_bcv: This BCV does not have TSR-BCV label: BCV001"));
}

TEST_F(ReleaseBcv, a_refused_release_is_reported_with_the_choice_made_so_far) {
    add("0101", 5, labelled);
    add("0102", 2, labelled, "OTHER");
    array.script("SymDevBcvControl", {9});
    EXPECT_EQ(choose(11), "0101");
    EXPECT_EQ(need_establish, 1);
    expect_failure(12,
                   "find_valid_bcv: SymAPI call to SymDevBcvControl on device 0001 failed action 2 "
                   "with code 9 (array error 9)");
    EXPECT_TRUE(test::sleeps().empty());
}

TEST_F(ReleaseBcv, a_refused_release_without_a_choice_leaves_none_and_nothing_to_establish) {
    add("0101", 2, unlabelled, "OTHER");
    add("0102", 5, unlabelled);
    array.script("SymDevBcvControl", {9});
    EXPECT_EQ(choose(11), "none");
    EXPECT_EQ(need_establish, 0);
    EXPECT_EQ(errnum, 12);
    EXPECT_EQ(array.calls_of("SymDevShow").size(), 3U) << "two in the survey, one in the walk";
}

TEST_F(ReleaseBcv, a_refused_release_behind_one_that_worked_leaves_the_need_to_establish) {
    add("0101", 2, unlabelled, "OTHER");
    add("0102", 2, unlabelled, "OTHER");
    array.script_call("SymDevBcvControl", 2, 9);
    EXPECT_EQ(choose(11), "none");
    EXPECT_EQ(need_establish, 1);
    EXPECT_EQ(errnum, 12);
    EXPECT_EQ(test::sleeps().size(), 1U);
}

TEST_F(ReleaseBcv, the_release_is_waited_for_second_by_second) {
    add("0101", 2, unlabelled, "OTHER");
    split_ends_at_sleep(3);
    EXPECT_EQ(choose(), "none");
    EXPECT_EQ(test::sleeps(), (std::vector<unsigned>{1, 1, 1}));
    EXPECT_EQ(array.calls,
              (Calls{"SymDevShow 000000000001 0101", "SymDevShow 000000000001 0101",
                     "SymDevBcvControl 000000000001 0001 0101 action 2 option 0x400800",
                     "SymDevSync 000000000001 0101 2 0", "SymPdevShow /dev/emcpowera",
                     "SymDevSync 000000000001 0101 2 0", "SymPdevShow /dev/emcpowera",
                     "SymDevSync 000000000001 0101 2 0", "SymPdevShow /dev/emcpowera"}));
    EXPECT_EQ(device.bcvs[0].bcv_pair_state, 5) << "the caller's record was read anew";
}

TEST_F(ReleaseBcv, two_in_one_walk_are_released_one_after_the_other_each_by_its_name) {
    add("0101", 2, unlabelled, "OTHER");
    add("0102", 8, unlabelled, "OTHER");
    array.state_after_action[2] = 3;
    test::on_sleep([this](unsigned) {
        if (test::sleeps().size() == 2) record().bcvs[0].bcv_pair_state = 5;
        if (test::sleeps().size() == 4) record().bcvs[1].bcv_pair_state = 5;
    });
    EXPECT_EQ(choose(), "none");
    EXPECT_EQ(need_establish, 1);
    EXPECT_EQ(array.calls,
              (Calls{"SymDevShow 000000000001 0101", "SymDevShow 000000000001 0102",
                     "SymDevShow 000000000001 0101",
                     "SymDevBcvControl 000000000001 0001 0101 action 2 option 0x400800",
                     "SymDevSync 000000000001 0101 2 0", "SymPdevShow /dev/emcpowera",
                     "SymDevSync 000000000001 0101 2 0", "SymPdevShow /dev/emcpowera",
                     "SymDevShow 000000000001 0102",
                     "SymDevBcvControl 000000000001 0001 0102 action 2 option 0x400800",
                     "SymDevSync 000000000001 0102 2 0", "SymPdevShow /dev/emcpowera",
                     "SymDevSync 000000000001 0102 2 0", "SymPdevShow /dev/emcpowera"}));
    EXPECT_EQ(test::sleeps(), (std::vector<unsigned>{1, 1, 1, 1}));
    expect_no_failure();
}

TEST_F(ReleaseBcv, the_wait_has_no_limit) {
    add("0101", 2, unlabelled, "OTHER");
    split_ends_at_sleep(5000);
    EXPECT_EQ(choose(), "none");
    EXPECT_EQ(test::sleeps().size(), 5000U);
}

TEST_F(ReleaseBcv, a_failed_sync_ends_the_wait_without_a_report) {
    add("0101", 2, unlabelled, "OTHER");
    array.state_after_action[2] = 3;
    array.script("SymDevSync", {9});
    EXPECT_EQ(choose(), "none");
    EXPECT_EQ(need_establish, 1);
    EXPECT_TRUE(array.calls_of("SymPdevShow").empty());
    expect_no_failure();
}

TEST_F(ReleaseBcv, a_sync_that_fails_while_the_split_goes_on_ends_the_wait) {
    add("0101", 2, unlabelled, "OTHER");
    split_ends_at_sleep(5);
    array.script_call("SymDevSync", 2, 9);
    EXPECT_EQ(choose(), "none");
    EXPECT_EQ(need_establish, 1);
    EXPECT_EQ(test::sleeps().size(), 2U);
    expect_no_failure();
}

TEST_F(ReleaseBcv, a_failed_show_ends_the_wait_and_leaves_the_callers_record_whole) {
    add("0101", 2, unlabelled, "OTHER");
    add("0102", 5, unlabelled);
    array.script("SymPdevShow", {9});
    EXPECT_EQ(choose(), "0102");
    EXPECT_EQ(device.bcvs[0].bcv_pair_state, 2) << "nothing of a failed refresh is taken over";
    EXPECT_EQ(need_establish, 1);
    expect_no_failure();
}

TEST_F(ReleaseBcv, a_show_that_fails_in_a_later_round_leaves_the_record_of_the_last_good_one) {
    // A library that has begun to fill the record when it fails.
    static int shows;
    static decltype(p_emc_tf_SymPdevShow) real;
    shows = 0;
    real = p_emc_tf_SymPdevShow;
    p_emc_tf_SymPdevShow = [](int32_t session, const char *name, SymDevice *shown) {
        const int code = real(session, name, shown);
        if (++shows < 2) return code;
        shown->bcv_count = 0;
        return 9;
    };
    add("0101", 2, unlabelled, "OTHER");
    add("0102", 5, unlabelled);
    split_ends_at_sleep(2);
    EXPECT_EQ(choose(), "0102");
    EXPECT_EQ(need_establish, 1);
    EXPECT_EQ(shows, 2);
    EXPECT_EQ(test::sleeps().size(), 2U);
    EXPECT_EQ(device.bcv_count, 2);
    EXPECT_EQ(device.bcvs[0].bcv_pair_state, 3) << "as the first round read it";
    expect_no_failure();
}

TEST_F(ReleaseBcv, a_bcv_that_vanishes_is_reported_by_the_look_up_and_is_no_failure) {
    add("0101", 2, unlabelled, "OTHER");
    test::on_sleep([this](unsigned) { record().bcv_count = 0; });
    EXPECT_EQ(choose(), "none");
    EXPECT_EQ(need_establish, 1);
    expect_failure(10, "find_bcv_info: Cannot find BCV 0101 for disk 0001 in group DG");
}

TEST_F(ReleaseBcv, a_choice_made_before_is_found_again_where_the_refresh_put_it) {
    add("0101", 5, labelled);
    add("0102", 2, labelled, "OTHER");
    add("0103", 5, unlabelled);
    test::on_sleep([this](unsigned) { std::swap(record().bcvs[0], record().bcvs[2]); });
    EXPECT_EQ(choose(), "0101");
    EXPECT_EQ(chosen, &device.bcvs[2]);
    EXPECT_EQ(need_establish, 1);
}

TEST_F(ReleaseBcv, a_choice_that_the_refresh_no_longer_shows_is_no_choice) {
    add("0101", 5, labelled);
    add("0102", 2, labelled, "OTHER");
    test::on_sleep([this](unsigned) { tf::put(record().bcvs[0].bcvdev_sym_devname, "0999"); });
    EXPECT_EQ(choose(), "none");
    EXPECT_EQ(need_establish, 1);
}

TEST_F(ReleaseBcv, the_names_of_the_calls_do_not_follow_a_refresh_that_renames_the_device) {
    add("0101", 2, unlabelled, "OTHER");
    array.state_after_action[2] = 3;
    test::on_sleep([this](unsigned) {
        // The second refresh would ask for a path, an array and a BCV that nobody knows.
        if (test::sleeps().size() == 1) {
            record().ports[0][0] = '\0';
            tf::put(record().ports[0], path);
            record().port_count = 1;
            tf::put(record().pdevname, "/dev/elsewhere");
        }
        if (test::sleeps().size() == 2) record().bcvs[0].bcv_pair_state = 5;
    });
    choose();
    EXPECT_EQ(array.calls_of("SymPdevShow"),
              (Calls{"SymPdevShow /dev/emcpowera", "SymPdevShow /dev/emcpowera"}));
}

TEST_F(ReleaseBcv, entries_that_a_refresh_drops_are_not_walked) {
    add("0101", 2, unlabelled, "OTHER");
    add("0102", 5, unlabelled);
    add("0103", 5, unlabelled);
    test::on_sleep([this](unsigned) { record().bcv_count = 1; });
    EXPECT_EQ(choose(), "none");
    EXPECT_EQ(array.calls_of("SymDevShow").size(), 4U) << "three in the survey, one in the walk";
}

}  // namespace
