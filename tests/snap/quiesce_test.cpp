// Stopping and resuming writes.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <cerrno>
#include <string>

#include "tests/snap/snap_fixture.h"
#include "tests/support/allocation_faults.h"

namespace {

using test::calls;
using test::events;
using test::Snap;

constexpr char tool[] = "/usr/sbin/lockfs";

// A lockfs that ends with the given status and remembers its arguments.
void install_lockfs(int status) {
    test::write_script(tool, "echo \"$@\" >> /lockfs.log; exit " + std::to_string(status));
}

void answer_ioctl(int error) {
    calls().real_ioctl = false;
    calls().ioctl_error = error;
}

bool is_open(int fd) {
    return fcntl(fd, F_GETFD) != -1;
}

TEST_F(Snap, lock_fs_of_ufs_flushes_and_runs_lockfs_with_two_blanks) {
    install_lockfs(0);
    EXPECT_EQ(lock_fs("/data", "ufs"), 0);
    EXPECT_EQ(happened(), "call: sync\ncall: system /usr/sbin/lockfs -w  /data\n");
    EXPECT_EQ(test::read_file("/lockfs.log"), "-w /data\n");
}

TEST_F(Snap, lock_fs_of_ufs_gives_the_path_as_one_word) {
    install_lockfs(0);
    EXPECT_EQ(lock_fs("/a b;$(touch /ran)", "ufs"), 0);
    EXPECT_EQ(happened(), "call: sync\ncall: system /usr/sbin/lockfs -w  '/a b;$(touch /ran)'\n");
    EXPECT_EQ(test::read_file("/lockfs.log"), "-w /a b;$(touch /ran)\n");
    EXPECT_FALSE(test::exists("/ran"));
}

TEST_F(Snap, lock_fs_of_ufs_runs_nothing_without_memory_for_the_quotes) {
    install_lockfs(0);
    test::fail_allocation(1);
    EXPECT_EQ(lock_fs("/a b", "ufs"), -1);
    test::no_more_faults();
    EXPECT_EQ(happened(),
              "call: sync\nsystem command /usr/sbin/lockfs -w  /a b failed errno=12\n\n"
              "exec of command /usr/sbin/lockfs -w  failed\n");
    EXPECT_FALSE(test::exists("/lockfs.log"));
}

// lockfs fails for a file system that is locked already; backups go on with it.
TEST_F(Snap, lock_fs_of_ufs_succeeds_although_the_command_failed) {
    install_lockfs(1);
    EXPECT_EQ(lock_fs("/data", "ufs"), 0);
    EXPECT_EQ(events().back(), "system command /usr/sbin/lockfs -w  /data failed errno=0\n");
}

TEST_F(Snap, lock_fs_of_ufs_fails_when_the_command_cannot_be_run) {
    const test::SystemFault no_shell("system", 1, EAGAIN);
    EXPECT_EQ(lock_fs("/data", "ufs"), -1);
    EXPECT_EQ(events().back(), "exec of command /usr/sbin/lockfs -w  failed");
}

TEST_F(Snap, lock_fs_of_qzfs_freezes_for_300_seconds_and_returns_the_open_descriptor) {
    answer_ioctl(0);
    test::make_folders("/data");
    const int frozen = lock_fs("/data", "qzfs");
    ASSERT_GE(frozen, 0);
    EXPECT_EQ(happened(), "call: ioctl 0x564f4c64 300\n");
    EXPECT_EQ(fcntl(frozen, F_GETFD) & FD_CLOEXEC, FD_CLOEXEC);
    EXPECT_EQ(fcntl(frozen, F_GETFL) & O_ACCMODE, O_RDONLY);
    EXPECT_EQ(unlock_fs("/data", "qzfs", frozen), 0);
}

TEST_F(Snap, lock_fs_of_qzfs_fails_for_a_path_that_cannot_be_opened) {
    EXPECT_EQ(lock_fs("/nowhere", "qzfs"), -1);
    EXPECT_EQ(happened(), "open of /nowhere failed, errno 2\n");
}

TEST_F(Snap, lock_fs_of_qzfs_fails_on_a_file_system_of_another_kind) {
    EXPECT_EQ(lock_fs("/usr", "qzfs"), -1);
    EXPECT_EQ(happened(), "call: ioctl 0x564f4c64 300\nQZ_FREEZE of /usr failed errno " +
                              std::to_string(ENOTTY) + "\n");
}

TEST_F(Snap, lock_fs_of_another_type_fails) {
    EXPECT_EQ(lock_fs("/data", "ext4"), -1);
    EXPECT_EQ(happened(), "invalid filesystem type ext4\n");
}

TEST_F(Snap, unlock_fs_of_ufs_runs_lockfs_without_a_flush) {
    install_lockfs(0);
    EXPECT_EQ(unlock_fs("/data", "ufs", -1), 0);
    EXPECT_EQ(happened(), "call: system /usr/sbin/lockfs -u  /data\n");
    EXPECT_EQ(test::read_file("/lockfs.log"), "-u /data\n");
}

TEST_F(Snap, unlock_fs_of_ufs_succeeds_although_the_command_failed) {
    install_lockfs(2);
    EXPECT_EQ(unlock_fs("/data", "ufs", -1), 0);
}

TEST_F(Snap, unlock_fs_of_ufs_fails_when_the_command_cannot_be_run) {
    const test::SystemFault no_shell("system", 1, EAGAIN);
    EXPECT_EQ(unlock_fs("/data", "ufs", 0), -1);
    EXPECT_EQ(events().back(), "exec of command /usr/sbin/lockfs -u  failed");
}

TEST_F(Snap, unlock_fs_of_qzfs_thaws_and_closes) {
    answer_ioctl(0);
    const int fd = lock_fs("/usr", "qzfs");
    events().clear();
    EXPECT_EQ(unlock_fs("/usr", "qzfs", fd), 0);
    EXPECT_EQ(happened(), "call: ioctl 0x564f4c65 0\n");
    EXPECT_FALSE(is_open(fd));
}

TEST_F(Snap, unlock_fs_of_qzfs_refuses_a_negative_descriptor) {
    EXPECT_EQ(unlock_fs("/usr", "qzfs", -1), -1);
    EXPECT_EQ(happened(), "invalid file descriptor -1\n");
}

TEST_F(Snap, unlock_fs_of_qzfs_closes_although_the_thaw_failed) {
    const int fd = open("/usr", O_RDONLY | O_CLOEXEC);
    EXPECT_EQ(unlock_fs("/usr", "qzfs", fd), -1);
    EXPECT_EQ(events().back(), "QZ_THAW of /usr failed, errno " + std::to_string(ENOTTY));
    EXPECT_FALSE(is_open(fd));
}

TEST_F(Snap, unlock_fs_of_qzfs_reports_a_close_that_fails) {
    EXPECT_EQ(unlock_fs("/usr", "qzfs", 900), -1);
    EXPECT_EQ(happened(),
              "call: ioctl 0x564f4c65 0\n"
              "QZ_THAW of /usr failed, errno 9\n"
              "close of /usr failed, errno 9\n");
    events().clear();
    answer_ioctl(0);
    EXPECT_EQ(unlock_fs("/usr", "qzfs", 900), -1);
    EXPECT_EQ(happened(), "call: ioctl 0x564f4c65 0\nclose of /usr failed, errno 9\n");
}

TEST_F(Snap, unlock_fs_of_another_type_fails) {
    EXPECT_EQ(unlock_fs("/data", "xfs", 3), -1);
    EXPECT_EQ(happened(), "invalid filesystem type xfs\n");
}

TEST_F(Snap, locksnap_of_ufs_says_so_flushes_and_runs_lockfs) {
    install_lockfs(0);
    EXPECT_EQ(locksnap("/data", 1, 0), 0);
    EXPECT_EQ(happened(),
              "Issuing ufs LOCK_FS for /data\n"
              "call: sync\n"
              "call: system /usr/sbin/lockfs -w  /data\n");
}

TEST_F(Snap, locksnap_of_ufs_succeeds_although_the_command_failed) {
    install_lockfs(1);
    EXPECT_EQ(locksnap("/data", 1, 0), 0);
}

TEST_F(Snap, locksnap_of_ufs_returns_a_negative_status) {
    const test::SystemFault no_shell("system", 1, EAGAIN);
    EXPECT_EQ(locksnap("/data", 1, 0), -1);
}

TEST_F(Snap, locksnap_takes_ufs_when_both_flags_are_set) {
    install_lockfs(0);
    EXPECT_EQ(locksnap("/usr", 1, 1), 0);
    EXPECT_EQ(qz_fd, -1);
    EXPECT_EQ(unlocksnap("/usr", 1, 1), 0);
    EXPECT_EQ(test::read_file("/lockfs.log"), "-w /usr\n-u /usr\n");
}

TEST_F(Snap, locksnap_of_qzfs_freezes_for_5_seconds_and_keeps_the_descriptor) {
    answer_ioctl(0);
    EXPECT_EQ(locksnap("/usr", 0, 1), 0);
    EXPECT_EQ(happened(), "Issuing qzfs QZ_FREEZE for /usr\ncall: ioctl 0x564f4c64 5\n");
    ASSERT_GE(qz_fd, 0);
    EXPECT_EQ(fcntl(qz_fd, F_GETFD) & FD_CLOEXEC, FD_CLOEXEC);
    EXPECT_NE(snap::freeze_asked.tv_sec, 0);
    EXPECT_GE(snap::freeze_done.tv_sec, snap::freeze_asked.tv_sec);
    EXPECT_EQ(unlocksnap("/usr", 0, 1), 0);
}

TEST_F(Snap, locksnap_of_qzfs_returns_the_error_of_a_failed_open) {
    EXPECT_EQ(locksnap("/nowhere", 0, 1), ENOENT);
    EXPECT_EQ(happened(), "Issuing qzfs QZ_FREEZE for /nowhere\n");
    EXPECT_EQ(qz_fd, -1);
}

TEST_F(Snap, locksnap_of_qzfs_closes_and_returns_the_error_of_a_refused_freeze) {
    EXPECT_EQ(locksnap("/usr", 0, 1), ENOTTY);
    EXPECT_EQ(qz_fd, -1);
    answer_ioctl(EBUSY);
    EXPECT_EQ(locksnap("/usr", 0, 1), EBUSY);
    EXPECT_EQ(qz_fd, -1);
}

// Only -1 is a failure of a request, and only then is there an error number.
TEST_F(Snap, a_driver_that_answers_a_request_with_more_than_0_has_not_failed) {
    answer_ioctl(0);
    calls().ioctl_result = 1;
    errno = 0;
    EXPECT_EQ(locksnap("/usr", 0, 1), 0);
    EXPECT_GE(qz_fd, 0);
    EXPECT_EQ(unlocksnap("/usr", 0, 1), 0);
    EXPECT_EQ(qz_fd, -1);
    const int fd = lock_fs("/usr", "qzfs");
    EXPECT_GE(fd, 0);
    EXPECT_EQ(unlock_fs("/usr", "qzfs", fd), 0);
    EXPECT_EQ(happened(),
              "Issuing qzfs QZ_FREEZE for /usr\n"
              "call: ioctl 0x564f4c64 5\n"
              "call: ioctl 0x564f4c65 0\n"
              "call: ioctl 0x564f4c64 300\n"
              "call: ioctl 0x564f4c65 0\n");
}

int spoil_errno(int, const char *, int length) {
    errno = EXDEV;
    return length;
}

TEST_F(Snap, a_sink_that_changes_the_error_number_does_not_change_a_result) {
    sn_set_errf(&spoil_errno, 2, 0);
    EXPECT_EQ(locksnap("/nowhere", 0, 1), ENOENT);
    answer_ioctl(EBUSY);
    EXPECT_EQ(locksnap("/usr", 0, 1), EBUSY);
    answer_ioctl(0);
    EXPECT_EQ(locksnap("/usr", 0, 1), 0);
    answer_ioctl(EIO);
    EXPECT_EQ(unlocksnap("/usr", 0, 1), EIO);
}

// "/usr/sbin/lockfs -w  " in front of the path; 1023 characters are run, 1024 are not.
TEST_F(Snap, a_ufs_path_whose_command_does_not_fit_is_not_locked) {
    install_lockfs(0);
    const std::string longest = "/" + std::string(1023 - 21 - 1, 'a');
    EXPECT_EQ(lock_fs(longest.c_str(), "ufs"), 0);
    EXPECT_EQ(locksnap(longest.c_str(), 1, 0), 0);
    EXPECT_EQ(unlocksnap(longest.c_str(), 1, 0), 0);
    EXPECT_EQ(test::read_file("/lockfs.log"),
              "-w " + longest + "\n-w " + longest + "\n-u " + longest + "\n");
    unlink("/lockfs.log");
    const std::string longer = longest + "a";
    EXPECT_EQ(lock_fs(longer.c_str(), "ufs"), -1);
    EXPECT_EQ(locksnap(longer.c_str(), 1, 0), -1);
    EXPECT_EQ(unlocksnap(longer.c_str(), 1, 0), 0);
    // One character less, and two that quoting adds.
    std::string quoted = longest;
    quoted[5] = ' ';
    EXPECT_EQ(lock_fs(quoted.c_str(), "ufs"), -1);
    EXPECT_FALSE(test::exists("/lockfs.log"));
}

TEST_F(Snap, locksnap_of_neither_kind_does_nothing) {
    EXPECT_EQ(locksnap("/usr", 0, 0), 0);
    EXPECT_EQ(happened(), "");
}

TEST_F(Snap, a_second_locksnap_takes_the_place_of_the_first_and_leaks_no_descriptor) {
    answer_ioctl(0);
    EXPECT_EQ(locksnap("/usr", 0, 1), 0);
    EXPECT_EQ(locksnap("/etc", 0, 1), 0);
    char name[64] = "";
    EXPECT_GT(readlink(("/proc/self/fd/" + std::to_string(qz_fd)).c_str(), name, sizeof name - 1),
              0);
    EXPECT_STREQ(name, "/etc");
    EXPECT_EQ(unlocksnap("/etc", 0, 1), 0);
    EXPECT_EQ(qz_fd, -1);
}

TEST_F(Snap, a_second_locksnap_that_fails_forgets_and_closes_the_first) {
    answer_ioctl(0);
    EXPECT_EQ(locksnap("/usr", 0, 1), 0);
    const int first = qz_fd;
    EXPECT_EQ(locksnap("/nowhere", 0, 1), ENOENT);
    EXPECT_EQ(qz_fd, -1);
    EXPECT_FALSE(is_open(first));
    events().clear();
    EXPECT_EQ(unlocksnap("/usr", 0, 1), 0);
    EXPECT_EQ(happened(), "");
}

TEST_F(Snap, unlocksnap_of_ufs_returns_0_whatever_the_command_did) {
    install_lockfs(1);
    EXPECT_EQ(unlocksnap("/data", 1, 0), 0);
    EXPECT_EQ(test::read_file("/lockfs.log"), "-u /data\n");
    const test::SystemFault no_shell("system", 1, EAGAIN);
    EXPECT_EQ(unlocksnap("/data", 1, 0), 0);
    EXPECT_EQ(events().back(), "system command /usr/sbin/lockfs -u  /data failed errno=11\n");
}

TEST_F(Snap, unlocksnap_of_qzfs_thaws_and_closes_the_kept_descriptor) {
    answer_ioctl(0);
    locksnap("/usr", 0, 1);
    const int fd = qz_fd;
    events().clear();
    EXPECT_EQ(unlocksnap("/usr", 0, 1), 0);
    EXPECT_EQ(happened(), "call: ioctl 0x564f4c65 0\n");
    EXPECT_EQ(qz_fd, -1);
    EXPECT_FALSE(is_open(fd));
}

TEST_F(Snap, unlocksnap_of_qzfs_returns_the_error_of_a_refused_thaw_and_closes) {
    answer_ioctl(0);
    locksnap("/usr", 0, 1);
    answer_ioctl(EPERM);
    EXPECT_EQ(unlocksnap("/usr", 0, 1), EPERM);
    EXPECT_EQ(events().back(), "QZ_THAW returned 1");
    EXPECT_EQ(qz_fd, -1);
}

TEST_F(Snap, unlocksnap_of_qzfs_without_a_freeze_returns_0_and_asks_for_nothing) {
    EXPECT_EQ(unlocksnap("/usr", 0, 1), 0);
    EXPECT_EQ(happened(), "");
}

TEST_F(Snap, unlocksnap_of_neither_kind_leaves_a_freeze_alone) {
    answer_ioctl(0);
    locksnap("/usr", 0, 1);
    events().clear();
    EXPECT_EQ(unlocksnap("/usr", 0, 0), 0);
    EXPECT_EQ(happened(), "");
    EXPECT_GE(qz_fd, 0);
    unlocksnap("/usr", 0, 1);
}

}  // namespace
