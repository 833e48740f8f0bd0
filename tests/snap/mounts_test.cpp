// Look-ups in the mount table.
#include <gtest/gtest.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <string>

#include "tests/snap/snap_fixture.h"
#include "tests/support/allocation_faults.h"

namespace {

using test::events;
using test::Snap;

constexpr char table[] =
    "/dev/root / ext4 rw 0 0\n"
    "/dev/qz/dsk/dg/data /data qzfs rw 0 0\n"
    "/dev/sdc /data/deep/er ufs rw 0 0\n"
    "/dev/sdd /data/deep xfs rw 0 0\n";

class Mounts : public Snap {
  protected:
    Mounts() {
        test::write_mount_table(table);
        test::write_file("/data/deep/er/file", "");
        test::write_file("/database/x", "");
    }
    // "result name type" of a look-up whose outputs held something before.
    template <class Lookup>
    static std::string look_up(Lookup lookup, const char *path) {
        char before[] = "before";
        char *name = before;
        char *type = before;
        const int result = lookup(path, &name, &type);
        return std::to_string(result) + " " + text(name) + " " + text(type);
    }
};

TEST_F(Mounts, fstomp_finds_the_mount_whose_directory_is_the_longest_prefix) {
    EXPECT_EQ(look_up(fstomp, "/data/deep/er/file"), "0 /dev/sdc ufs");
    EXPECT_EQ(look_up(fstomp, "/data/deep"), "0 /dev/sdd xfs");
    EXPECT_EQ(look_up(fstomp, "/data/file"), "0 /dev/qz/dsk/dg/data qzfs");
    EXPECT_EQ(look_up(fstomp, "/etc/passwd"), "0 /dev/root ext4");
}

// Frameworks have recorded these answers; a check for the "/" would change the device of a path.
TEST_F(Mounts, fstomp_takes_a_prefix_that_ends_inside_a_name) {
    EXPECT_EQ(look_up(fstomp, "/database/x"), "0 /dev/qz/dsk/dg/data qzfs");
}

TEST_F(Mounts, fstomp_keeps_the_first_of_two_mounts_on_one_directory) {
    test::write_mount_table("/dev/one /data ext4 rw 0 0\n/dev/two /data xfs rw 0 0\n");
    EXPECT_EQ(look_up(fstomp, "/data"), "0 /dev/one ext4");
}

TEST_F(Mounts, fstomp_without_a_match_succeeds_with_null_outputs) {
    test::write_mount_table("/dev/one /other ext4 rw 0 0\n");
    EXPECT_EQ(look_up(fstomp, "/data"), "0 null null");
}

TEST_F(Mounts, fstomp_resolves_the_path_and_says_so) {
    ASSERT_EQ(symlink("/data/deep", "/link"), 0);
    EXPECT_EQ(look_up(fstomp, "/link/er/file"), "0 /dev/sdc ufs");
    EXPECT_EQ(happened(), "realpath returned linkname as /data/deep/er/file for /link/er/file\n");
}

TEST_F(Mounts, fstomp_takes_a_path_that_cannot_be_resolved_as_it_is) {
    EXPECT_EQ(look_up(fstomp, "/data/deep/er/none"), "0 /dev/sdc ufs");
    EXPECT_EQ(happened(), "realpath returned NULL for fsname /data/deep/er/none\n");
}

TEST_F(Mounts, fstoblock_finds_the_mount_on_exactly_this_directory) {
    EXPECT_EQ(look_up(fstoblock, "/data"), "0 /dev/qz/dsk/dg/data qzfs");
    EXPECT_EQ(look_up(fstoblock, "/data/"), "0 /dev/qz/dsk/dg/data qzfs");
    EXPECT_EQ(look_up(fstoblock, "/data/deep/er/file"), "0 null null");
    EXPECT_EQ(look_up(fstoblock, "/database"), "0 null null");
}

TEST_F(Mounts, fstoblock_takes_the_first_of_two_mounts) {
    test::write_mount_table("/dev/one /data ext4 rw 0 0\n/dev/two /data xfs rw 0 0\n");
    EXPECT_EQ(look_up(fstoblock, "/data"), "0 /dev/one ext4");
}

TEST_F(Mounts, fstoblock_says_how_the_path_was_resolved) {
    look_up(fstoblock, "/data/deep/../");
    EXPECT_EQ(happened(), "realpath returned linkname as /data for /data/deep/../\n");
    events().clear();
    look_up(fstoblock, "/none");
    EXPECT_EQ(happened(), "realpath returned NULL for fsname /none\n");
}

TEST_F(Mounts, fstoraw_gives_the_raw_device_and_says_what_matched) {
    ASSERT_EQ(symlink("/data", "/link"), 0);
    EXPECT_EQ(look_up(fstoraw, "/link"), "0 /dev/qz/rdsk/dg/data qzfs");
    EXPECT_EQ(happened(),
              "realpath returned linkname as /data for /link\n"
              "matched /link to mnttab entry /data\n");
}

TEST_F(Mounts, fstoraw_gives_a_device_without_a_raw_twin_as_it_is) {
    EXPECT_EQ(look_up(fstoraw, "/data/deep"), "0 /dev/sdd xfs");
}

TEST_F(Mounts, fstoraw_without_a_match_succeeds_with_null_outputs) {
    EXPECT_EQ(look_up(fstoraw, "/none"), "0 null null");
    EXPECT_EQ(happened(), "realpath returned NULL for partition /none\n");
}

TEST_F(Mounts, find_mnt_finds_the_mount_of_the_block_twin) {
    EXPECT_EQ(look_up(find_mnt, "/dev/qz/rdsk/dg/data"), "0 /data qzfs");
    EXPECT_EQ(happened(), "mount device: /data fstype: qzfs\n");
}

TEST_F(Mounts, find_mnt_takes_the_first_of_two_mounts_of_a_device) {
    test::write_mount_table("/dev/sdd /first xfs rw 0 0\n/dev/sdd /second xfs rw 0 0\n");
    EXPECT_EQ(look_up(find_mnt, "/dev/sdd"), "0 /first xfs");
}

TEST_F(Mounts, find_mnt_without_a_match_gives_14) {
    EXPECT_EQ(look_up(find_mnt, "/dev/qz/rdsk/dg/other"), "14 null null");
    EXPECT_EQ(happened(), "");
}

TEST_F(Mounts, find_mnt_without_a_block_name_gives_14) {
    test::fail_allocation(1);
    EXPECT_EQ(look_up(find_mnt, "/dev/sdd"), "14 null null");
    EXPECT_EQ(happened(),
              "couldn't allocate 9 bytes for buffer of blkdev: /dev/sdd\n"
              "Could not convert raw device /dev/sdd to block device\n");
}

TEST_F(Mounts, every_look_up_without_a_mount_table_gives_14_and_null_outputs) {
    unlink("/etc/mtab");
    EXPECT_EQ(look_up(fstomp, "/data"), "14 null null");
    EXPECT_EQ(look_up(fstoblock, "/data"), "14 null null");
    EXPECT_EQ(look_up(fstoraw, "/data"), "14 null null");
    EXPECT_EQ(look_up(find_mnt, "/dev/sdd"), "14 null null");
    EXPECT_EQ(happened(),
              "couldn't open /etc/mtab\ncouldn't open /etc/mtab\n"
              "couldn't open /etc/mtab\ncouldn't open /etc/mtab\n");
}

TEST_F(Mounts, each_look_up_has_buffers_of_its_own) {
    char *device, *block, *raw, *dir, *type;
    fstomp("/etc/passwd", &device, &type);
    fstoblock("/data", &block, &type);
    fstoraw("/data", &raw, &type);
    find_mnt("/dev/sdd", &dir, &type);
    EXPECT_STREQ(device, "/dev/root");
    EXPECT_STREQ(block, "/dev/qz/dsk/dg/data");
    EXPECT_STREQ(raw, "/dev/qz/rdsk/dg/data");
    EXPECT_STREQ(dir, "/data/deep");
    char *second = nullptr;
    fstoblock("/data/deep", &second, &type);
    EXPECT_EQ(second, block);
    EXPECT_STREQ(block, "/dev/sdd");
}

TEST_F(Mounts, names_are_cut_to_1023_and_types_to_63_characters) {
    const std::string device = "/dev/" + std::string(1500, 'd');
    const std::string type = std::string(100, 't');
    test::write_mount_table(device + " /data " + type + " rw 0 0\n");
    const std::string cut = "0 " + device.substr(0, 1023) + " " + type.substr(0, 63);
    EXPECT_EQ(look_up(fstomp, "/data"), cut);
    EXPECT_EQ(look_up(fstoblock, "/data"), cut);
    EXPECT_EQ(look_up(fstoraw, "/data"), cut);
}

TEST_F(Mounts, a_directory_found_by_its_device_is_cut_to_1023_and_its_type_to_63_characters) {
    const std::string folder = "/" + std::string(1500, 'f');
    const std::string type = std::string(100, 't');
    test::write_mount_table("/dev/sde " + folder + " " + type + " rw 0 0\n");
    EXPECT_EQ(look_up(find_mnt, "/dev/sde"),
              "0 " + folder.substr(0, 1023) + " " + type.substr(0, 63));
}

TEST_F(Mounts, a_blank_in_a_directory_is_read_back_from_its_escape) {
    test::write_mount_table("/dev/sde /with\\040blank ext4 rw 0 0\n");
    EXPECT_EQ(look_up(fstoblock, "/with blank"), "0 /dev/sde ext4");
}

}  // namespace
