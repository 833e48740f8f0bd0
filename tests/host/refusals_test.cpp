// What is refused runs nothing. Scripts that would succeed stand in for the programs.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <unistd.h>

#include <cstdlib>
#include <string>

#include "tessera_host.h"
#include "tests/support/loop_device.h"
#include "tests/support/private_root.h"

namespace {

constexpr uint64_t megabyte = 1024 * 1024;
constexpr char device_path[] = "/dev/copy";
constexpr char copy_dir[] = "/mnt/copy";
constexpr uid_t nobody = 65534;

struct Refusal : testing::Test {
    Refusal() {
        for (const char *program : {"/usr/bin/mount", "/usr/bin/umount", "/usr/sbin/fsck"}) {
            unlink(program);
            test::write_script(program, "printf '%s\\n' \"${0##*/} $*\" >>/tmp/ran; echo ran >&2");
        }
        test::make_folders(copy_dir);
        Q_sys_cmd_exec_options_init(&options);
        options.err_fd = open("/tmp/said", O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
    }
    ~Refusal() override {
        close(options.err_fd);
        for (const char *file : {"/tmp/said", "/tmp/ran", "/tmp/pipe"}) unlink(file);
    }
    void expect_refused(int result, int status, const std::string &line) {
        EXPECT_EQ(result, 1);
        EXPECT_EQ(options.exit_status, status);
        EXPECT_EQ(test::read_file("/tmp/said"), line);
        EXPECT_EQ(test::read_file("/tmp/ran"), "");
        EXPECT_EQ(ftruncate(options.err_fd, 0), 0);
        lseek(options.err_fd, 0, SEEK_SET);
    }
    static std::string ran() { return test::read_file("/tmp/ran"); }

    Q_sys_cmd_exec_options options;
};

TEST_F(Refusal, flag_that_is_not_known_is_bad_usage) {
    expect_refused(Q_mount(device_path, copy_dir, "ext4", 1, &options), 1, "mount: bad usage\n");
    expect_refused(Q_umount(copy_dir, 2, &options), 1, "umount: bad usage\n");
    expect_refused(Q_fsck(device_path, "ext4", -1, &options), 16, "fsck: bad usage\n");
}

TEST_F(Refusal, directory_that_is_missing_or_empty_is_bad_usage) {
    for (const char *dir : {static_cast<const char *>(nullptr), ""}) {
        expect_refused(Q_mount(device_path, dir, "ext4", 0, &options), 1, "mount: bad usage\n");
        expect_refused(Q_umount(dir, 0, &options), 1, "umount: bad usage\n");
    }
}

TEST_F(Refusal, device_that_is_no_path_is_bad_usage) {
    for (const char *name : {static_cast<const char *>(nullptr), "", "copy", "-a"}) {
        expect_refused(Q_mount(name, copy_dir, "ext4", 0, &options), 1, "mount: bad usage\n");
        expect_refused(Q_fsck(name, "ext4", 0, &options), 16, "fsck: bad usage\n");
    }
}

TEST_F(Refusal, refusal_without_a_record_is_silent) {
    EXPECT_EQ(Q_mount(device_path, copy_dir, "ext4", 1, nullptr), 1);
    EXPECT_EQ(Q_fsck(device_path, "ext4", 1, nullptr), 1);
    EXPECT_EQ(ran(), "");
}

TEST_F(Refusal, check_without_a_type_leaves_it_to_the_checker) {
    EXPECT_EQ(Q_fsck(device_path, nullptr, 0, &options), 0);
    EXPECT_EQ(Q_fsck(device_path, "", 0, &options), 0);
    EXPECT_EQ(ran(), "fsck -T -p /dev/copy\nfsck -T -p /dev/copy\n");
}

TEST_F(Refusal, pipe_in_the_place_of_a_device_is_left_to_the_checker_without_opening_it) {
    ASSERT_EQ(mkfifo("/tmp/pipe", 0600), 0);
    EXPECT_EQ(Q_fsck("/tmp/pipe", "ext4", 0, &options), 0);
    EXPECT_EQ(ran(), "fsck -T -t ext4 -p /tmp/pipe\n");
}

TEST_F(Refusal, device_without_a_driver_is_left_to_the_checker_needs_root) {
    SKIP_WITHOUT_ROOT();
    ASSERT_EQ(mknod(device_path, S_IFBLK | 0600, makedev(511, 77)), 0);
    EXPECT_EQ(Q_fsck(device_path, "ext4", 0, &options), 0);
    EXPECT_EQ(ran(), "fsck -T -t ext4 -p /dev/copy\n");
}

// A mounted loop device with an ext4; the programs for it are still there under their own names.
struct MountedRefusal : Refusal {
    void SetUp() override {
        SKIP_WITHOUT_ROOT();
        ASSERT_EQ(system(("mkfs.ext4 -q -F " + device.path() + " 8M").c_str()), 0);
        test::make_folders("/mnt/other");
        ASSERT_EQ(mount(device.path().c_str(), "/mnt/other", "ext4", 0, nullptr), 0);
    }
    void TearDown() override { umount2("/mnt/other", 0); }

    std::string in_use() const { return "fsck: " + device.path() + " is mounted or in use.\n"; }

    test::LoopDevice device{8 * megabyte};
};

TEST_F(MountedRefusal, device_that_may_not_even_be_opened_is_known_by_the_table_needs_root) {
    chmod(device.path().c_str(), 0600);
    ASSERT_EQ(seteuid(nobody), 0);
    const int result = Q_fsck(device.path().c_str(), "ext4", 0, &options);
    ASSERT_EQ(seteuid(0), 0);
    expect_refused(result, 8, in_use());
}

TEST_F(MountedRefusal, folder_inside_the_mount_is_elsewhere_needs_root) {
    test::make_folders("/mnt/other/sub");
    expect_refused(Q_mount(device.path().c_str(), "/mnt/other/sub", "ext4", 0, &options), 32,
                   "mount: /mnt/other/sub: " + device.path() + " already mounted on /mnt/other.\n");
}

TEST_F(MountedRefusal, character_device_of_the_same_number_is_another_device_needs_root) {
    struct stat status = {};
    ASSERT_EQ(stat(device.path().c_str(), &status), 0);
    ASSERT_EQ(mknod(device_path, S_IFCHR | 0600, status.st_rdev), 0);
    EXPECT_EQ(Q_mount(device_path, copy_dir, "ext4", 0, &options), 0);
    EXPECT_EQ(ran(), "mount -t ext4 -- /dev/copy /mnt/copy\n");
}

}  // namespace
