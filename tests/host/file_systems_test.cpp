// Mount, unmount and check of real file systems on real block devices.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <string>
#include <vector>

#include "tessera_host.h"
#include "tests/support/loop_device.h"
#include "tests/support/private_root.h"

namespace {

constexpr uint64_t megabyte = 1024 * 1024;
constexpr char copy_dir[] = "/mnt/copy";

int shell(const std::string &command) {
    const int status = system(command.c_str());
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

bool is_mounted_on(const std::string &dir) {
    struct stat here = {}, above = {};
    return stat(dir.c_str(), &here) == 0 && stat((dir + "/..").c_str(), &above) == 0 &&
           here.st_dev != above.st_dev;
}

size_t mounts() {
    std::ifstream table("/proc/self/mountinfo");
    size_t count = 0;
    for (std::string line; std::getline(table, line);) ++count;
    return count;
}

// A call's record with its error output in a file.
struct Call {
    Call() {
        Q_sys_cmd_exec_options_init(&options);
        options.out_fd = options.err_fd = open(path, O_WRONLY | O_CREAT | O_TRUNC, 0600);
    }
    ~Call() {
        close(options.err_fd);
        unlink(path);
    }
    std::string said() const { return test::read_file(path); }

    static constexpr char path[] = "/tmp/said";
    Q_sys_cmd_exec_options options;
};

struct FileSystem : testing::Test {
    FileSystem() {
        test::make_folders(copy_dir);
        test::make_folders("/mnt/other");
    }
    ~FileSystem() override {
        while (umount2(copy_dir, 0) == 0) {
        }
        umount2("/mnt/other", 0);
    }
    static void make_ext4(const test::LoopDevice &device) {
        ASSERT_EQ(shell("mkfs.ext4 -q -F " + device.path() + " 8M"), 0);
    }
    static int mount_copy(const test::LoopDevice &device, const char *type = "ext4") {
        return Q_mount(device.path().c_str(), copy_dir, type, 0, nullptr);
    }
};

TEST_F(FileSystem, ext4_is_checked_mounted_and_unmounted_needs_root) {
    SKIP_WITHOUT_ROOT();
    const test::LoopDevice device(8 * megabyte);
    make_ext4(device);
    Call call;
    EXPECT_EQ(Q_fsck(device.path().c_str(), "ext4", 0, &call.options), 0);
    EXPECT_EQ(call.options.exit_status, 0);
    EXPECT_NE(call.said().find("clean"), std::string::npos) << call.said();
    EXPECT_EQ(Q_mount(device.path().c_str(), copy_dir, "ext4", 0, &call.options), 0);
    EXPECT_TRUE(is_mounted_on(copy_dir));
    EXPECT_EQ(Q_umount(copy_dir, 0, &call.options), 0);
    EXPECT_FALSE(is_mounted_on(copy_dir));
}

TEST_F(FileSystem, type_that_is_not_given_is_found_needs_root) {
    SKIP_WITHOUT_ROOT();
    const test::LoopDevice device(8 * megabyte);
    make_ext4(device);
    EXPECT_EQ(mount_copy(device, ""), 0);
    EXPECT_TRUE(is_mounted_on(copy_dir));
}

TEST_F(FileSystem, mount_of_the_wrong_type_fails_with_the_program_s_status_and_words_needs_root) {
    SKIP_WITHOUT_ROOT();
    const test::LoopDevice device(8 * megabyte);
    make_ext4(device);
    Call call;
    EXPECT_NE(Q_mount(device.path().c_str(), copy_dir, "xfs", 0, &call.options), 0);
    EXPECT_EQ(call.options.exit_status, 32);
    EXPECT_NE(call.said().find("wrong fs type"), std::string::npos) << call.said();
}

TEST_F(FileSystem, mount_on_the_very_directory_again_changes_nothing_needs_root) {
    SKIP_WITHOUT_ROOT();
    const test::LoopDevice device(8 * megabyte);
    make_ext4(device);
    ASSERT_EQ(mount_copy(device), 0);
    const size_t before = mounts();
    Call call;
    call.options.exit_status = 99;
    EXPECT_EQ(Q_mount(device.path().c_str(), copy_dir, "ext4", 0, &call.options), 0);
    EXPECT_EQ(call.options.exit_status, 0);
    EXPECT_EQ(mounts(), before);
    // The directory under another name, and a link to the device, are the same two.
    ASSERT_EQ(symlink("copy", "/mnt/link"), 0);
    ASSERT_EQ(symlink(device.path().c_str(), "/mnt/device"), 0);
    EXPECT_EQ(Q_mount("/mnt/device", "/mnt/./link", "ext4", 0, nullptr), 0);
    EXPECT_EQ(mounts(), before);
}

TEST_F(FileSystem, mounted_directory_with_a_blank_in_its_name_is_recognised_needs_root) {
    SKIP_WITHOUT_ROOT();
    const test::LoopDevice device(8 * megabyte);
    make_ext4(device);
    const char *dir = "/mnt/a \\b\tc";
    test::make_folders(dir);
    EXPECT_EQ(Q_mount(device.path().c_str(), dir, "ext4", 0, nullptr), 0);
    const size_t before = mounts();
    EXPECT_EQ(Q_mount(device.path().c_str(), dir, "ext4", 0, nullptr), 0);
    EXPECT_EQ(mounts(), before);
    EXPECT_EQ(Q_umount(dir, 0, nullptr), 0);
}

TEST_F(FileSystem, device_mounted_elsewhere_fails_like_the_program_needs_root) {
    SKIP_WITHOUT_ROOT();
    const test::LoopDevice device(8 * megabyte);
    make_ext4(device);
    ASSERT_EQ(Q_mount(device.path().c_str(), "/mnt/other", "ext4", 0, nullptr), 0);
    Call call;
    EXPECT_NE(mount_copy(device), 0);
    EXPECT_NE(Q_mount(device.path().c_str(), copy_dir, "ext4", 0, &call.options), 0);
    EXPECT_EQ(call.options.exit_status, 32);
    EXPECT_EQ(call.said(),
              "mount: /mnt/copy: " + device.path() + " already mounted on /mnt/other.\n");
    EXPECT_FALSE(is_mounted_on(copy_dir));
}

TEST_F(FileSystem, device_that_is_mounted_there_and_elsewhere_is_mounted_there_needs_root) {
    SKIP_WITHOUT_ROOT();
    const test::LoopDevice device(8 * megabyte);
    make_ext4(device);
    ASSERT_EQ(Q_mount(device.path().c_str(), "/mnt/other", "ext4", 0, nullptr), 0);
    ASSERT_EQ(mount("/mnt/other", copy_dir, nullptr, MS_BIND, nullptr), 0);
    const size_t before = mounts();
    EXPECT_EQ(mount_copy(device), 0);
    EXPECT_EQ(Q_mount(device.path().c_str(), "/mnt/other", "ext4", 0, nullptr), 0);
    EXPECT_EQ(mounts(), before);
}

TEST_F(FileSystem,
       device_hidden_below_another_mount_on_the_directory_is_mounted_elsewhere_needs_root) {
    SKIP_WITHOUT_ROOT();
    const test::LoopDevice device(8 * megabyte);
    make_ext4(device);
    ASSERT_EQ(mount_copy(device), 0);
    ASSERT_EQ(mount("tmpfs", copy_dir, "tmpfs", 0, nullptr), 0);
    EXPECT_NE(mount_copy(device), 0);
}

TEST_F(FileSystem, part_of_the_device_mounted_on_the_directory_is_mounted_elsewhere_needs_root) {
    SKIP_WITHOUT_ROOT();
    const test::LoopDevice device(8 * megabyte);
    make_ext4(device);
    ASSERT_EQ(Q_mount(device.path().c_str(), "/mnt/other", "ext4", 0, nullptr), 0);
    ASSERT_EQ(mkdir("/mnt/other/sub", 0755), 0);
    ASSERT_EQ(mount("/mnt/other/sub", copy_dir, nullptr, MS_BIND, nullptr), 0);
    ASSERT_EQ(umount2("/mnt/other", 0), 0);
    EXPECT_NE(mount_copy(device), 0);
}

TEST_F(FileSystem, xfs_copy_beside_its_primary_is_mounted_needs_root) {
    SKIP_WITHOUT_ROOT();
    const test::LoopDevice primary(320 * megabyte), copy(320 * megabyte);
    ASSERT_EQ(shell("mkfs.xfs -q -f " + primary.path()), 0);
    ASSERT_EQ(mount(primary.path().c_str(), "/mnt/other", "xfs", 0, nullptr), 0);
    test::write_file("/mnt/other/file", "content");
    ASSERT_EQ(shell("sync -f /mnt/other && fsfreeze -f /mnt/other && cp --sparse=always " +
                    primary.image() + " " + copy.image() + " ; fsfreeze -u /mnt/other"),
              0);
    Call call;
    EXPECT_EQ(Q_fsck(copy.path().c_str(), "xfs", 0, &call.options), 0);
    // Both carry one identifier: without the option the kernel refuses the second.
    EXPECT_EQ(mount(copy.path().c_str(), copy_dir, "xfs", 0, nullptr), -1);
    EXPECT_EQ(mount_copy(copy, "xfs"), 0) << call.said();
    EXPECT_EQ(test::read_file(std::string(copy_dir) + "/file"), "content");
}

TEST_F(FileSystem, unmount_of_what_is_not_mounted_fails_needs_root) {
    SKIP_WITHOUT_ROOT();
    Call call;
    EXPECT_NE(Q_umount(copy_dir, 0, &call.options), 0);
    EXPECT_EQ(call.options.exit_status, 32);
    EXPECT_NE(call.said().find("not mounted"), std::string::npos) << call.said();
}

TEST_F(FileSystem, unmount_of_a_busy_file_system_fails_and_leaves_it_needs_root) {
    SKIP_WITHOUT_ROOT();
    const test::LoopDevice device(8 * megabyte);
    make_ext4(device);
    ASSERT_EQ(mount_copy(device), 0);
    const int busy = open(copy_dir, O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    Call call;
    EXPECT_NE(Q_umount(copy_dir, 0, &call.options), 0);
    EXPECT_EQ(call.options.exit_status, 32);
    EXPECT_TRUE(is_mounted_on(copy_dir));
    close(busy);
    EXPECT_EQ(Q_umount(copy_dir, 0, &call.options), 0);
}

TEST_F(FileSystem, check_that_repairs_is_a_success_with_status_1_needs_root) {
    SKIP_WITHOUT_ROOT();
    const test::LoopDevice device(8 * megabyte);
    make_ext4(device);
    // A wrong count of free blocks is put right without a question.
    ASSERT_EQ(
        shell("debugfs -w -R 'ssv free_blocks_count 1' " + device.path() +
              " 2>/dev/null && debugfs -w -R 'ssv state 0' " + device.path() + " 2>/dev/null"),
        0);
    Call call;
    EXPECT_EQ(Q_fsck(device.path().c_str(), "ext4", 0, &call.options), 0) << call.said();
    EXPECT_EQ(call.options.exit_status, 1) << call.said();
    EXPECT_EQ(Q_fsck(device.path().c_str(), "ext4", 0, &call.options), 0);
    EXPECT_EQ(call.options.exit_status, 0);
}

TEST_F(FileSystem, check_of_a_device_without_a_file_system_fails_needs_root) {
    SKIP_WITHOUT_ROOT();
    const test::LoopDevice device(8 * megabyte);
    Call call;
    EXPECT_NE(Q_fsck(device.path().c_str(), "ext4", 0, &call.options), 0);
    EXPECT_EQ(call.options.exit_status, 8) << call.said();
    EXPECT_NE(call.said(), "");
}

TEST_F(FileSystem, check_of_a_missing_device_fails_needs_root) {
    SKIP_WITHOUT_ROOT();
    Call call;
    EXPECT_NE(Q_fsck("/dev/no-such", "ext4", 0, &call.options), 0);
    EXPECT_EQ(call.options.exit_status, 8) << call.said();
}

TEST_F(FileSystem, check_of_a_mounted_device_fails_whatever_its_checker_thinks_needs_root) {
    SKIP_WITHOUT_ROOT();
    const test::LoopDevice device(320 * megabyte);
    ASSERT_EQ(shell("mkfs.xfs -q -f " + device.path()), 0);
    ASSERT_EQ(mount_copy(device, "xfs"), 0);
    Call call;
    EXPECT_NE(Q_fsck(device.path().c_str(), "xfs", 0, &call.options), 0);
    EXPECT_EQ(call.options.exit_status, 8);
    EXPECT_EQ(call.said(), "fsck: " + device.path() + " is mounted or in use.\n");
    ASSERT_EQ(Q_umount(copy_dir, 0, nullptr), 0);
    EXPECT_EQ(Q_fsck(device.path().c_str(), "xfs", 0, nullptr), 0);
}

TEST_F(FileSystem, check_of_a_device_that_another_process_holds_fails_needs_root) {
    SKIP_WITHOUT_ROOT();
    const test::LoopDevice device(320 * megabyte);
    ASSERT_EQ(shell("mkfs.xfs -q -f " + device.path()), 0);
    const int holder = open(device.path().c_str(), O_RDONLY | O_EXCL | O_CLOEXEC);
    ASSERT_GE(holder, 0);
    EXPECT_NE(Q_fsck(device.path().c_str(), "xfs", 0, nullptr), 0);
    close(holder);
    EXPECT_EQ(Q_fsck(device.path().c_str(), "xfs", 0, nullptr), 0);
}

// A device of unknown state may be in use: nothing is run on it.
TEST_F(FileSystem, nothing_is_run_without_the_table_of_mounts_needs_root) {
    SKIP_WITHOUT_ROOT();
    const test::LoopDevice device(16 * megabyte);
    make_ext4(device);
    ASSERT_EQ(shell("mount -t tmpfs none /proc"), 0);
    Call mounting;
    EXPECT_NE(Q_mount(device.path().c_str(), copy_dir, "ext4", 0, &mounting.options), 0);
    EXPECT_EQ(mounting.options.exit_status, 2);
    EXPECT_EQ(mounting.said(),
              "mount: /mnt/copy: cannot tell whether " + device.path() + " is mounted.\n");
    Call checking;
    EXPECT_NE(Q_fsck(device.path().c_str(), "ext4", 0, &checking.options), 0);
    EXPECT_EQ(checking.options.exit_status, 8);
    EXPECT_EQ(checking.said(), "fsck: cannot tell whether " + device.path() + " is mounted.\n");
    ASSERT_EQ(umount("/proc"), 0);
    EXPECT_EQ(mount_copy(device), 0);
}

TEST_F(FileSystem, table_of_mounts_that_breaks_off_is_as_good_as_none_needs_root) {
    SKIP_WITHOUT_ROOT();
    const test::LoopDevice device(16 * megabyte);
    make_ext4(device);
    // Reading it gives an error from the first byte on.
    ASSERT_EQ(shell("mount -t tmpfs none /proc && mkdir /proc/self /proc/self/mountinfo"), 0);
    Call call;
    EXPECT_NE(Q_mount(device.path().c_str(), copy_dir, "ext4", 0, &call.options), 0);
    EXPECT_EQ(call.options.exit_status, 2);
    ASSERT_EQ(umount("/proc"), 0);
    EXPECT_FALSE(is_mounted_on(copy_dir));
}

TEST_F(FileSystem, names_that_are_no_device_paths_run_nothing) {
    Call call;
    for (const char *name : {"", "UUID=1234", "LABEL=x", "-a", "relative"}) {
        EXPECT_NE(Q_mount(name, copy_dir, "ext4", 0, &call.options), 0) << name;
        EXPECT_EQ(call.options.exit_status, 1);
        EXPECT_NE(Q_fsck(name, "ext4", 0, &call.options), 0) << name;
        EXPECT_EQ(call.options.exit_status, 16);
    }
    EXPECT_NE(Q_mount(nullptr, copy_dir, "ext4", 0, &call.options), 0);
    EXPECT_NE(Q_mount("/dev/null", nullptr, "ext4", 0, &call.options), 0);
    EXPECT_NE(Q_mount("/dev/null", copy_dir, "ext4", 1, &call.options), 0);
    EXPECT_NE(Q_fsck(nullptr, "ext4", 0, &call.options), 0);
    EXPECT_NE(Q_fsck("/dev/null", "ext4", 1, &call.options), 0);
}

// What is put between the method and the programs: the whole command line of each.
struct CommandLine : FileSystem {
    static void record(const std::string &program) {
        unlink(program.c_str());
        test::write_script(program, "printf '%s\\n' \"$0 $*\" >/tmp/line");
    }
    static std::string line() {
        const std::string text = test::read_file("/tmp/line");
        unlink("/tmp/line");
        return text;
    }
};

TEST_F(CommandLine, of_a_mount) {
    record("/usr/bin/mount");
    EXPECT_EQ(Q_mount("/dev/qz/dsk/dg/vol", copy_dir, "ext4", 0, nullptr), 0);
    EXPECT_EQ(line(), "/usr/bin/mount -t ext4 -- /dev/qz/dsk/dg/vol /mnt/copy\n");
    EXPECT_EQ(Q_mount("/dev/qz/dsk/dg/vol", copy_dir, "xfs", 0, nullptr), 0);
    EXPECT_EQ(line(), "/usr/bin/mount -t xfs -o nouuid -- /dev/qz/dsk/dg/vol /mnt/copy\n");
    EXPECT_EQ(Q_mount("/dev/qz/dsk/dg/vol", copy_dir, nullptr, 0, nullptr), 0);
    EXPECT_EQ(line(), "/usr/bin/mount -- /dev/qz/dsk/dg/vol /mnt/copy\n");
}

TEST_F(CommandLine, of_an_unmount) {
    record("/usr/bin/umount");
    EXPECT_EQ(Q_umount(copy_dir, 0, nullptr), 0);
    EXPECT_EQ(line(), "/usr/bin/umount -- /mnt/copy\n");
}

TEST_F(CommandLine, of_a_check) {
    record("/usr/sbin/fsck");
    EXPECT_EQ(Q_fsck("/dev/qz/rdsk/dg/vol", "ext4", 0, nullptr), 0);
    EXPECT_EQ(line(), "/usr/sbin/fsck -T -t ext4 -p /dev/qz/rdsk/dg/vol\n");
    for (const char *type : {"", static_cast<const char *>(nullptr)}) {
        EXPECT_EQ(Q_fsck("/dev/qz/rdsk/dg/vol", type, 0, nullptr), 0);
        EXPECT_EQ(line(), "/usr/sbin/fsck -T -p /dev/qz/rdsk/dg/vol\n");
    }
}

TEST_F(CommandLine, of_a_check_of_a_device_that_cannot_be_opened_needs_root) {
    SKIP_WITHOUT_ROOT();
    // A node without a device: the program may say what is wrong with it.
    ASSERT_EQ(mknod("/dev/absent", S_IFBLK | 0600, makedev(199, 7)), 0);
    record("/usr/sbin/fsck");
    EXPECT_EQ(Q_fsck("/dev/absent", "ext4", 0, nullptr), 0);
    EXPECT_EQ(line(), "/usr/sbin/fsck -T -t ext4 -p /dev/absent\n");
    unlink("/dev/absent");
}

TEST_F(CommandLine, check_takes_statuses_0_and_1_as_success_and_any_other_bit_as_failure) {
    for (int status = 0; status < 256; status = status * 2 + (status == 0 ? 1 : 0)) {
        unlink("/usr/sbin/fsck");
        test::write_script("/usr/sbin/fsck", "exit " + std::to_string(status));
        Q_sys_cmd_exec_options options;
        Q_sys_cmd_exec_options_init(&options);
        const int result = Q_fsck("/dev/null", "ext4", 0, &options);
        EXPECT_EQ(result == 0, status == 0 || status == 1) << status;
        EXPECT_EQ(options.exit_status, status);
    }
    test::write_script("/usr/sbin/fsck", "exit 3");
    EXPECT_NE(Q_fsck("/dev/null", "ext4", 0, nullptr), 0);
}

}  // namespace
