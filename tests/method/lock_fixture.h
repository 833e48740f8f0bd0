// What the tests of the array lock share: the folders, three records of one array, the bytes of a
// counter file, and other processes.
#pragma once

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

#include "method/lock_file.h"
#include "tests/support/frozen_object.h"
#include "tests/support/method_fixture.h"
#include "tests/support/private_root.h"

namespace test {

inline constexpr char lock_path[] = "/usr/quill/tessera/online_util/fi_cntl/__LOCKFILE__TSR_ARRAY";
inline constexpr char counter_folder[] = "/usr/quill/tessera/online_util/db_cntl";

// The bytes of a counter file.
inline std::string counter(int32_t pid, int32_t objects, int32_t is_split) {
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

inline void wait_a_moment() {
    const timespec moment = {0, 2'000'000};
    nanosleep(&moment, nullptr);
}

// Whether the kernel lists a process as waiting for a record lock.
inline bool waits_for_a_lock(pid_t pid) {
    std::ifstream locks("/proc/locks");
    for (std::string line; std::getline(locks, line);) {
        if (line.find("-> POSIX") != std::string::npos &&
            line.find(" " + std::to_string(pid) + " ") != std::string::npos) {
            return true;
        }
    }
    return false;
}

inline bool comes_to_wait(pid_t pid) {
    for (int i = 0; i < 2500; ++i) {
        if (waits_for_a_lock(pid)) return true;
        wait_a_moment();
    }
    return false;
}

// A process id that no process has.
inline pid_t dead_process() {
    const pid_t pid = fork();
    if (pid == 0) _exit(0);
    int status = 0;
    waitpid(pid, &status, 0);
    return pid;
}

class LockFixture : public Method {
  protected:
    LockFixture() {
        std::filesystem::remove_all("/usr/quill/tessera/online_util");
        make_folders("/usr/quill/tessera/online_util/fi_cntl");
        make_folders(counter_folder);
        // The device's name is its serial number.
        write_script("/usr/quill/tessera/bin/tqtpcinfo",
                     "echo \"EMC SYMMETRIX p=$3 s=${3#/dev/}\"");
        for (int i = 0; i < 3; ++i) tf::put(pm[i].dev_raw_device, "/dev/0001845001230001");
    }

    int set(int i = 0) { return manage_lock(object.get(), &pm[i], TF_LOCK_SET); }
    int clear(int i = 0) { return manage_lock(object.get(), &pm[i], TF_LOCK_CLEAR); }
    std::string stored() const { return read_file(path); }
    // The log without the lines about the command of find_device.
    static std::string lock_log() {
        std::string text;
        for (const std::string &line : log_lines()) {
            if (!line.starts_with("Executing command: ")) text += line + "\n";
        }
        return text;
    }
    // An update whose owner of the counter file is this process.
    int change(const std::string &contents, int mode) {
        write_file(path, contents);
        tf::put(pm[0].lock_file, path.c_str());
        pm[0].issplit = 77;
        const int fd = open(path.c_str(), O_RDWR | O_CLOEXEC);
        log_lines().clear();
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
    FrozenObject object;
    prim_mir_info pm[3] = {};
};

}  // namespace test
