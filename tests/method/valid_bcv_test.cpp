#include "method/valid_bcv.h"

#include "method/text.h"
#include "symapi/symapi_session.h"
#include "tests/support/fake_array.h"
#include "tests/support/method_fixture.h"
#include "tests/support/sleeps.h"

namespace test {
namespace {

using Calls = std::vector<std::string>;

constexpr char symid[] = "000000000001";
constexpr char path[] = "/dev/emcpowera";
constexpr char labelled[] = "TSR-BCV";
constexpr char unlabelled[] = "BCV001";

class ValidBcv : public Method {
  protected:
    ValidBcv() { sleeps().clear(); }
    ~ValidBcv() override { on_sleep(nullptr); }

    void add(const char *bcv, long state, const char *label, const char *group = "DG") {
        array.pair(primary, array.add_bcv(symid, bcv, "/dev/b", group, label), state);
    }
    SymDevice &record() { return primary.record; }
    // The choice, by name; "none" without one.
    std::string choose(int32_t expected = 0) {
        device = primary.record;
        chosen = &device.bcvs[5];
        need_establish = 9;
        EXPECT_EQ(find_valid_bcv(&device, &chosen, &need_establish), expected);
        if (chosen == nullptr) return "none";
        EXPECT_GE(chosen, device.bcvs);
        EXPECT_LT(chosen, device.bcvs + SYM_MAX_BCVS) << "points into the caller's record";
        return chosen->bcvdev_sym_devname;
    }

    FakeArray array;
    FakeDevice &primary = array.add_primary(symid, "0001", path);
    SymDevice device = {};
    const SymBcvInfo *chosen = nullptr;
    int32_t need_establish = 9;
};

TEST_F(ValidBcv, a_device_without_bcvs_has_no_choice_and_no_failure) {
    EXPECT_EQ(choose(), "none");
    EXPECT_EQ(need_establish, 0);
    EXPECT_TRUE(array.calls.empty());
    expect_no_failure();
}

TEST_F(ValidBcv, of_two_unsynchronised_ones_the_labelled_second_is_chosen_for_establishing) {
    add("0101", 5, unlabelled);
    add("0102", 5, labelled);
    EXPECT_EQ(choose(), "0102");
    EXPECT_EQ(need_establish, 1);
}

TEST_F(ValidBcv, of_two_unsynchronised_ones_the_labelled_first_is_chosen_for_establishing) {
    add("0101", 5, labelled);
    add("0102", 5, unlabelled);
    EXPECT_EQ(choose(), "0101");
    EXPECT_EQ(need_establish, 1);
}

TEST_F(ValidBcv, of_two_labelled_unsynchronised_ones_the_last_is_chosen) {
    add("0101", 5, labelled);
    add("0102", 5, labelled);
    EXPECT_EQ(choose(), "0102");
    EXPECT_EQ(need_establish, 1);
}

TEST_F(ValidBcv, of_two_unlabelled_unsynchronised_ones_the_first_is_chosen_without_establishing) {
    add("0101", 5, unlabelled);
    add("0102", 5, unlabelled);
    EXPECT_EQ(choose(), "0101");
    EXPECT_EQ(need_establish, 0) << "an unlabelled choice does not ask to be established";
}

TEST_F(ValidBcv, a_synchronised_one_wins_over_a_labelled_unsynchronised_one_before_it) {
    add("0101", 5, labelled);
    add("0102", 2, labelled);
    add("0103", 5, labelled);
    EXPECT_EQ(choose(), "0102");
    EXPECT_EQ(need_establish, 0);
    EXPECT_EQ(array.calls_of("SymDevShow").size(), 3U) << "the third one is not looked at";
}

TEST_F(ValidBcv, a_restored_one_counts_as_synchronised) {
    add("0101", 5, labelled);
    add("0102", 8, labelled);
    EXPECT_EQ(choose(), "0102");
    EXPECT_EQ(need_establish, 0);
}

TEST_F(ValidBcv, no_other_state_counts_as_synchronised) {
    add("0101", 5, labelled);
    for (const long state : {0L, 1L, 3L, 5L, 7L, 9L}) {
        array.set_state(symid, "0001", state);
        EXPECT_EQ(choose(), "0101");
        EXPECT_EQ(need_establish, 1) << state;
    }
}

TEST_F(ValidBcv, without_any_label_a_synchronised_one_is_chosen_whatever_its_name) {
    add("0101", 2, unlabelled);
    EXPECT_EQ(choose(), "0101");
    EXPECT_EQ(need_establish, 0);
}

TEST_F(ValidBcv, a_synchronised_one_without_label_is_passed_over_when_labels_are_in_use) {
    add("0101", 2, unlabelled);
    add("0102", 5, labelled);
    EXPECT_EQ(choose(), "0102");
    EXPECT_EQ(need_establish, 1);
    EXPECT_TRUE(logged("find_valid_bcv: This BCV does not have TSR-BCV label: BCV001"));
    EXPECT_TRUE(array.calls_of("SymDevBcvControl").empty());
}

TEST_F(ValidBcv, only_the_first_seven_characters_of_the_label_count) {
    add("0101", 5, unlabelled);
    add("0102", 5, "TSR-BCV-07");
    EXPECT_EQ(choose(), "0102");
    EXPECT_EQ(need_establish, 1);
}

TEST_F(ValidBcv, a_name_that_only_resembles_the_label_does_not_count) {
    for (const char *name : {"TSR-BC", "tsr-bcv", " TSR-BCV", "X-TSR-BCV", ""}) {
        record().bcv_count = 0;
        add("0101", 5, name);
        EXPECT_EQ(choose(), "0101");
        EXPECT_EQ(need_establish, 0) << name;
    }
}

TEST_F(ValidBcv, the_label_survey_stops_at_the_first_label) {
    add("0101", 5, unlabelled);
    add("0102", 5, labelled);
    add("0103", 5, labelled);
    EXPECT_EQ(choose(), "0103");
    EXPECT_EQ(array.calls, (Calls{"SymDevShow 000000000001 0101", "SymDevShow 000000000001 0102",
                                  "SymDevShow 000000000001 0101", "SymDevShow 000000000001 0102",
                                  "SymDevShow 000000000001 0103"}));
}

TEST_F(ValidBcv, each_entry_is_logged_at_level_2_with_the_blank_at_its_end) {
    add("0101", 5, unlabelled);
    EXPECT_EQ(choose(), "0101");
    EXPECT_EQ(whole_log(),
              "find_valid_bcv: primary 0001, BCV 0101 dgname = DG, bcvdev_dgname = DG bcv pair "
              "state 5 \n");
    set_level(1);
    EXPECT_EQ(choose(), "0101");
    EXPECT_EQ(whole_log(), "");
}

TEST_F(ValidBcv, an_unsynchronised_one_of_another_group_is_no_choice) {
    add("0101", 5, labelled, "OTHER");
    EXPECT_EQ(choose(), "none");
    EXPECT_EQ(need_establish, 0);
    EXPECT_TRUE(array.calls_of("SymDevBcvControl").empty());
}

// Each of the four comparisons that make an entry associated, broken alone.
TEST_F(ValidBcv, every_part_of_the_association_counts) {
    add("0101", 5, labelled);
    SymBcvInfo &entry = record().bcvs[0];
    const SymBcvInfo whole = entry;
    EXPECT_EQ(choose(), "0101");
    tf::put(entry.bcvdev_dgname, "OTHER");
    EXPECT_EQ(choose(), "none");
    entry = whole;
    tf::put(entry.dev_dgname, "OTHER");
    EXPECT_EQ(choose(), "none");
    entry = whole;
    tf::put(entry.dev_sym_devname, "0002");
    EXPECT_EQ(choose(), "none");
    entry = whole;
    tf::put(array.device(symid, "0101").record.dgname, "OTHER");
    EXPECT_EQ(choose(), "none");
}

TEST_F(ValidBcv, a_failed_show_in_the_survey_is_reported) {
    add("0101", 5, labelled);
    array.script("SymDevShow", {9});
    EXPECT_EQ(choose(11), "none");
    EXPECT_EQ(need_establish, 0);
    expect_failure(3,
                   "find_valid_bcv: SymAPI call to SymDevShow on device 0101 failed with code 9 "
                   "(array error 9)");
}

TEST_F(ValidBcv, a_failed_show_in_the_selection_leaves_the_choice_made_so_far) {
    add("0101", 5, labelled);
    add("0102", 5, labelled);
    array.script_call("SymDevShow", 3, 9);  // one in the survey, then one per entry
    EXPECT_EQ(choose(11), "0101");
    EXPECT_EQ(need_establish, 1);
    expect_failure(3,
                   "find_valid_bcv: SymAPI call to SymDevShow on device 0102 failed with code 9 "
                   "(array error 9)");
}

TEST_F(ValidBcv, a_count_beyond_the_record_is_not_followed) {
    add("0101", 5, labelled);
    record().bcv_count = -1;
    EXPECT_EQ(choose(), "none");
    for (int i = 0; i < SYM_MAX_BCVS; ++i) record().bcvs[i] = record().bcvs[0];
    record().bcv_count = 1000000;
    EXPECT_EQ(choose(), "0101");
    EXPECT_EQ(array.calls_of("SymDevShow").size(), 1U + SYM_MAX_BCVS);
}

class ReleaseBcv : public ValidBcv {
  protected:
    // The pair that is released is the first one, and a split takes its time.
    void split_ends_at_sleep(size_t n) {
        array.state_after_action[2] = 3;
        on_sleep([this, n](unsigned) {
            if (sleeps().size() == n) array.set_state(symid, "0001", 5);
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

TEST_F(ReleaseBcv, the_log_line_names_the_primarys_group_twice) {
    add("0101", 2, unlabelled, "BCVGROUP");
    tf::put(record().bcvs[0].dev_dgname, "PRIMGROUP");
    choose();
    EXPECT_TRUE(logged(
        "find_valid_bcv: the BCV synchoronized with primary disk does not have correct association "
        ": BCV: <bcvdev_dgname: PRIMGROUP>, <bcvdev_dgname2: BCVGROUP> <bcvdev_dgname3: PRIMGROUP> "
        "<dev_sym_devname: 0001>"));
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
    EXPECT_TRUE(sleeps().empty());
}

TEST_F(ReleaseBcv, the_release_is_waited_for_second_by_second) {
    add("0101", 2, unlabelled, "OTHER");
    split_ends_at_sleep(3);
    EXPECT_EQ(choose(), "none");
    EXPECT_EQ(sleeps(), (std::vector<unsigned>{1, 1, 1}));
    EXPECT_EQ(array.calls,
              (Calls{"SymDevShow 000000000001 0101", "SymDevShow 000000000001 0101",
                     "SymDevBcvControl 000000000001 0001 0101 action 2 option 0x400800",
                     "SymDevSync 000000000001 0101 2 0", "SymPdevShow /dev/emcpowera",
                     "SymDevSync 000000000001 0101 2 0", "SymPdevShow /dev/emcpowera",
                     "SymDevSync 000000000001 0101 2 0", "SymPdevShow /dev/emcpowera"}));
    EXPECT_EQ(device.bcvs[0].bcv_pair_state, 5) << "the caller's record was read anew";
}

TEST_F(ReleaseBcv, the_wait_has_no_limit) {
    add("0101", 2, unlabelled, "OTHER");
    split_ends_at_sleep(5000);
    EXPECT_EQ(choose(), "none");
    EXPECT_EQ(sleeps().size(), 5000U);
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
    EXPECT_EQ(sleeps().size(), 2U);
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

TEST_F(ReleaseBcv, a_bcv_that_vanishes_is_reported_by_the_look_up_and_is_no_failure) {
    add("0101", 2, unlabelled, "OTHER");
    on_sleep([this](unsigned) { record().bcv_count = 0; });
    EXPECT_EQ(choose(), "none");
    EXPECT_EQ(need_establish, 1);
    expect_failure(10, "find_bcv_info: Cannot find BCV 0101 for disk 0001 in group DG");
}

TEST_F(ReleaseBcv, a_choice_made_before_is_found_again_where_the_refresh_put_it) {
    add("0101", 5, labelled);
    add("0102", 2, labelled, "OTHER");
    add("0103", 5, unlabelled);
    on_sleep([this](unsigned) { std::swap(record().bcvs[0], record().bcvs[2]); });
    EXPECT_EQ(choose(), "0101");
    EXPECT_EQ(chosen, &device.bcvs[2]);
    EXPECT_EQ(need_establish, 1);
}

TEST_F(ReleaseBcv, a_choice_that_the_refresh_no_longer_shows_is_no_choice) {
    add("0101", 5, labelled);
    add("0102", 2, labelled, "OTHER");
    on_sleep([this](unsigned) { tf::put(record().bcvs[0].bcvdev_sym_devname, "0999"); });
    EXPECT_EQ(choose(), "none");
    EXPECT_EQ(need_establish, 1);
}

TEST_F(ReleaseBcv, the_names_of_the_calls_do_not_follow_a_refresh_that_renames_the_device) {
    add("0101", 2, unlabelled, "OTHER");
    array.state_after_action[2] = 3;
    on_sleep([this](unsigned) {
        // The second refresh would ask for a path, an array and a BCV that nobody knows.
        if (sleeps().size() == 1) {
            record().ports[0][0] = '\0';
            tf::put(record().ports[0], path);
            record().port_count = 1;
            tf::put(record().pdevname, "/dev/elsewhere");
        }
        if (sleeps().size() == 2) record().bcvs[0].bcv_pair_state = 5;
    });
    choose();
    EXPECT_EQ(array.calls_of("SymPdevShow"),
              (Calls{"SymPdevShow /dev/emcpowera", "SymPdevShow /dev/emcpowera"}));
}

TEST_F(ReleaseBcv, entries_that_a_refresh_drops_are_not_walked) {
    add("0101", 2, unlabelled, "OTHER");
    add("0102", 5, unlabelled);
    add("0103", 5, unlabelled);
    on_sleep([this](unsigned) { record().bcv_count = 1; });
    EXPECT_EQ(choose(), "none");
    EXPECT_EQ(array.calls_of("SymDevShow").size(), 4U) << "three in the survey, one in the walk";
}

}  // namespace
}  // namespace test
