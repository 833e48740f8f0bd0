#include "method/lock_file.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>

#include "tests/method/lock_fixture.h"
#include "tests/support/system_faults.h"

namespace {

using test::counter;
using test::counter_folder;
using test::dead_process;
using test::lock_path;
using test::OtherProcess;

// Setting and clearing the lock of a record, within one process and among several.
class LockFile : public test::LockFixture {};

TEST_F(LockFile, first_set_on_a_new_file_counts_one_and_sees_issplit_0) {
    pm[0].issplit = 5;
    EXPECT_EQ(set(), 0);
    EXPECT_EQ(stored(), counter(getpid(), 1, 1));
    EXPECT_EQ(pm[0].issplit, 0);
    EXPECT_EQ(std::string(pm[0].lock_file), path);
    expect_no_failure();
}

TEST_F(LockFile, first_set_on_an_empty_file_counts_one_and_sees_issplit_0) {
    test::write_file(path, "");
    EXPECT_EQ(set(), 0);
    EXPECT_EQ(stored(), counter(getpid(), 1, 1));
    EXPECT_EQ(pm[0].issplit, 0);
}

TEST_F(LockFile, second_set_by_the_same_process_counts_two_and_sees_issplit_1) {
    EXPECT_EQ(set(0), 0);
    EXPECT_EQ(set(1), 0);
    EXPECT_EQ(stored(), counter(getpid(), 2, 1));
    EXPECT_EQ(pm[0].issplit, 0);
    EXPECT_EQ(pm[1].issplit, 1);
}

TEST_F(LockFile, serial_numbers_that_differ_in_their_last_two_characters_share_a_counter) {
    tf::put(pm[1].dev_raw_device, "/dev/00018450012300FF");
    EXPECT_EQ(set(0), 0);
    EXPECT_EQ(set(1), 0);
    EXPECT_EQ(std::string(pm[1].lock_file), path);
    EXPECT_EQ(stored(), counter(getpid(), 2, 1));
}

TEST_F(LockFile, serial_numbers_that_differ_earlier_have_counters_of_their_own) {
    tf::put(pm[1].dev_raw_device, "/dev/0001845001230101");
    EXPECT_EQ(set(0), 0);
    EXPECT_EQ(set(1), 0);
    EXPECT_EQ(std::string(pm[1].lock_file),
              std::string(counter_folder) + "/__LOCKFILE_0001845001230100");
    EXPECT_EQ(stored(), counter(getpid(), 1, 1));
    EXPECT_EQ(pm[1].issplit, 0);
}

TEST_F(LockFile, a_serial_number_of_one_character_loses_the_one_before_it) {
    tf::put(pm[0].dev_raw_device, "/dev/7");
    EXPECT_EQ(set(), 0);
    EXPECT_EQ(std::string(pm[0].lock_file), std::string(counter_folder) + "/__LOCKFILE00");
}

TEST_F(LockFile, a_serial_number_with_a_slash_makes_no_counter_file) {
    test::make_folders(std::string(counter_folder) + "/__LOCKFILE_x");
    tf::put(pm[0].dev_raw_device, "/dev/x/../../escaped");
    EXPECT_EQ(set(), -1);
    EXPECT_TRUE(logged(std::string("could not open file: ") + pm[0].lock_file));
    EXPECT_FALSE(test::exists("/usr/quill/tessera/online_util/escap00"));
    tf::put(pm[0].dev_raw_device, "/dev/123/5");
    EXPECT_EQ(set(), -1);
    EXPECT_FALSE(test::exists(std::string(counter_folder) + "/__LOCKFILE_12300"));
}

TEST_F(LockFile, files_are_made_for_the_owner_alone) {
    const mode_t mask = umask(0);
    EXPECT_EQ(set(), 0);
    umask(mask);
    for (const std::string &name : {path, std::string(lock_path)}) {
        struct stat status = {};
        ASSERT_EQ(stat(name.c_str(), &status), 0);
        EXPECT_EQ(status.st_mode, S_IFREG | 0600U);
    }
}

TEST_F(LockFile, clearing_one_of_two_leaves_the_other_counted) {
    set(0);
    set(1);
    pm[0].issplit = 0;
    EXPECT_EQ(clear(0), 0);
    EXPECT_EQ(stored(), counter(getpid(), 1, 1));
    EXPECT_EQ(pm[0].issplit, 1);
}

TEST_F(LockFile, clearing_the_last_object_removes_the_counter_file_alone) {
    set(0);
    set(1);
    EXPECT_EQ(clear(0), 0);
    EXPECT_EQ(clear(1), 0);
    EXPECT_FALSE(test::exists(path));
    EXPECT_TRUE(test::exists(lock_path));
    EXPECT_EQ(test::read_file(lock_path), "");
    EXPECT_FALSE(logged("could not unlink file: " + path));
}

TEST_F(LockFile, a_set_after_the_last_clear_starts_afresh) {
    set();
    clear();
    EXPECT_EQ(set(), 0);
    EXPECT_EQ(pm[0].issplit, 0);
    EXPECT_EQ(stored(), counter(getpid(), 1, 1));
}

TEST_F(LockFile, a_clear_does_not_ask_for_the_device) {
    set();
    unlink("/usr/quill/tessera/bin/tqtpcinfo");
    test::log_lines().clear();
    EXPECT_EQ(clear(), 0);
    EXPECT_EQ(whole_log().find("Executing"), std::string::npos);
}

TEST_F(LockFile, clearing_without_a_counter_fails) {
    tf::put(pm[0].lock_file, path.c_str());
    EXPECT_EQ(clear(), -1);
    EXPECT_EQ(whole_log().find("manage_lock: clearing lock on file: " + path + "\n" + obtained +
                               "could not decrement counter....counter missing from file: " + path +
                               "\ncould not decrement object counter for lock file: " + path +
                               "\nclosing fd="),
              0U);
    EXPECT_EQ(stored(), "");
}

TEST_F(LockFile, a_device_the_tool_does_not_know_is_not_locked) {
    test::write_script("/usr/quill/tessera/bin/tqtpcinfo", "exit 1");
    EXPECT_EQ(set(), -1);
    EXPECT_EQ(errnum, 3);
    EXPECT_FALSE(test::exists(lock_path));
    EXPECT_EQ(std::string(pm[0].lock_file), "");
}

TEST_F(LockFile, any_other_mode_is_refused_without_a_word) {
    EXPECT_EQ(manage_lock(object.get(), &pm[0], 2), -1);
    EXPECT_EQ(manage_lock(object.get(), &pm[0], -1), -1);
    EXPECT_EQ(whole_log(), "");
    EXPECT_FALSE(test::exists(lock_path));
    expect_no_failure();
}

TEST_F(LockFile, a_set_is_traced_line_by_line) {
    EXPECT_EQ(set(), 0);
    ASSERT_EQ(test::log_lines().size(), 5U);
    const std::string closing = test::log_lines().back();
    EXPECT_EQ(lock_log(),
              "manage_lock: setting lock on file: " + path + "\n" + obtained + closing + "\n");
    int fd = -1, lock_fd = -1;
    EXPECT_EQ(sscanf(closing.c_str(), "closing fd=%d, lockfd=%d", &fd, &lock_fd), 2);
    EXPECT_GT(fd, 2);
    EXPECT_GT(lock_fd, 2);
}

// The lock covers the counter file's whole life in this process.
TEST_F(LockFile, the_counter_file_is_closed_before_the_lock_file) {
    static std::vector<int> closed;
    for (const bool works : {true, false}) {
        closed.clear();
        test::log_lines().clear();
        const test::SystemFault fault("write", works ? 99 : 1, ENOSPC);
        test::on_close([](int fd) { closed.push_back(fd); });
        EXPECT_EQ(set(), works ? 0 : -1);
        test::on_close(nullptr);
        ASSERT_GE(closed.size(), 2U);
        EXPECT_EQ(test::log_lines().back(), "closing fd=" + std::to_string(*(closed.end() - 2)) +
                                                ", lockfd=" + std::to_string(closed.back()));
    }
}

TEST_F(LockFile, below_level_2_a_set_says_nothing) {
    set_level(0);
    EXPECT_EQ(set(), 0);
    EXPECT_EQ(clear(), 0);
    EXPECT_EQ(whole_log(), "");
}

TEST_F(LockFile, a_file_of_a_live_process_makes_the_set_fail) {
    OtherProcess other([this] { return set() == 0; });
    ASSERT_TRUE(other.answer());
    set_level(0);
    EXPECT_EQ(set(), -1);
    EXPECT_EQ(whole_log(), "lock pid(" + std::to_string(other.pid()) + ") != pid(" +
                               std::to_string(getpid()) + "): " + path + "\n");
    EXPECT_EQ(stored(), counter(other.pid(), 1, 1));
    // No message: the caller reports.
    expect_no_failure();
}

TEST_F(LockFile, a_file_of_a_process_that_ended_is_taken_over) {
    {
        OtherProcess other([this] { return set(0) == 0 && set(1) == 0; });
        ASSERT_TRUE(other.answer());
        ASSERT_EQ(stored(), counter(other.pid(), 2, 1));
    }
    EXPECT_EQ(set(), 0);
    EXPECT_EQ(stored(), counter(getpid(), 1, 1));
    EXPECT_EQ(pm[0].issplit, 0);
    EXPECT_TRUE(logged("truncating leftover lock file: " + path));
}

TEST_F(LockFile, a_file_of_a_process_that_was_killed_is_taken_over) {
    OtherProcess other([this] { return set() == 0; });
    ASSERT_TRUE(other.answer());
    EXPECT_EQ(set(), -1);
    kill(other.pid(), SIGKILL);
    other.end();
    EXPECT_EQ(set(), 0);
    EXPECT_EQ(stored(), counter(getpid(), 1, 1));
}

TEST_F(LockFile, the_takeover_is_a_trace) {
    test::write_file(path, counter(dead_process(), 3, 1));
    set_level(1);
    EXPECT_EQ(open_and_close(path), 0);
    EXPECT_EQ(whole_log(), "");
    EXPECT_EQ(stored(), "");
}

TEST_F(LockFile, a_second_process_waits_until_the_first_lets_go) {
    int lock_fd = -1;
    const int fd = open_lock_file(path.c_str(), &lock_fd);
    ASSERT_GE(fd, 0);
    OtherProcess other([this] { return set() == 0; });
    ASSERT_TRUE(test::comes_to_wait(other.pid()));
    EXPECT_EQ(stored(), "");
    close(fd);
    close(lock_fd);
    EXPECT_TRUE(other.answer());
    EXPECT_EQ(stored(), counter(other.pid(), 1, 1));
}

TEST_F(LockFile, an_update_lets_go_of_the_host_wide_lock) {
    ASSERT_EQ(set(), 0);
    OtherProcess other([this] {
        tf::put(pm[1].dev_raw_device, "/dev/0009999999990001");
        return set(1) == 0;
    });
    EXPECT_TRUE(other.answer());
}

TEST_F(LockFile, processes_that_take_turns_lose_no_update) {
    tf::put(pm[0].dev_raw_device, "/dev/0001845001230001");
    ASSERT_EQ(set(0), 0);
    // Two processes hammer on arrays of their own under the one host-wide lock.
    const auto hammer = [this](const char *device) {
        return [this, device] {
            const test::FrozenObject own;
            tf::put(pm[1].dev_raw_device, device);
            for (int i = 0; i < 5; ++i) {
                if (manage_lock(own.get(), &pm[1], TF_LOCK_SET) != 0) return false;
            }
            return test::read_file(pm[1].lock_file) == counter(getpid(), 5, 1);
        };
    };
    OtherProcess a(hammer("/dev/0001845001240001")), b(hammer("/dev/0001845001250001"));
    EXPECT_TRUE(a.answer());
    EXPECT_TRUE(b.answer());
    EXPECT_EQ(stored(), counter(getpid(), 1, 1));
}

TEST_F(LockFile, clearing_twice_in_a_row_fails_the_second_time) {
    ASSERT_EQ(set(), 0);
    EXPECT_EQ(clear(), 0);
    EXPECT_EQ(clear(), -1);
    // The second clear made the file anew, without a counter in it.
    EXPECT_EQ(stored(), "");
}

TEST_F(LockFile, a_failed_increment_is_explained_at_level_2_alone) {
    for (const int32_t level : {0, 2}) {
        set_level(level);
        const test::SystemFault fault("write", 1, ENOSPC);
        EXPECT_EQ(set(), -1);
        EXPECT_EQ(times_logged("could not write to file: " + path), 1);
        EXPECT_EQ(times_logged("could not increment object counter for lock file: " + path),
                  level == 2 ? 1 : 0);
        EXPECT_EQ(test::log_lines().back().starts_with("closing fd="), level == 2);
    }
    // The lock was let go.
    OtherProcess other([this] { return open_and_close("/tmp/other.counter") == 0; });
    EXPECT_TRUE(other.answer());
    unlink("/tmp/other.counter");
}

TEST_F(LockFile, a_counter_file_that_cannot_be_opened_makes_the_set_fail) {
    ASSERT_EQ(rmdir(counter_folder), 0);
    EXPECT_EQ(set(), -1);
    EXPECT_EQ(lock_log(), "manage_lock: setting lock on file: " + path + "\n" + obtained +
                              "could not open file: " + path + "\n");
}

// No serial number is that long; the length is looked at all the same, because the next step writes
// at the end of the name.
TEST_F(LockFile, a_path_that_cannot_be_formed_or_held_makes_no_counter_file) {
    for (const long length : {-1L, 0L, 1024L}) {
        test::log_lines().clear();
        // The tool's command line is formatted first.
        const test::SystemFault fault("Q_snprintf", 2, 0, length);
        EXPECT_EQ(set(), -1) << length;
        EXPECT_EQ(lock_log(), "pathlength of lock file too long\n") << length;
        EXPECT_TRUE(std::filesystem::is_empty(counter_folder)) << length;
    }
    set_level(0);
    const test::SystemFault fault("Q_snprintf", 2, 0);
    EXPECT_EQ(set(), -1);
    EXPECT_EQ(lock_log(), "");
}

}  // namespace
