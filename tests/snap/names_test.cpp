// Block and raw names of one device.
#include <gtest/gtest.h>

#include <cstring>
#include <string>

#include "tests/snap/snap_fixture.h"
#include "tests/support/allocation_faults.h"

namespace {

using test::Snap;

std::string raw_of(const char *block) {
    char out[1024];
    EXPECT_EQ(blocktoraw(block, out, sizeof out), out);
    return out;
}

std::string block_of(const char *raw) {
    const snap::OwnedText block(raw_to_block(raw));
    return block.get();
}

TEST_F(Snap, the_raw_twin_of_a_volume_stands_in_rdsk) {
    EXPECT_EQ(raw_of("/dev/qz/dsk/dg1/vol1"), "/dev/qz/rdsk/dg1/vol1");
}

TEST_F(Snap, the_raw_twin_of_a_multipath_device_stands_in_rdmp) {
    EXPECT_EQ(raw_of("/dev/qz/dmp/c1t0d0s2"), "/dev/qz/rdmp/c1t0d0s2");
    EXPECT_EQ(raw_of("/dev/qz/dmp/disk_0"), "/dev/qz/rdmp/disk_0");
}

TEST_F(Snap, only_eleven_characters_of_the_block_name_are_looked_at) {
    EXPECT_EQ(raw_of("/dev/qz/dsk"), "/dev/qz/rdsk");
    EXPECT_EQ(raw_of("/dev/qz/dmpX"), "/dev/qz/rdmpX");
}

TEST_F(Snap, any_other_path_is_its_own_raw_twin) {
    for (const char *path : {"/dev/sdb", "/dev/qz/rdsk/dg/v", "/dev/qz/ds", "/dev/qz/other", ""}) {
        EXPECT_EQ(raw_of(path), path);
    }
}

TEST_F(Snap, the_raw_name_is_cut_to_the_buffer) {
    char out[20];
    memset(out, 'z', sizeof out);
    blocktoraw("/dev/qz/dsk/dg/vol", out, 15);
    EXPECT_STREQ(out, "/dev/qz/rdsk/d");
    EXPECT_EQ(out[15], 'z');
    blocktoraw("/dev/sdbcdefghijklmnop", out, 9);
    EXPECT_STREQ(out, "/dev/sdb");
    blocktoraw("/dev/qz/dsk/dg/vol", out, 5);
    EXPECT_STREQ(out, "/dev");
}

TEST_F(Snap, the_block_twin_of_a_raw_volume_stands_in_dsk) {
    EXPECT_EQ(block_of("/dev/qz/rdsk/dg/v"), "/dev/qz/dsk/dg/v");
}

TEST_F(Snap, the_block_twin_of_a_raw_multipath_device_stands_in_dmp) {
    EXPECT_EQ(block_of("/dev/qz/rdmpX"), "/dev/qz/dmpX");
}

TEST_F(Snap, any_other_path_is_its_own_block_twin) {
    for (const char *path : {"/dev/sdb", "/dev/qz/dsk/dg/v", "/dev/qz/rds", ""}) {
        EXPECT_EQ(block_of(path), path);
    }
}

TEST_F(Snap, names_of_any_length_have_a_block_twin) {
    const std::string tail(5000, 'x');
    EXPECT_EQ(block_of(("/dev/qz/rdsk/" + tail).c_str()), "/dev/qz/dsk/" + tail);
}

TEST_F(Snap, a_block_name_without_memory_is_null_and_says_how_much_was_wanted) {
    test::fail_allocation(1);
    EXPECT_EQ(raw_to_block("/dev/sdb"), nullptr);
    EXPECT_EQ(happened(), "couldn't allocate 9 bytes for buffer of blkdev: /dev/sdb\n");
}

}  // namespace
