#include "method/lock_file.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <functional>

#include "tests/support/frozen_object.h"
#include "tests/support/method_fixture.h"
#include "tests/support/private_root.h"
#include "tests/support/system_faults.h"

namespace {

constexpr char lock_path[] = "/usr/quill/tessera/online_util/fi_cntl/__LOCKFILE__TSR_ARRAY";
constexpr char counter_folder[] = "/usr/quill/tessera/online_util/db_cntl";

// The bytes of a counter file.
std::string counter(int32_t pid, int32_t objects, int32_t is_split) {
    const int32_t fields[] = {pid, objects, is_split};
    std::string bytes(sizeof fields, '\0');
    memcpy(bytes.data(), fields, sizeof fields);
    return bytes;
}

// Another process: runs an action and stays until it is told to end.
class OtherProcess {
  public:
    explicit OtherProcess(const std::function<bool()> &action) {
        int down[2], up[2];
        if (pipe2(down, O_CLOEXEC) != 0 || pipe2(up, O_CLOEXEC) != 0) abort();
        pid_ = fork();
        if (pid_ == 0) {
            close(down[1]);
            close(up[0]);
            char byte = action() ? 'y' : 'n';
            if (write(up[1], &byte, 1) != 1) _exit(2);
            if (read(down[0], &byte, 1) < 0) _exit(2);
            _exit(0);
        }
        close(down[0]);
        close(up[1]);
        hold_ = down[1];
        answer_ = up[0];
    }
    ~OtherProcess() { end(); }
    OtherProcess(const OtherProcess &) = delete;
    OtherProcess &operator=(const OtherProcess &) = delete;

    pid_t pid() const { return pid_; }
    // Waits for the action and hands out what it answered.
    bool answer() {
        char byte = '?';
        return read(answer_, &byte, 1) == 1 && byte == 'y';
    }
    void end() {
        if (hold_ < 0) return;
        close(hold_);
        close(answer_);
        hold_ = -1;
        int status = 0;
        waitpid(pid_, &status, 0);
    }

  private:
    pid_t pid_ = -1;
    int hold_ = -1, answer_ = -1;
};

void wait_a_moment() {
    const timespec moment = {0, 2'000'000};
    nanosleep(&moment, nullptr);
}

// Whether the kernel lists a process as waiting for a record lock.
bool waits_for_a_lock(pid_t pid) {
    std::ifstream locks("/proc/locks");
    for (std::string line; std::getline(locks, line);) {
        if (line.find("-> POSIX") != std::string::npos &&
            line.find(" " + std::to_string(pid) + " ") != std::string::npos) {
            return true;
        }
    }
    return false;
}

bool comes_to_wait(pid_t pid) {
    for (int i = 0; i < 2500; ++i) {
        if (waits_for_a_lock(pid)) return true;
        wait_a_moment();
    }
    return false;
}

// A process id that no process has.
pid_t dead_process() {
    const pid_t pid = fork();
    if (pid == 0) _exit(0);
    int status = 0;
    waitpid(pid, &status, 0);
    return pid;
}

class LockFile : public test::Method {
  protected:
    LockFile() {
        std::filesystem::remove_all("/usr/quill/tessera/online_util");
        test::make_folders("/usr/quill/tessera/online_util/fi_cntl");
        test::make_folders(counter_folder);
        // The device's name is its serial number.
        test::write_script("/usr/quill/tessera/bin/tqtpcinfo",
                           "echo \"EMC SYMMETRIX p=$3 s=${3#/dev/}\"");
        for (int i = 0; i < 3; ++i) tf::put(pm[i].dev_raw_device, "/dev/0001845001230001");
    }

    int set(int i = 0) { return manage_lock(object.get(), &pm[i], TF_LOCK_SET); }
    int clear(int i = 0) { return manage_lock(object.get(), &pm[i], TF_LOCK_CLEAR); }
    std::string stored() const { return test::read_file(path); }
    // The log without the lines about the command of find_device.
    static std::string lock_log() {
        std::string text;
        for (const std::string &line : test::log_lines()) {
            if (!line.starts_with("Executing command: ")) text += line + "\n";
        }
        return text;
    }
    // An update whose owner of the counter file is this process.
    int change(const std::string &contents, int mode) {
        test::write_file(path, contents);
        tf::put(pm[0].lock_file, path.c_str());
        pm[0].issplit = 77;
        const int fd = open(path.c_str(), O_RDWR | O_CLOEXEC);
        test::log_lines().clear();
        const int result = change_counter(&pm[0], fd, mode);
        close(fd);
        return result;
    }
    int open_and_close(const std::string &counter_path) {
        int lock_fd = 99;
        const int fd = open_lock_file(counter_path.c_str(), &lock_fd);
        if (fd < 0) {
            EXPECT_EQ(lock_fd, 99);
            return fd;
        }
        close(fd);
        close(lock_fd);
        return 0;
    }

    const std::string path = std::string(counter_folder) + "/__LOCKFILE_0001845001230000";
    const std::string obtained = std::string("trying to get lock on file: ") + lock_path +
                                 "\nobtained lock on file: " + lock_path + "\n";
    test::FrozenObject object;
    prim_mir_info pm[3] = {};
};

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
    ASSERT_TRUE(comes_to_wait(other.pid()));
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

TEST_F(LockFile, a_signal_does_not_end_the_wait_for_the_lock) {
    const test::SystemFault fault("fcntl", 1, EINTR);
    EXPECT_EQ(open_and_close(path), 0);
}

TEST_F(LockFile, open_hands_out_both_descriptors_closed_for_other_programs) {
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

TEST_F(LockFile, without_the_lock_folder_the_host_wide_file_is_named) {
    ASSERT_EQ(rmdir("/usr/quill/tessera/online_util/fi_cntl"), 0);
    set_level(0);
    EXPECT_EQ(open_and_close(path), -1);
    EXPECT_EQ(whole_log(), std::string("could not open file: ") + lock_path + "\n");
}

TEST_F(LockFile, without_the_counter_folder_the_counter_file_is_named) {
    set_level(0);
    EXPECT_EQ(open_and_close("/tmp/no/folder/counter"), -1);
    EXPECT_EQ(whole_log(), "could not open file: /tmp/no/folder/counter\n");
}

TEST_F(LockFile, links_in_place_of_either_file_are_not_followed) {
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

TEST_F(LockFile, a_lock_that_cannot_be_had_is_reported) {
    set_level(0);
    const test::SystemFault fault("fcntl", 1, EDEADLK);
    EXPECT_EQ(open_and_close(path), -1);
    EXPECT_EQ(whole_log(), std::string("could not lock file: ") + lock_path + "\n");
    EXPECT_FALSE(test::exists(path));
}

TEST_F(LockFile, an_owner_that_cannot_be_read_is_reported) {
    set_level(0);
    const test::SystemFault fault("read", 1, EIO);
    EXPECT_EQ(open_and_close(path), -1);
    EXPECT_EQ(whole_log(), "could not read pid from file: " + path + "\n");
}

TEST_F(LockFile, a_cut_off_owner_counts_as_none) {
    test::write_file(path, "\x01\x02");
    EXPECT_EQ(open_and_close(path), 0);
    EXPECT_EQ(stored(), "\x01\x02");
}

TEST_F(LockFile, the_own_files_counter_is_left_as_it_is_when_opened) {
    test::write_file(path, counter(getpid(), 7, 1));
    EXPECT_EQ(open_and_close(path), 0);
    EXPECT_EQ(stored(), counter(getpid(), 7, 1));
}

TEST_F(LockFile, an_owner_that_cannot_be_asked_about_counts_as_alive) {
    const pid_t dead = dead_process();
    test::write_file(path, counter(dead, 1, 1));
    set_level(0);
    const test::SystemFault fault("getpgid", 1, EPERM);
    EXPECT_EQ(open_and_close(path), -1);
    EXPECT_EQ(whole_log(), "lock pid(" + std::to_string(dead) + ") != pid(" +
                               std::to_string(getpid()) + "): " + path + "\n");
}

TEST_F(LockFile, a_leftover_that_cannot_be_truncated_is_reported) {
    test::write_file(path, counter(dead_process(), 1, 1));
    set_level(0);
    const test::SystemFault fault("ftruncate", 1, EIO);
    EXPECT_EQ(open_and_close(path), -1);
    EXPECT_EQ(whole_log(), "could not truncate file: " + path + "\n");
}

TEST_F(LockFile, any_mode_but_0_takes_one_off) {
    EXPECT_EQ(change(counter(getpid(), 5, 1), 7), 0);
    EXPECT_EQ(stored(), counter(getpid(), 4, 1));
    EXPECT_EQ(change(counter(getpid(), 5, 1), -1), 0);
    EXPECT_EQ(stored(), counter(getpid(), 4, 1));
}

TEST_F(LockFile, a_clear_too_many_wraps_and_keeps_the_file) {
    EXPECT_EQ(change(counter(getpid(), 0, 1), TF_LOCK_CLEAR), 0);
    EXPECT_EQ(stored(), counter(getpid(), -1, 1));
}

TEST_F(LockFile, the_highest_count_wraps) {
    EXPECT_EQ(change(counter(getpid(), INT32_MAX, 1), TF_LOCK_SET), 0);
    EXPECT_EQ(stored(), counter(getpid(), INT32_MIN, 1));
}

TEST_F(LockFile, a_set_that_brings_the_count_to_0_removes_the_file) {
    EXPECT_EQ(change(counter(getpid(), -1, 1), TF_LOCK_SET), 0);
    EXPECT_FALSE(test::exists(path));
}

TEST_F(LockFile, an_update_makes_this_process_the_owner) {
    EXPECT_EQ(change(counter(4711, 1, 1), TF_LOCK_SET), 0);
    EXPECT_EQ(stored(), counter(getpid(), 2, 1));
}

TEST_F(LockFile, issplit_is_the_flag_that_the_file_held) {
    EXPECT_EQ(change(counter(getpid(), 1, 0), TF_LOCK_SET), 0);
    EXPECT_EQ(pm[0].issplit, 0);
    EXPECT_EQ(stored(), counter(getpid(), 2, 1));
    EXPECT_EQ(change(counter(getpid(), 1, 42), TF_LOCK_SET), 0);
    EXPECT_EQ(pm[0].issplit, 42);
    EXPECT_EQ(stored(), counter(getpid(), 2, 1));
}

TEST_F(LockFile, a_file_that_ends_before_the_flag_holds_flag_0) {
    for (const size_t length : {8U, 10U}) {
        EXPECT_EQ(change(counter(getpid(), 3, 1).substr(0, length), TF_LOCK_SET), 0);
        EXPECT_EQ(stored(), counter(getpid(), 4, 1));
        EXPECT_EQ(pm[0].issplit, 0);
    }
}

TEST_F(LockFile, a_file_that_ends_before_or_inside_the_count_counts_from_one) {
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

TEST_F(LockFile, every_failing_step_of_an_update_has_its_line) {
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

TEST_F(LockFile, the_flag_is_stored_even_when_the_update_cannot_be_written) {
    test::write_file(path, counter(getpid(), 1, 9));
    tf::put(pm[0].lock_file, path.c_str());
    const int fd = open(path.c_str(), O_RDWR | O_CLOEXEC);
    const test::SystemFault fault("write", 1, ENOSPC);
    EXPECT_EQ(change_counter(&pm[0], fd, TF_LOCK_SET), -1);
    close(fd);
    EXPECT_EQ(pm[0].issplit, 9);
}

TEST_F(LockFile, a_counter_of_0_that_cannot_be_truncated_is_removed_all_the_same) {
    ASSERT_EQ(set(), 0);
    set_level(0);
    const test::SystemFault fault("ftruncate", 1, EIO);
    EXPECT_EQ(clear(), 0);
    EXPECT_EQ(whole_log(), "could not truncate lock file: " + path + "\n");
    EXPECT_FALSE(test::exists(path));
}

TEST_F(LockFile, a_counter_of_0_that_cannot_be_removed_is_left_empty) {
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

TEST_F(LockFile, clearing_twice_in_a_row_fails_the_second_time) {
    ASSERT_EQ(set(), 0);
    EXPECT_EQ(clear(), 0);
    EXPECT_EQ(clear(), -1);
    // The second clear made the file anew, without a counter in it.
    EXPECT_EQ(stored(), "");
}

}  // namespace
