// Checking and mounting the copy of a file system.
#include <sys/stat.h>
#include <unistd.h>

#include "tests/method/volumes_fixture.h"

namespace {

class VolumesFileSystem : public test::VolumesTest {};

TEST_F(VolumesFileSystem, file_system_is_checked_on_the_raw_and_mounted_from_the_block_device) {
    hdef *h = new_ready_volume(TF_OBJECT_FILE_SYSTEM);
    give_transfer_file(h, "/tmp/EMCTXtest");
    ASSERT_EQ(volumes(h), 0);
    EXPECT_EQ(test::fake_host().calls,
              (test::Lines{"fsck /dev/qz/rdsk/datadg_clone/vola ext4 0",
                           "mount /dev/qz/dsk/datadg_clone/vola /mnt/copy ext4 0"}));
    EXPECT_STREQ(path, "/dev/qz/rdsk/datadg_clone/vola");
    EXPECT_EQ(h->is_mount, 1);
    EXPECT_EQ(count, 1);
    EXPECT_EQ(whole_log(), "mount the file system\n");
    EXPECT_TRUE(has_no_capture_files(h));
    EXPECT_FALSE(test::exists("/tmp/EMCTXtest"));
}

TEST_F(VolumesFileSystem, file_system_on_a_plain_device_is_mounted_from_the_mirror_needs_root) {
    if (!test::is_real_root()) GTEST_SKIP() << "chown needs the machine's root";
    hdef *h = new_mirrored_device(TF_OBJECT_FILE_SYSTEM);
    tf::put(h->fstype, "ext4");
    ASSERT_EQ(volumes(h), 0);
    EXPECT_EQ(test::fake_host().calls, (test::Lines{"fsck /dev/qz/rdmp/b0 ext4 0",
                                                    "mount /dev/qz/dmp/b0 /mnt/copy ext4 0"}));
    EXPECT_EQ(count, 0);
}

TEST_F(VolumesFileSystem, commands_write_into_the_capture_files_which_start_empty) {
    hdef *h = new_ready_volume(TF_OBJECT_FILE_SYSTEM);
    test::write_file(h->out_file, "old output", 0600);
    std::string seen;
    test::fake_host().on_command = [&](const std::string &, const Q_sys_cmd_exec_options &options) {
        struct stat status = {};
        fstat(options.out_fd, &status);
        seen +=
            std::to_string(status.st_size) + " " + std::to_string(status.st_mode & 07777U) + ";";
        EXPECT_EQ(write(options.out_fd, "out\n", 4), 4);
        EXPECT_EQ(write(options.err_fd, "err\n", 4), 4);
    };
    ASSERT_EQ(volumes(h), 0);
    EXPECT_EQ(seen, "0 384;0 384;");
}

TEST_F(VolumesFileSystem, failed_check_is_reported_and_dumped_and_still_hands_the_raw_path_out) {
    hdef *h = new_ready_volume(TF_OBJECT_FILE_SYSTEM);
    give_transfer_file(h, "/tmp/EMCTXtest");
    test::fake_host().fsck_result = -4;
    test::fake_host().fsck_exit = 5;
    test::fake_host().on_command = [](const std::string &, const Q_sys_cmd_exec_options &options) {
        EXPECT_EQ(write(options.out_fd, "pass 1\n", 7), 7);
        EXPECT_EQ(write(options.err_fd, "broken\n", 7), 7);
    };
    EXPECT_EQ(volumes(h), 11);
    const std::string message =
        "TimeFinder_volumes: Q_fsck(/dev/qz/rdsk/datadg_clone/vola, ext4) failed with status=-4, "
        "exit_status=5(Input/output error)";
    expect_failure(3, message);
    const std::string out = h->out_file;
    const std::string err = h->err_file;
    EXPECT_EQ(whole_log(), message + "\n--- Dumping file " + out + " (stdout):\n    pass 1\n" +
                               "--- End of file " + out + "\n--- Dumping file " + err +
                               " (stderr):\n    broken\n--- End of file " + err + "\n");
    EXPECT_EQ(test::fake_host().calls.size(), 1U);
    EXPECT_STREQ(path, "/dev/qz/rdsk/datadg_clone/vola");
    EXPECT_EQ(h->is_mount, 0);
    EXPECT_EQ(count, 1);
    EXPECT_TRUE(has_no_capture_files(h));
    EXPECT_TRUE(test::exists("/tmp/EMCTXtest"));
    EXPECT_STREQ(h->transfer_file, "/tmp/EMCTXtest");
}

TEST_F(VolumesFileSystem, failed_mount_is_reported_and_dumped) {
    hdef *h = new_ready_volume(TF_OBJECT_FILE_SYSTEM);
    give_transfer_file(h, "/tmp/EMCTXtest");
    test::fake_host().mount_result = 1;
    test::fake_host().mount_exit = 32;
    EXPECT_EQ(volumes(h), 11);
    const std::string message =
        "TimeFinder_volumes: Q_mount() failed with status=1, exit_status=32(Broken pipe)";
    expect_failure(3, message);
    EXPECT_TRUE(whole_log().starts_with("mount the file system\n" + message +
                                        "\n--- Dumping file " + h->out_file + " (stdout):\n"));
    EXPECT_TRUE(whole_log().ends_with("--- End of file " + std::string(h->err_file) + "\n"));
    EXPECT_EQ(h->is_mount, 0);
    EXPECT_STREQ(path, "/dev/qz/rdsk/datadg_clone/vola");
    EXPECT_TRUE(has_no_capture_files(h));
    EXPECT_TRUE(test::exists("/tmp/EMCTXtest"));
}

TEST_F(VolumesFileSystem, stream_that_cannot_be_opened_is_absent_and_the_command_runs) {
    hdef *h = new_ready_volume(TF_OBJECT_FILE_SYSTEM);
    unlink(h->out_file);
    test::make_folders(h->out_file);
    int out_fd = 0;
    test::fake_host().on_command = [&](const std::string &, const Q_sys_cmd_exec_options &options) {
        out_fd = options.out_fd;
    };
    EXPECT_EQ(volumes(h), 0);
    EXPECT_EQ(out_fd, -1);
    rmdir(h->out_file);
}

// What is mounted from an earlier call stays so, and the thaw has to know of it.
TEST_F(VolumesFileSystem, mark_of_an_earlier_mount_outlives_a_failed_check_and_a_failed_mount) {
    hdef *h = new_ready_volume(TF_OBJECT_FILE_SYSTEM);
    h->is_mount = 1;
    test::fake_host().fsck_result = 1;
    EXPECT_EQ(volumes(h), 11);
    EXPECT_EQ(test::fake_host().calls.size(), 1U);
    EXPECT_EQ(h->is_mount, 1);
    test::fake_host().fsck_result = 0;
    test::fake_host().mount_result = 1;
    EXPECT_EQ(volumes(h), 11);
    EXPECT_EQ(test::fake_host().calls.size(), 3U);
    EXPECT_EQ(h->is_mount, 1);
}

}  // namespace
