// Virtual time: how long things take, and what the clock does.
#include <gtest/gtest.h>

#include "lab/array/model/clock.h"
#include "tests/lab_array/small_world.h"

namespace {

using lab::BcvAction;
using lab::Micros;
using lab::micros_per_second;
using lab::PairState;
using test::SmallArray;

TEST(Progress, a_full_establish_moves_every_track_at_the_set_rate) {
    EXPECT_EQ(lab::duration_of(test::device_tracks, 64), micros_per_second);
    EXPECT_EQ(lab::duration_of(test::device_tracks, 128), micros_per_second / 2);
    EXPECT_EQ(lab::duration_of(test::device_tracks, 0), 0);
    EXPECT_EQ(lab::duration_of(0, 64), 0);
}

TEST(Progress, the_duration_of_a_whole_tebibyte_is_no_overflow) {
    const uint64_t tracks = (uint64_t{1} << 40) / lab::track_size;
    EXPECT_EQ(lab::duration_of(tracks, 1), (Micros{1} << 20) * micros_per_second);
}

TEST(Progress, an_incremental_establish_takes_as_long_as_its_changed_tracks) {
    SmallArray array;
    ASSERT_EQ(array.control("00A1", "01A1", 3, test::device_tracks / 4), 0);
    array.wait(0.24);
    EXPECT_EQ(array.pair().state, PairState::synchronising);
    array.wait(0.01);
    EXPECT_EQ(array.pair().state, PairState::synchronised);
    EXPECT_EQ(array.pair().tracks, test::device_tracks / 4);
}

TEST(Progress, an_establish_without_changes_is_synchronised_at_once) {
    SmallArray array;
    ASSERT_EQ(array.control("00A1", "01A1", 3, 0), 0);
    EXPECT_EQ(array.pair().state, PairState::synchronised);
}

TEST(Progress, percent_rises_with_time_and_is_100_when_nothing_moves) {
    SmallArray array;
    EXPECT_EQ(lab::percent_done(array.pair(), array.now), 100);
    ASSERT_EQ(array.control(BcvAction::full_establish), 0);
    EXPECT_EQ(lab::percent_done(array.pair(), array.now), 0);
    array.wait(0.5);
    EXPECT_EQ(lab::percent_done(array.pair(), array.now), 50);
    array.wait(0.5);
    EXPECT_EQ(lab::percent_done(array.pair(), array.now), 100);
}

TEST(Progress, settle_answers_the_pairs_that_are_over_in_the_order_of_time) {
    SmallArray array;
    ASSERT_EQ(array.control("00A1", "01A1", 3, 1000), 0);
    ASSERT_EQ(array.control("00A2", "01A2", 3, 500), 0);
    EXPECT_EQ(array.world.next_end(), array.pair("00A2", "01A2").ends);
    EXPECT_TRUE(array.world.settle(array.now).empty());
    const auto over = array.world.settle(array.now + micros_per_second);
    EXPECT_EQ(over, (std::vector<int64_t>{array.pair("00A2", "01A2").id, array.pair().id}));
    EXPECT_EQ(array.world.next_end(), 0);
}

TEST(Progress, a_transition_that_is_over_keeps_no_time) {
    SmallArray array;
    array.reach(PairState::synchronised);
    EXPECT_EQ(array.pair().ends, 0);
    EXPECT_TRUE(lab::broken_invariants(array.world).empty());
}

TEST(Clock, runs_with_real_time) {
    lab::Clock clock(100, 1000, true);
    EXPECT_EQ(clock.now(1000), 100);
    EXPECT_EQ(clock.now(1500), 600);
    EXPECT_EQ(clock.until(700, 1500), 100);
    EXPECT_EQ(clock.until(600, 1500), 0);
}

TEST(Clock, that_stands_still_moves_only_when_it_is_put_forward) {
    lab::Clock clock(100, 1000, false);
    EXPECT_EQ(clock.now(9000), 100);
    EXPECT_EQ(clock.until(101, 9000), -1);
    clock.advance(50);
    EXPECT_EQ(clock.now(9000), 150);
}

TEST(Clock, goes_on_where_it_stood_when_it_is_let_run) {
    lab::Clock clock(100, 1000, true);
    clock.run(2000, false);
    EXPECT_EQ(clock.now(5000), 1100);
    clock.run(5000, true);
    EXPECT_EQ(clock.now(5000), 1100);
    EXPECT_EQ(clock.now(6000), 2100);
}

}  // namespace
