#include "tests/method/valid_bcv_fixture.h"

namespace {

using Calls = std::vector<std::string>;
using test::ValidBcv;

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

}  // namespace
