// Which action a pair admits, and what it makes of the pair.
#include <gtest/gtest.h>

#include "tests/lab_array/small_world.h"

namespace {

using lab::BcvAction;
using lab::PairState;
using test::SmallArray;
using test::symid;
namespace code = lab::code;

struct Row {
    PairState state;
    int establish, split, restore;
};

void PrintTo(const Row &row, std::ostream *out) {
    *out << lab::name_of(row.state);
}

// The table of docs/array.md.
constexpr Row rows[] = {
    {PairState::split, code::ok, code::pair_split, code::ok},
    {PairState::synchronising, code::pair_synchronising, code::pair_synchronising,
     code::pair_synchronising},
    {PairState::synchronised, code::pair_established, code::ok, code::pair_established},
    {PairState::splitting, 1012, 1012, 1012},
    {PairState::restoring, code::pair_restoring, code::pair_restoring, code::pair_restoring},
    {PairState::restored, code::ok, code::ok, code::pair_restored},
};

class EveryState : public testing::TestWithParam<Row> {};

TEST_P(EveryState, admits_each_action_or_answers_its_own_code) {
    const Row row = GetParam();
    const std::pair<BcvAction, int> wanted[] = {
        {BcvAction::full_establish, row.establish},
        {BcvAction::incremental_establish, row.establish},
        {BcvAction::split, row.split},
        {BcvAction::restore, row.restore},
    };
    for (const auto &[action, answer] : wanted) {
        SmallArray array;
        array.reach(row.state);
        ASSERT_EQ(array.pair().state, row.state);
        EXPECT_EQ(array.control(action), answer) << lab::name_of(action);
        if (answer != code::ok) {
            EXPECT_EQ(array.pair().state, row.state) << lab::name_of(action);
        }
    }
}

std::string name_of_row(const testing::TestParamInfo<Row> &row) {
    return lab::name_of(row.param.state);
}

INSTANTIATE_TEST_SUITE_P(Control, EveryState, testing::ValuesIn(rows), name_of_row);

TEST(Control, a_new_pair_is_split_and_was_never_established) {
    SmallArray array;
    EXPECT_EQ(array.pair().state, PairState::split);
    EXPECT_FALSE(array.pair().established_before);
}

TEST(Control, an_establish_synchronises_and_then_is_synchronised) {
    SmallArray array;
    EXPECT_EQ(array.control(BcvAction::full_establish), code::ok);
    EXPECT_EQ(array.pair().state, PairState::synchronising);
    array.wait(1);
    EXPECT_EQ(array.pair().state, PairState::synchronised);
    EXPECT_TRUE(array.pair().established_before);
}

TEST(Control, a_restore_restores_and_then_is_restored_and_can_be_split) {
    SmallArray array;
    EXPECT_EQ(array.control(BcvAction::restore), code::ok);
    EXPECT_EQ(array.pair().state, PairState::restoring);
    array.wait(1);
    EXPECT_EQ(array.pair().state, PairState::restored);
    EXPECT_EQ(array.control(BcvAction::split), code::ok);
    EXPECT_EQ(array.pair().state, PairState::split);
}

TEST(Control, a_split_without_split_time_is_over_at_once) {
    SmallArray array;
    array.reach(PairState::synchronised);
    EXPECT_EQ(array.control(BcvAction::split), code::ok);
    EXPECT_EQ(array.pair().state, PairState::split);
}

TEST(Control, a_split_with_split_time_reads_3_and_then_5) {
    SmallArray array;
    array.reach(PairState::splitting);
    EXPECT_EQ(static_cast<int>(array.pair().state), 3);
    array.wait(4.9);
    EXPECT_EQ(static_cast<int>(array.pair().state), 3);
    array.wait(0.1);
    EXPECT_EQ(static_cast<int>(array.pair().state), 5);
}

TEST(Control, a_background_split_reads_5_and_answers_1012_until_it_is_over) {
    SmallArray array;
    array.reach(PairState::synchronised);
    array.world.change_settings().background_time = 20 * lab::micros_per_second;
    EXPECT_EQ(array.control(BcvAction::split), code::ok);
    EXPECT_EQ(array.pair().state, PairState::split);
    EXPECT_EQ(array.control(BcvAction::incremental_establish), 1012);
    EXPECT_EQ(array.control(BcvAction::split), 1012);
    EXPECT_EQ(array.control(BcvAction::restore), 1012);
    array.wait(19);
    EXPECT_EQ(array.control(BcvAction::incremental_establish), 1012);
    array.wait(1);
    EXPECT_EQ(array.control(BcvAction::incremental_establish), code::ok);
}

TEST(Control, a_background_split_answers_1013_to_the_bcv_with_another_standard_device) {
    SmallArray array;
    array.reach(PairState::synchronised);
    array.world.change_settings().background_time = lab::micros_per_second;
    ASSERT_EQ(array.control(BcvAction::split), code::ok);
    EXPECT_EQ(array.control("00A2", "01A1", 3), 1013);
    EXPECT_EQ(array.control("00A1", "01B1", 3), 1012);      // another BCV of the standard device
    EXPECT_EQ(array.control("00A2", "01A2", 3), code::ok);  // neither device is concerned
}

TEST(Control, a_bcv_is_joined_with_one_standard_device_at_a_time) {
    SmallArray array;
    array.reach(PairState::synchronised);
    EXPECT_EQ(array.control("00A2", "01A1", 3), code::bcv_with_another);
    EXPECT_EQ(array.control("00A2", "01A1", 5), code::bcv_with_another);
    ASSERT_EQ(array.control(BcvAction::split), code::ok);
    EXPECT_EQ(array.control("00A2", "01A1", 3), code::ok);
}

TEST(Control, a_standard_device_may_have_several_bcvs_joined) {
    SmallArray array;
    array.reach(PairState::synchronised);
    EXPECT_EQ(array.control("00A1", "01B1", 1), code::ok);
    array.wait(1);
    EXPECT_EQ(array.pair("00A1", "01A1").state, PairState::synchronised);
    EXPECT_EQ(array.pair("00A1", "01B1").state, PairState::synchronised);
}

TEST(Control, a_restore_waits_for_the_other_bcvs_of_its_standard_device) {
    SmallArray array;
    ASSERT_EQ(array.control("00A1", "01B1", 1), code::ok);
    EXPECT_EQ(array.control("00A1", "01A1", 5), code::standard_busy);
    array.wait(1);
    EXPECT_EQ(array.control("00A1", "01A1", 5), code::ok);
}

TEST(Control, one_pair_in_a_wrong_state_refuses_the_whole_call) {
    SmallArray array;
    array.reach(PairState::synchronised);
    lab::Control plan;
    const std::vector<lab::PairNames> names = {{"00A1", "01A1"}, {"00A2", "01A2"}};
    EXPECT_EQ(lab::plan_control(array.world, array.now, symid, names, 2, &plan), code::pair_split);
    EXPECT_EQ(array.pair("00A1", "01A1").state, PairState::synchronised);
}

TEST(Control, a_device_that_the_call_would_write_twice_refuses_it) {
    SmallArray array;
    lab::Control plan;
    EXPECT_EQ(
        lab::plan_control(array.world, 0, symid, {{"00A1", "01A1"}, {"00A2", "01A1"}}, 3, &plan),
        code::device_twice);
    EXPECT_EQ(
        lab::plan_control(array.world, 0, symid, {{"00A1", "01A1"}, {"00A1", "01B1"}}, 5, &plan),
        code::device_twice);
    EXPECT_EQ(
        lab::plan_control(array.world, 0, symid, {{"00A1", "01A1"}, {"00A1", "01B1"}}, 3, &plan),
        code::ok);
}

TEST(Control, what_is_unknown_or_of_the_wrong_kind_has_a_code_of_its_own) {
    SmallArray array;
    lab::Control plan;
    EXPECT_EQ(array.control("00A1", "01A1", 4), code::action_unknown);
    EXPECT_EQ(array.control("00A1", "01A1", 0), code::action_unknown);
    EXPECT_EQ(array.control("00FF", "01A1", 3), code::device_unknown);
    EXPECT_EQ(array.control("00A1", "01FF", 3), code::device_unknown);
    EXPECT_EQ(array.control("01A1", "01A2", 3), code::not_a_standard);
    EXPECT_EQ(array.control("00A1", "00A2", 3), code::not_a_bcv);
    EXPECT_EQ(array.control("00A1", "01A2", 3), code::pair_unknown);
    EXPECT_EQ(lab::plan_control(array.world, 0, "000000000000", {{"00A1", "01A1"}}, 3, &plan),
              code::array_unknown);
    EXPECT_EQ(lab::plan_control(array.world, 0, symid, {}, 3, &plan), code::bad_argument);
}

TEST(Control, a_logical_device_means_its_first_pair_within_the_group) {
    SmallArray array;
    std::string found;
    lab::PairNames names;
    array.world.set_label(symid, "01B1", "TSR-BCV");
    EXPECT_EQ(lab::pair_of_ldev(array.world, "dg", "DEV00A1", &found, &names), code::ok);
    EXPECT_EQ(names, lab::PairNames("00A1", "01A1"));
    EXPECT_EQ(found, symid);
    EXPECT_EQ(lab::pair_of_ldev(array.world, "dg", "TSR-BCV", &found, &names), code::ok);
    EXPECT_EQ(names, lab::PairNames("00A1", "01B1"));
    // The first BCV leaves the group: the pair is no longer associated.
    array.world.set_group(symid, "01A1", "other", "");
    EXPECT_EQ(lab::pair_of_ldev(array.world, "dg", "DEV00A1", &found, &names), code::ok);
    EXPECT_EQ(names, lab::PairNames("00A1", "01B1"));
    EXPECT_EQ(lab::pair_of_ldev(array.world, "dg", "NONE", &found, &names), code::ldev_unknown);
    EXPECT_EQ(lab::pair_of_ldev(array.world, "none", "X", &found, &names), code::group_unknown);
    EXPECT_EQ(lab::pair_of_ldev(array.world, "other", "BCV01A1", &found, &names),
              code::pair_unknown);
}

TEST(Control, a_group_means_the_first_pair_of_each_of_its_standard_devices) {
    SmallArray array;
    std::string found;
    std::vector<lab::PairNames> names;
    EXPECT_EQ(lab::pairs_of_group(array.world, "dg", &found, &names), code::ok);
    EXPECT_EQ(names, (std::vector<lab::PairNames>{{"00A1", "01A1"}, {"00A2", "01A2"}}));
    names.clear();
    EXPECT_EQ(lab::pairs_of_group(array.world, "none", &found, &names), code::group_unknown);
    array.world.set_group(symid, "01A1", "lone", "");
    EXPECT_EQ(lab::pairs_of_group(array.world, "lone", &found, &names), code::pair_unknown);
}

}  // namespace
