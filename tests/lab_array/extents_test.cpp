// Which tracks differ, told from where they lie on the disk.
#include <gtest/gtest.h>

#include "lab/array/media/extents.h"
#include "lab/array/model/records.h"

namespace {

using lab::differing_tracks;
using lab::Extent;
using lab::track_size;
using Extents = std::vector<Extent>;

constexpr uint64_t size = 10 * track_size;
constexpr uint64_t far = uint64_t{1} << 40;

TEST(Extents, two_files_of_holes_are_equal) {
    EXPECT_EQ(differing_tracks({}, {}, size), 0u);
}

TEST(Extents, shared_blocks_are_equal_however_they_are_cut) {
    const Extents one = {{0, far, size}};
    const Extents other = {{0, far, track_size}, {track_size, far + track_size, size - track_size}};
    EXPECT_EQ(differing_tracks(one, one, size), 0u);
    EXPECT_EQ(differing_tracks(one, other, size), 0u);
}

TEST(Extents, blocks_of_their_own_differ) {
    EXPECT_EQ(differing_tracks({{0, far, size}}, {{0, 2 * far, size}}, size), 10u);
}

TEST(Extents, a_hole_differs_from_a_block) {
    EXPECT_EQ(differing_tracks({{track_size, far, track_size}}, {}, size), 1u);
    EXPECT_EQ(differing_tracks({}, {{track_size, far, 2 * track_size}}, size), 2u);
}

TEST(Extents, a_changed_block_counts_its_track_once) {
    // One block of 4096 bytes was written in the third track, another beside it.
    const uint64_t at = 2 * track_size;
    const Extents before = {{0, far, size}};
    const Extents after = {{0, far, at},
                           {at, 5 * far, 4096},
                           {at + 4096, far + at + 4096, 4096},
                           {at + 8192, 6 * far, 4096},
                           {at + 12288, far + at + 12288, size - at - 12288}};
    EXPECT_EQ(differing_tracks(before, after, size), 1u);
    EXPECT_EQ(differing_tracks(after, before, size), 1u);
}

TEST(Extents, a_change_across_a_border_counts_both_tracks) {
    const Extents before = {{0, far, size}};
    const Extents after = {{0, far, track_size - 4096},
                           {track_size - 4096, 5 * far, 8192},
                           {track_size + 4096, far + track_size + 4096, size - track_size - 4096}};
    EXPECT_EQ(differing_tracks(before, after, size), 2u);
}

TEST(Extents, what_is_not_yet_on_the_disk_equals_nothing) {
    const Extents unsettled = {{0, 0, track_size, false}};
    EXPECT_EQ(differing_tracks(unsettled, unsettled, size), 1u);
}

}  // namespace
