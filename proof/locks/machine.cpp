#include "proof/locks/machine.h"

#include <fcntl.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <cstring>
#include <fstream>
#include <iterator>
#include <stdexcept>

#include "include/timefinder.h"
#include "method/descriptor.h"
#include "method/lock_file.h"
#include "tests/support/private_root.h"

namespace locks {
namespace {

std::string logged;

void keep_line(const char *line) {
    logged = line;
}

}  // namespace

void make_machine() {
    test::make_folders("/usr/quill/tessera/online_util/fi_cntl");
    test::make_folders(counter_folder);
    // A device's name is its serial number.
    test::write_script("/usr/quill/tessera/bin/tqtpcinfo",
                       "echo \"EMC SYMMETRIX p=$3 s=${3#/dev/}\"");
    TimeFinder_set_logf(keep_line, 0);
}

std::string serial_of(int array) {
    char text[32];
    snprintf(text, sizeof text, "00018450%04d0100", array);
    return text;
}

std::string counter_file(int array) {
    std::string name = serial_of(array);
    name.replace(name.size() - 2, 2, "00");
    return std::string(counter_folder) + "/__LOCKFILE_" + name;
}

std::string bytes_of(int32_t pid, int32_t objects, int32_t is_split) {
    const int32_t fields[] = {pid, objects, is_split};
    std::string bytes(sizeof fields, '\0');
    memcpy(bytes.data(), fields, sizeof fields);
    return bytes;
}

bool exists(const std::string &path) {
    struct stat status = {};
    return lstat(path.c_str(), &status) == 0;
}

std::string read_all(const std::string &path) {
    const tf::DescriptorOwner file(open(path.c_str(), O_RDONLY | O_CLOEXEC));
    char bytes[64];
    const ssize_t size = file ? read(file.get(), bytes, sizeof bytes) : 0;
    return std::string(bytes, size > 0 ? static_cast<size_t>(size) : 0);
}

void write_all(const std::string &path, const std::string &bytes) {
    std::ofstream out(path, std::ios::binary);
    if (!(out << bytes)) throw std::runtime_error("cannot write " + path);
}

const std::string &last_line() {
    return logged;
}

void forget_log() {
    logged.clear();
}

int change(prim_mir_info *pm, int mode) {
    tf::DescriptorOwner lock;
    const tf::DescriptorOwner file(open_lock_file(pm->lock_file, lock.out()));
    return file ? change_counter(pm, file.get(), mode) : -1;
}

Idler::Idler() : pid_(fork()) {
    if (pid_ < 0) throw std::runtime_error("cannot fork");
    if (pid_ != 0) return;
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    while (true) pause();
}

void Idler::kill_it() {
    kill(pid_, SIGKILL);
    siginfo_t ended = {};
    waitid(P_PID, static_cast<id_t>(pid_), &ended, WEXITED | WNOWAIT);
}

void Idler::end() {
    if (reaped_) return;
    kill(pid_, SIGKILL);
    int status = 0;
    waitpid(pid_, &status, 0);
    reaped_ = true;
}

}  // namespace locks
