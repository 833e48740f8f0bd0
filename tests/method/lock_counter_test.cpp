#include "method/lock_file.h"

#include <fcntl.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>

#include "tests/method/lock_fixture.h"
#include "tests/support/system_faults.h"

namespace {

using test::counter;
using test::counter_folder;
using test::dead_process;
using test::lock_path;
using test::OtherProcess;

// The two steps of an update: taking the lock and opening the counter file, and changing it.
class LockCounter : public test::LockFixture {};

TEST_F(LockCounter, a_signal_does_not_end_the_wait_for_the_lock) {
    const test::SystemFault fault("fcntl", 1, EINTR);
    EXPECT_EQ(open_and_close(path), 0);
}

TEST_F(LockCounter, open_hands_out_both_descriptors_closed_for_other_programs) {
    int lock_fd = -1;
    const int fd = open_lock_file(path.c_str(), &lock_fd);
    ASSERT_GE(fd, 0);
    ASSERT_GE(lock_fd, 0);
    EXPECT_EQ(fcntl(fd, F_GETFD) & FD_CLOEXEC, FD_CLOEXEC);
    EXPECT_EQ(fcntl(lock_fd, F_GETFD) & FD_CLOEXEC, FD_CLOEXEC);
    close(fd);
    close(lock_fd);
    EXPECT_EQ(whole_log(), obtained);
}

TEST_F(LockCounter, without_the_lock_folder_the_host_wide_file_is_named) {
    ASSERT_EQ(rmdir("/usr/quill/tessera/online_util/fi_cntl"), 0);
    set_level(0);
    EXPECT_EQ(open_and_close(path), -1);
    EXPECT_EQ(whole_log(), std::string("could not open file: ") + lock_path + "\n");
}

TEST_F(LockCounter, without_the_counter_folder_the_counter_file_is_named) {
    set_level(0);
    EXPECT_EQ(open_and_close("/tmp/no/folder/counter"), -1);
    EXPECT_EQ(whole_log(), "could not open file: /tmp/no/folder/counter\n");
}

TEST_F(LockCounter, links_in_place_of_either_file_are_not_followed) {
    ASSERT_EQ(symlink("/tmp/elsewhere", path.c_str()), 0);
    EXPECT_EQ(open_and_close(path), -1);
    EXPECT_TRUE(logged("could not open file: " + path));
    unlink(path.c_str());
    unlink(lock_path);
    ASSERT_EQ(symlink("/tmp/elsewhere", lock_path), 0);
    EXPECT_EQ(open_and_close(path), -1);
    EXPECT_TRUE(logged(std::string("could not open file: ") + lock_path));
    EXPECT_FALSE(test::exists("/tmp/elsewhere"));
}

TEST_F(LockCounter, a_pipe_in_place_of_either_file_is_not_waited_for) {
    ASSERT_EQ(mkfifo(path.c_str(), 0600), 0);
    EXPECT_EQ(open_and_close(path), -1);
    EXPECT_TRUE(logged("could not read pid from file: " + path));
    unlink(path.c_str());
    test::log_lines().clear();
    // Nothing is ever read from the lock file: a pipe carries the lock as well as a file does.
    unlink(lock_path);
    ASSERT_EQ(mkfifo(lock_path, 0600), 0);
    EXPECT_EQ(open_and_close(path), 0);
    EXPECT_EQ(whole_log(), obtained);
    unlink(lock_path);
}

TEST_F(LockCounter, a_file_size_limit_is_a_failed_write_and_not_the_end) {
    rlimit limit = {};
    getrlimit(RLIMIT_FSIZE, &limit);
    const rlimit small = {8, limit.rlim_max};
    setrlimit(RLIMIT_FSIZE, &small);
    EXPECT_EQ(change("", TF_LOCK_SET), -1);
    setrlimit(RLIMIT_FSIZE, &limit);
    EXPECT_EQ(whole_log(), "could not write to file: " + path + "\n");
}

TEST_F(LockCounter, a_lock_that_cannot_be_had_is_reported) {
    set_level(0);
    const test::SystemFault fault("fcntl", 1, EDEADLK);
    EXPECT_EQ(open_and_close(path), -1);
    EXPECT_EQ(whole_log(), std::string("could not lock file: ") + lock_path + "\n");
    EXPECT_FALSE(test::exists(path));
}

TEST_F(LockCounter, an_owner_that_cannot_be_read_is_reported) {
    set_level(0);
    const test::SystemFault fault("read", 1, EIO);
    EXPECT_EQ(open_and_close(path), -1);
    EXPECT_EQ(whole_log(), "could not read pid from file: " + path + "\n");
}

TEST_F(LockCounter, a_cut_off_owner_counts_as_none) {
    test::write_file(path, "\x01\x02");
    EXPECT_EQ(open_and_close(path), 0);
    EXPECT_EQ(stored(), "\x01\x02");
}

TEST_F(LockCounter, the_own_files_counter_is_left_as_it_is_when_opened) {
    test::write_file(path, counter(getpid(), 7, 1));
    EXPECT_EQ(open_and_close(path), 0);
    EXPECT_EQ(stored(), counter(getpid(), 7, 1));
}

TEST_F(LockCounter, an_owner_that_cannot_be_asked_about_counts_as_alive) {
    const pid_t dead = dead_process();
    test::write_file(path, counter(dead, 1, 1));
    set_level(0);
    const test::SystemFault fault("getpgid", 1, EPERM);
    EXPECT_EQ(open_and_close(path), -1);
    EXPECT_EQ(whole_log(), "lock pid(" + std::to_string(dead) + ") != pid(" +
                               std::to_string(getpid()) + "): " + path + "\n");
}

TEST_F(LockCounter, a_leftover_that_cannot_be_truncated_is_reported) {
    test::write_file(path, counter(dead_process(), 1, 1));
    set_level(0);
    const test::SystemFault fault("ftruncate", 1, EIO);
    EXPECT_EQ(open_and_close(path), -1);
    EXPECT_EQ(whole_log(), "could not truncate file: " + path + "\n");
}

TEST_F(LockCounter, any_mode_but_0_takes_one_off) {
    EXPECT_EQ(change(counter(getpid(), 5, 1), 7), 0);
    EXPECT_EQ(stored(), counter(getpid(), 4, 1));
    EXPECT_EQ(change(counter(getpid(), 5, 1), -1), 0);
    EXPECT_EQ(stored(), counter(getpid(), 4, 1));
}

TEST_F(LockCounter, a_clear_too_many_wraps_and_keeps_the_file) {
    EXPECT_EQ(change(counter(getpid(), 0, 1), TF_LOCK_CLEAR), 0);
    EXPECT_EQ(stored(), counter(getpid(), -1, 1));
}

TEST_F(LockCounter, the_highest_count_wraps) {
    EXPECT_EQ(change(counter(getpid(), INT32_MAX, 1), TF_LOCK_SET), 0);
    EXPECT_EQ(stored(), counter(getpid(), INT32_MIN, 1));
}

TEST_F(LockCounter, a_set_that_brings_the_count_to_0_removes_the_file) {
    EXPECT_EQ(change(counter(getpid(), -1, 1), TF_LOCK_SET), 0);
    EXPECT_FALSE(test::exists(path));
}

TEST_F(LockCounter, an_update_makes_this_process_the_owner) {
    EXPECT_EQ(change(counter(4711, 1, 1), TF_LOCK_SET), 0);
    EXPECT_EQ(stored(), counter(getpid(), 2, 1));
}

TEST_F(LockCounter, issplit_is_the_flag_that_the_file_held) {
    EXPECT_EQ(change(counter(getpid(), 1, 0), TF_LOCK_SET), 0);
    EXPECT_EQ(pm[0].issplit, 0);
    EXPECT_EQ(stored(), counter(getpid(), 2, 1));
    EXPECT_EQ(change(counter(getpid(), 1, 42), TF_LOCK_SET), 0);
    EXPECT_EQ(pm[0].issplit, 42);
    EXPECT_EQ(stored(), counter(getpid(), 2, 1));
}

TEST_F(LockCounter, a_file_that_ends_before_the_flag_holds_flag_0) {
    for (const size_t length : {8U, 10U}) {
        EXPECT_EQ(change(counter(getpid(), 3, 1).substr(0, length), TF_LOCK_SET), 0);
        EXPECT_EQ(stored(), counter(getpid(), 4, 1));
        EXPECT_EQ(pm[0].issplit, 0);
    }
}

TEST_F(LockCounter, a_file_that_ends_before_or_inside_the_count_counts_from_one) {
    for (const size_t length : {0U, 2U, 4U, 6U}) {
        EXPECT_EQ(change(counter(getpid(), 3, 1).substr(0, length), TF_LOCK_SET), 0);
        EXPECT_EQ(stored(), counter(getpid(), 1, 1)) << length;
        EXPECT_EQ(change(counter(getpid(), 3, 1).substr(0, length), TF_LOCK_CLEAR), -1);
        EXPECT_EQ(whole_log(),
                  "could not decrement counter....counter missing from file: " + path + "\n");
        EXPECT_EQ(stored(), counter(getpid(), 3, 1).substr(0, length));
    }
}

struct UpdateFault {
    const char *function;
    int n;
    int error;
    long result;
    const char *line;
};

TEST_F(LockCounter, every_failing_step_of_an_update_has_its_line) {
    const UpdateFault faults[] = {
        {"lseek", 1, EIO, -1, "could not lseek file: "},
        {"read", 1, EIO, -1, "could not read pid from file: "},
        {"getpid", 1, EIO, -1, "could not get pid"},
        {"read", 2, EIO, -1, "could not read number of objects from file: "},
        {"read", 3, EIO, -1, "could not read is_split flag from file: "},
        {"lseek", 2, EIO, -1, "could not lseek file: "},
        {"write", 1, ENOSPC, -1, "could not write to file: "},
        {"write", 2, 0, 3, "could not write to file: "},
        {"write", 3, 0, 0, "could not write to file: "},
    };
    set_level(0);
    for (const UpdateFault &step : faults) {
        test::write_file(path, counter(getpid(), 1, 1));
        tf::put(pm[0].lock_file, path.c_str());
        const int fd = open(path.c_str(), O_RDWR | O_CLOEXEC);
        test::log_lines().clear();
        {
            const test::SystemFault fault(step.function, step.n, step.error, step.result);
            EXPECT_EQ(change_counter(&pm[0], fd, TF_LOCK_SET), -1);
        }
        close(fd);
        const std::string line = step.line;
        EXPECT_EQ(whole_log(), line + (line.ends_with(": ") ? path : "") + "\n");
    }
}

TEST_F(LockCounter, the_flag_is_stored_even_when_the_update_cannot_be_written) {
    test::write_file(path, counter(getpid(), 1, 9));
    tf::put(pm[0].lock_file, path.c_str());
    const int fd = open(path.c_str(), O_RDWR | O_CLOEXEC);
    const test::SystemFault fault("write", 1, ENOSPC);
    EXPECT_EQ(change_counter(&pm[0], fd, TF_LOCK_SET), -1);
    close(fd);
    EXPECT_EQ(pm[0].issplit, 9);
}

TEST_F(LockCounter, a_counter_of_0_that_cannot_be_truncated_is_removed_all_the_same) {
    ASSERT_EQ(set(), 0);
    set_level(0);
    const test::SystemFault fault("ftruncate", 1, EIO);
    EXPECT_EQ(clear(), 0);
    EXPECT_EQ(whole_log(), "could not truncate lock file: " + path + "\n");
    EXPECT_FALSE(test::exists(path));
}

TEST_F(LockCounter, a_counter_of_0_that_cannot_be_removed_is_left_empty) {
    ASSERT_EQ(set(), 0);
    for (const int32_t level : {0, 2}) {
        set_level(level);
        test::write_file(path, counter(getpid(), 1, 1));
        const test::SystemFault fault("unlink", 1, EPERM);
        EXPECT_EQ(clear(), 0);
        EXPECT_EQ(times_logged("could not unlink file: " + path), level == 2 ? 1 : 0);
        EXPECT_EQ(stored(), "");
    }
}

}  // namespace
