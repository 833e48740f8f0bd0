// What a path is: statdev and fsdevinfo.
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstring>
#include <string>

#include "tests/snap/snap_fixture.h"
#include "tests/support/allocation_faults.h"
#include "tests/support/counters.h"

namespace {

using test::events;
using test::Snap;

constexpr char raw_volume[] = "/dev/qz/rdsk/dg/vol";
constexpr char block_volume[] = "/dev/qz/dsk/dg/vol";

// What statdev made of a path.
class Statdev : public Snap {
  protected:
    Statdev() {
        test::write_mount_table(
            "/dev/qz/dsk/dg/vol /data qzfs rw 0 0\n"
            "/dev/qz/dsk/dg/old /old ufs rw 0 0\n"
            "/dev/null /null ext4 rw 0 0\n"
            "/dev/sdx /gone qzfs rw 0 0\n"
            "/etc/passwd /file qzfs rw 0 0\n");
        for (const char *folder : {"/data", "/old", "/null", "/gone", "/file"}) {
            test::make_folders(folder);
        }
    }
    int look_at(const std::string &path) {
        Q_strlcpy(buffer, path.c_str(), sizeof buffer);
        device = buffer;
        return statdev(&device, &status, &mount_dir, &is_ufs, &is_qzfs);
    }
    void look_at_and_abort(char **path, struct stat *result) {
        test::count_until_an_abort();
        statdev(path, result, &mount_dir, &is_ufs, &is_qzfs);
    }

    char before[8] = "before";
    char buffer[1024] = "";
    char *device = buffer;
    char *mount_dir = before;
    struct stat status = {};
    int is_ufs = 0, is_qzfs = 0;
};

TEST_F(Statdev, aborts_for_a_null_path_and_names_the_condition) {
    char *null_device = nullptr;
    EXPECT_DEATH(look_at_and_abort(&null_device, &status), "\\*dev != \\(\\(void \\*\\)0\\)");
}

TEST_F(Statdev, aborts_for_a_null_status_and_names_the_condition) {
    EXPECT_DEATH(look_at_and_abort(&device, nullptr), "statbuf != \\(\\(void \\*\\)0\\)");
}

TEST_F(Statdev, a_relative_path_gives_2) {
    EXPECT_EQ(look_at("dev/null"), 2);
    EXPECT_EQ(mount_dir, nullptr);
    EXPECT_EQ(look_at(""), 2);
    EXPECT_EQ(happened(), "");
}

TEST_F(Statdev, a_path_that_does_not_exist_gives_13) {
    EXPECT_EQ(look_at("/nowhere"), 13);
    EXPECT_EQ(happened(), "stat on /nowhere failed errno=2\n");
    EXPECT_EQ(mount_dir, nullptr);
}

TEST_F(Statdev, a_raw_device_needs_root_and_keeps_its_name) {
    SKIP_UNLESS_NODES();
    test::make_node(raw_volume, S_IFCHR);
    EXPECT_EQ(look_at(raw_volume), 0);
    EXPECT_EQ(device, buffer);
    EXPECT_STREQ(device, raw_volume);
    EXPECT_STREQ(mount_dir, "/data");
    EXPECT_TRUE(S_ISCHR(status.st_mode));
    EXPECT_EQ(is_qzfs, 1);
    EXPECT_EQ(is_ufs, 0);
}

TEST_F(Statdev, a_raw_device_that_is_not_mounted_is_a_success_without_a_directory) {
    EXPECT_EQ(look_at("/dev/zero"), 0);
    EXPECT_STREQ(device, "/dev/zero");
    EXPECT_EQ(mount_dir, nullptr);
    EXPECT_EQ(is_ufs + is_qzfs, 0);
}

TEST_F(Statdev, of_ufs_sets_the_ufs_flag_needs_root) {
    SKIP_UNLESS_NODES();
    test::make_node("/dev/qz/rdsk/dg/old", S_IFCHR);
    EXPECT_EQ(look_at("/dev/qz/rdsk/dg/old"), 0);
    EXPECT_EQ(is_ufs, 1);
    EXPECT_EQ(is_qzfs, 0);
}

TEST_F(Statdev, of_another_type_sets_no_flag_and_clears_none) {
    is_ufs = is_qzfs = 5;
    EXPECT_EQ(look_at("/dev/null"), 0);
    EXPECT_STREQ(mount_dir, "/null");
    EXPECT_EQ(is_ufs, 5);
    EXPECT_EQ(is_qzfs, 5);
}

TEST_F(Statdev, a_type_that_only_begins_like_a_known_one_sets_no_flag) {
    test::write_mount_table("/dev/null /null ufsx rw 0 0\n/dev/zero /zero qzfs2 rw 0 0\n");
    EXPECT_EQ(look_at("/dev/null"), 0);
    EXPECT_EQ(look_at("/dev/zero"), 0);
    EXPECT_EQ(is_ufs + is_qzfs, 0);
}

// The old length is all the room that the caller is known to have; a whole name would be written
// past the buffer.
TEST_F(Statdev, a_block_device_becomes_its_raw_name_cut_to_the_old_length_needs_root) {
    SKIP_UNLESS_NODES();
    test::make_node(block_volume, S_IFBLK);
    memset(buffer, 'z', sizeof buffer);
    EXPECT_EQ(look_at(block_volume), 0);
    EXPECT_EQ(device, buffer);
    EXPECT_STREQ(device, "/dev/qz/rdsk/dg/vo");
    EXPECT_EQ(buffer[strlen(block_volume) + 1], 'z');
    EXPECT_STREQ(mount_dir, "/data");
    EXPECT_TRUE(S_ISBLK(status.st_mode));
    EXPECT_EQ(is_qzfs, 1);
}

TEST_F(Statdev, a_block_device_without_a_raw_twin_keeps_its_name_needs_root) {
    SKIP_UNLESS_NODES();
    test::make_node("/dev/sdq", S_IFBLK);
    EXPECT_EQ(look_at("/dev/sdq"), 0);
    EXPECT_STREQ(device, "/dev/sdq");
    EXPECT_EQ(mount_dir, nullptr);
}

// A volume "part" of the set that is mounted as "vol".
void put_volume_in_a_set() {
    test::write_script("/usr/sbin/qzvset",
                       "[ \"$*\" = '-g dg list' ] && printf 'NAME\\nvol\\n' && exit\n"
                       "[ \"$*\" = '-g dg list vol' ] && printf 'VOLUME\\npart\\n'");
}

TEST_F(Statdev, a_component_of_a_mounted_set_has_the_sets_mount_needs_root) {
    SKIP_UNLESS_NODES();
    put_volume_in_a_set();
    test::make_node("/dev/qz/rdsk/dg/part", S_IFCHR);
    test::make_node("/dev/qz/dsk/dg/part", S_IFBLK);
    for (const char *path : {"/dev/qz/rdsk/dg/part", "/dev/qz/dsk/dg/part"}) {
        is_qzfs = 0;
        EXPECT_EQ(look_at(path), 0);
        EXPECT_STREQ(mount_dir, "/data");
        EXPECT_EQ(is_qzfs, 1);
    }
    EXPECT_STREQ(device, "/dev/qz/rdsk/dg/par");
}

TEST_F(Statdev, a_directory_becomes_the_raw_device_mounted_there_needs_root) {
    SKIP_UNLESS_NODES();
    test::make_node(raw_volume, S_IFCHR);
    EXPECT_EQ(look_at("/data"), 0);
    EXPECT_NE(device, buffer);
    EXPECT_STREQ(device, raw_volume);
    EXPECT_EQ(mount_dir, buffer);
    EXPECT_STREQ(mount_dir, "/data");
    EXPECT_TRUE(S_ISCHR(status.st_mode));
    EXPECT_EQ(is_qzfs, 1);
}

TEST_F(Statdev, a_directory_where_nothing_is_mounted_gives_6) {
    EXPECT_EQ(look_at("/usr"), 6);
    EXPECT_EQ(events().back(), "/usr not a disk device or a file system");
    EXPECT_STREQ(device, "/usr");
    EXPECT_EQ(mount_dir, nullptr);
}

TEST_F(Statdev, a_directory_without_a_mount_table_gives_6) {
    unlink("/etc/mtab");
    EXPECT_EQ(look_at("/data"), 6);
    EXPECT_EQ(happened(), "couldn't open /etc/mtab\n/data not a disk device or a file system\n");
}

TEST_F(Statdev, a_directory_whose_raw_device_is_gone_gives_13_after_the_names_were_replaced) {
    EXPECT_EQ(look_at("/gone"), 13);
    EXPECT_EQ(events().back(), "stat on /dev/sdx failed errno=2");
    EXPECT_STREQ(device, "/dev/sdx");
    EXPECT_STREQ(mount_dir, "/gone");
    EXPECT_EQ(is_qzfs, 0);
}

TEST_F(Statdev, a_directory_whose_raw_device_is_none_gives_6) {
    EXPECT_EQ(look_at("/file"), 6);
    EXPECT_EQ(events().back(), "/etc/passwd not a disk device");
    EXPECT_STREQ(device, "/etc/passwd");
}

// What fsdevinfo made of a path.
class Fsdevinfo : public Statdev {
  protected:
    ~Fsdevinfo() override {
        if (block_is_owned) free(block);
    }
    int describe(const char *path) {
        kind = raw = block = mount = type = before;
        const int result = fsdevinfo(path, &kind, &raw, &block, &mount, &type);
        block_is_owned = block != nullptr && block != before && block != path;
        return result;
    }
    std::string outputs() const {
        return text(kind) + ", " + text(raw) + ", " + text(block) + ", " + text(mount) + ", " +
               text(type);
    }

    char *kind = nullptr, *raw = nullptr, *block = nullptr, *mount = nullptr, *type = nullptr;
    bool block_is_owned = false;
};

TEST_F(Fsdevinfo, a_null_path_gives_1_and_leaves_the_outputs_alone) {
    EXPECT_EQ(describe(nullptr), 1);
    EXPECT_EQ(happened(), "null input argument\n");
    EXPECT_EQ(outputs(), "before, before, before, before, before");
}

TEST_F(Fsdevinfo, a_relative_path_gives_2_after_the_four_names_were_cleared) {
    EXPECT_EQ(describe("dev/null"), 2);
    EXPECT_EQ(outputs(), "before, null, null, null, null");
    EXPECT_EQ(happened(), "");
}

TEST_F(Fsdevinfo, a_path_that_does_not_exist_gives_13) {
    EXPECT_EQ(describe("/nowhere"), 13);
    EXPECT_EQ(happened(), "stat on /nowhere failed errno=2\n");
    EXPECT_EQ(outputs(), "before, null, null, null, null");
}

TEST_F(Fsdevinfo, a_mounted_raw_device_has_both_names_needs_root) {
    SKIP_UNLESS_NODES();
    test::make_node(raw_volume, S_IFCHR);
    EXPECT_EQ(describe(raw_volume), 0);
    EXPECT_EQ(outputs(), "raw_device, /dev/qz/rdsk/dg/vol, /dev/qz/dsk/dg/vol, /data, qzfs");
    EXPECT_EQ(raw, raw_volume);
}

TEST_F(Fsdevinfo, a_raw_device_that_is_not_mounted_has_no_block_name) {
    EXPECT_EQ(describe("/dev/zero"), 0);
    EXPECT_EQ(outputs(), "raw_device, /dev/zero, null, null, null");
}

TEST_F(Fsdevinfo, a_raw_device_whose_block_name_has_no_memory_is_a_success_without_it) {
    test::fail_allocation(2);
    EXPECT_EQ(describe("/dev/null"), 0);
    EXPECT_EQ(outputs(), "raw_device, /dev/null, null, /null, ext4");
}

// Writes over whatever an earlier call has left on the stack.
[[gnu::noinline]] void overwrite_stack() {
    char rubbish[16384];
    memset(rubbish, 'r', sizeof rubbish);
    asm volatile("" : : "r"(rubbish) : "memory");
}

TEST_F(Fsdevinfo, a_block_device_has_a_raw_name_that_outlives_the_call_needs_root) {
    SKIP_UNLESS_NODES();
    test::make_node(block_volume, S_IFBLK);
    EXPECT_EQ(describe(block_volume), 0);
    overwrite_stack();
    EXPECT_EQ(outputs(), "block_device, /dev/qz/rdsk/dg/vol, /dev/qz/dsk/dg/vol, /data, qzfs");
    EXPECT_EQ(block, block_volume);
}

TEST_F(Fsdevinfo, a_component_of_a_mounted_set_has_the_sets_mount_and_its_own_names_needs_root) {
    SKIP_UNLESS_NODES();
    put_volume_in_a_set();
    test::make_node("/dev/qz/rdsk/dg/part", S_IFCHR);
    test::make_node("/dev/qz/dsk/dg/part", S_IFBLK);
    EXPECT_EQ(describe("/dev/qz/rdsk/dg/part"), 0);
    EXPECT_EQ(outputs(), "raw_device, /dev/qz/rdsk/dg/part, /dev/qz/dsk/dg/part, /data, qzfs");
    if (block_is_owned) free(block);
    EXPECT_EQ(describe("/dev/qz/dsk/dg/part"), 0);
    EXPECT_EQ(outputs(), "block_device, /dev/qz/rdsk/dg/part, /dev/qz/dsk/dg/part, /data, qzfs");
}

TEST_F(Fsdevinfo, a_block_device_that_is_not_mounted_is_a_success_needs_root) {
    SKIP_UNLESS_NODES();
    test::make_node("/dev/sdq", S_IFBLK);
    EXPECT_EQ(describe("/dev/sdq"), 0);
    EXPECT_EQ(outputs(), "block_device, /dev/sdq, /dev/sdq, null, null");
}

// The mount output of a file is a device; callers pass it on as one.
TEST_F(Fsdevinfo, a_file_has_the_device_of_its_mount_in_the_mount_output) {
    test::write_file("/null/file", "");
    EXPECT_EQ(describe("/null/file"), 0);
    EXPECT_EQ(outputs(), "regular, null, null, /dev/null, null");
}

// The second look-up, by the device's name, answers for the type as well; without a raw device
// there is nothing to check.
TEST_F(Fsdevinfo,
       a_file_whose_device_is_no_directory_of_a_mount_has_no_type_and_no_checked_device) {
    test::write_file("/data/file", "");
    EXPECT_EQ(describe("/data/file"), 0);
    EXPECT_EQ(outputs(), "regular, null, null, /dev/qz/dsk/dg/vol, null");
    EXPECT_EQ(happened(),
              "realpath returned linkname as /data/file for /data/file\n"
              "realpath returned NULL for partition /dev/qz/dsk/dg/vol\n");
}

TEST_F(Fsdevinfo, a_file_under_no_mount_says_so_and_succeeds_without_names) {
    test::write_mount_table("/dev/x /elsewhere ext4 rw 0 0\n");
    EXPECT_EQ(describe("/etc/passwd"), 0);
    EXPECT_EQ(outputs(), "regular, null, null, null, null");
    EXPECT_EQ(events().back(), "can't obtain mount point for /etc/passwd");
}

TEST_F(Fsdevinfo, a_file_without_a_mount_table_gives_14) {
    unlink("/etc/mtab");
    EXPECT_EQ(describe("/etc/passwd"), 14);
    EXPECT_EQ(happened(), "couldn't open /etc/mtab\ncan't obtain mount point for /etc/passwd\n");
    EXPECT_EQ(outputs(), "regular, null, null, null, null");
}

// A mount whose device name is itself the directory of a mount.
void chain_mounts(const std::string &device, const std::string &type) {
    test::make_folders("/inner");
    test::write_mount_table("/inner /data any rw 0 0\n" + device + " /inner " + type + " rw 0 0\n");
}

TEST_F(Fsdevinfo, the_names_of_a_file_are_those_of_a_mount_on_its_device_name) {
    chain_mounts("/dev/qz/dsk/dg/x", "ext4");
    EXPECT_EQ(describe("/data"), 0);
    EXPECT_EQ(outputs(), "regular, /dev/qz/rdsk/dg/x, /dev/qz/dsk/dg/x, /inner, ext4");
}

TEST_F(Fsdevinfo, a_raw_device_beneath_a_known_type_is_checked) {
    for (const char *type_name : {"qzfs", "ufs"}) {
        chain_mounts("/dev/zero", type_name);
        EXPECT_EQ(describe("/data"), 0);
        EXPECT_EQ(outputs(), std::string("regular, /dev/zero, /dev/zero, /inner, ") + type_name);
        if (block_is_owned) free(block);
        block_is_owned = false;
    }
}

// The block device is not known yet when these lines are written; they say "(null)".
TEST_F(Fsdevinfo, a_raw_device_beneath_a_known_type_that_is_gone_gives_13_naming_null) {
    chain_mounts("/dev/gone", "qzfs");
    EXPECT_EQ(describe("/data"), 13);
    EXPECT_EQ(events().back(), "stat on (null) failed errno=2");
    EXPECT_EQ(outputs(), "regular, /dev/gone, null, /inner, qzfs");
}

TEST_F(Fsdevinfo, a_raw_device_beneath_a_known_type_that_is_none_gives_6_naming_null) {
    chain_mounts("/etc/passwd", "ufs");
    EXPECT_EQ(describe("/data"), 6);
    EXPECT_EQ(events().back(), "(null) not a disk device");
}

// The mount table goes away between the two look-ups.
int remove_mount_table(int fd, const char *line, int length) {
    test::collect_event(fd, line, length);
    unlink("/etc/mtab");
    return length;
}

TEST_F(Fsdevinfo, a_mount_table_that_vanishes_between_the_look_ups_gives_14) {
    sn_set_errf(&remove_mount_table, 2, 0);
    EXPECT_EQ(describe("/data"), 14);
    EXPECT_EQ(events().back(), "can't obtain mount device for /data");
    EXPECT_EQ(outputs(), "regular, null, null, /dev/qz/dsk/dg/vol, null");
}

}  // namespace
