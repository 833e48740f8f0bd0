// Twenty snapshots of one object, one after the other: between them the array moves the tracks that
// changed and no others.
#include <cstdlib>

#include "tests/lab_scenarios/scenario.h"

namespace test {
namespace {

constexpr int rounds = 20;

class SnapshotsInARow : public Scenario {
  protected:
    SnapshotsInARow() : Scenario("two_arrays") {}
};

// A line that writes 4 KiB into each of these tracks; content is what it writes.
std::string write_tracks(const std::string &device, const std::string &content, int first, int step,
                         int count) {
    return "yes '" + content + "' | head -c 4096 >/exchange/block; for n in $(seq 0 " +
           std::to_string(count - 1) + "); do dd if=/exchange/block of=" + device +
           " bs=4k seek=$((16 * (" + std::to_string(first) + " + n * " + std::to_string(step) +
           ") + n % 16)) oflag=direct conv=notrunc status=none || exit 1; done";
}

// Each round changes as many tracks of the primary as its number says; in every fifth, whoever
// reads the copy changes two tracks of it as well.
TEST_F(SnapshotsInARow, of_a_device_move_exactly_the_changed_tracks_needs_root) {
    host(
        "yes first | head -c 16777216 | dd of=/dev/qz/dmp/p4 bs=1M iflag=fullblock oflag=direct"
        " status=none");
    for (int round = 1; round <= rounds; ++round) {
        const std::string number = std::to_string(round);
        const bool copy_changes = round % 5 == 0;
        const Phase one =
            phase({"freeze",
                   "-",
                   "/dev/qz/dmp/p4",
                   "/copy",
                   "ctl",
                   "4",
                   "run",
                   save_array("joined"),
                   "run",
                   "sha256sum </dev/qz/dmp/p4 >/exchange/before",
                   "commit",
                   "run",
                   write_tracks("/dev/qz/dmp/p4", "round" + number, round, 11, round),
                   "volumes",
                   "run",
                   "sha256sum </dev/sdt | cmp - /exchange/before",
                   "run",
                   copy_changes ? write_tracks("/dev/sdt", "reader", 252, 2, 2) : "true",
                   "thaw",
                   "thaw_commit"});
        expect_all_succeed(one);
        const bool first = round == 1;
        EXPECT_EQ(one.at("ctl").logged("Total BCVs to resync at start : 1"), first) << round;
        if (first) {
            EXPECT_EQ(saved_number("joined", "tracks", "00B2", "01B2"), 256);
        }
        EXPECT_TRUE(one.at("thaw_commit").logged("Total BCVs to resync : 1")) << round;
        EXPECT_EQ(tracks_moved("00B2", "01B2", "000184500777"), round + (copy_changes ? 2 : 0))
            << "round " << round;
        array("clock advance 1");
        ASSERT_EQ(pair_state("00B2", "01B2", "000184500777"), 2);
    }
    expect_nothing_left("/copy");
}

// With a file system the number is what the two devices differ in. A track that was written with
// what it held already is moved too, so there may be a few more.
TEST_F(SnapshotsInARow, of_a_file_system_move_the_tracks_that_differ_needs_root) {
    const Source source = {"ext4", "/dev/qz/dmp/p4", "/data", "/copy"};
    make(source);
    for (int round = 1; round <= rounds; ++round) {
        const std::string number = std::to_string(round);
        const Phase one = phase(
            {"freeze",
             "-",
             "/data",
             "/copy",
             "ctl",
             "4",
             "run",
             "fsfreeze -f /data",
             "commit",
             "run",
             "fsfreeze -u /data",
             "run",
             "cd /data && sha256sum * >/exchange/before 2>&1;"
             " yes round" +
                 number + " | head -c 200000 >/data/new" + number + " && sync",
             "volumes",
             "run",
             "cd /copy && { sha256sum * 2>&1; true; } | cmp - /exchange/before",
             "thaw",
             "run",
             sound("ext4", "/dev/sdt"),
             "run",
             "for d in qz/dmp/p4 sdt; do dd if=/dev/$d of=/exchange/${d##*/} bs=1M iflag=direct"
             " status=none; done; cd /exchange; cmp -l p4 sdt |"
             " awk '{ t[int(($1 - 1) / 65536)] } END { print length(t) }' >differ",
             "thaw_commit"});
        expect_all_succeed(one);
        const int differ = atoi(saved("differ").c_str());
        const int64_t moved = tracks_moved("00B2", "01B2", "000184500777");
        EXPECT_GE(differ, 4) << "round " << round;
        EXPECT_GE(moved, differ) << "round " << round;
        EXPECT_LE(moved, differ + 4) << "round " << round;
        array("clock advance 1");
        ASSERT_EQ(pair_state("00B2", "01B2", "000184500777"), 2);
    }
    expect_nothing_left("/copy");
    host("umount /data");
    expect_sound("ext4", "/dev/qz/dmp/p4");
}

}  // namespace
}  // namespace test
