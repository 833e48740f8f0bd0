#include "tests/fimctl/world.h"

#include <fcntl.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <filesystem>
#include <fstream>
#include <sstream>

#include "fimctl/command_line.h"
#include "fimctl/host.h"
#include "fimctl/paths.h"
#include "tests/fimctl/fake_method/script.h"
#include "tests/support/private_root.h"

namespace test {
namespace {

namespace fs = std::filesystem;

constexpr int patience = 1000;  // of ten milliseconds

void append(const std::string &name, const std::string &line) {
    std::ofstream(fake::folder + "/" + name, std::ios::app) << line << "\n";
}

std::string output_of(pid_t pid, const char *stream) {
    return fake::folder + "/" + std::to_string(pid) + "." + stream;
}

void redirect(int fd, const std::string &path) {
    const int file = open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
    dup2(file, fd);
    close(file);
}

bool is_snapshot_work(const std::string &call) {
    for (const char *name : {"freeze", "ctl", "freeze_commit", "ckpt", "rebuild", "volumes", "thaw",
                             "thaw_commit", "note"}) {
        if (call == name) return true;
    }
    return false;
}

}  // namespace

void FimctlWorld::SetUp() {
    make_folders(fake::folder);
    make_folders(fs::path(fimctl::path::method_library).parent_path());
    make_folders(fs::path(fimctl::path::array_library).parent_path());
    fs::copy_file(FAKE_METHOD, fimctl::path::method_library);
    fs::copy_file(FAKE_SYMAPI, fimctl::path::array_library);
    write_file(fimctl::path::array_database, "");
    for (const char *name :
         {"script", "calls", "array", "objects", "symapi", "volumes", "groups"}) {
        write_file(fake::folder + "/" + name, "");
    }
}

void FimctlWorld::TearDown() {
    for (const std::string &directory : mounted_) {
        EXPECT_EQ(umount(directory.c_str()), 0) << directory;
    }
}

std::string FimctlWorld::add_file_system(const std::string &name, const std::string &symid,
                                         const std::string &device, const std::string &bcv,
                                         long state) {
    const std::string directory = "/data-" + name;
    make_folders(directory);
    // What lies on no device is refused.
    const std::string device_name = "/dev/qz/dmp/" + name;
    EXPECT_EQ(mount(device_name.c_str(), directory.c_str(), "tmpfs", 0, nullptr), 0);
    mounted_.push_back(directory);
    add_object(directory, 3, symid, device, bcv, state);
    return directory;
}

void FimctlWorld::add_object(const std::string &source, int type, const std::string &symid,
                             const std::string &device, const std::string &bcv, long state) {
    append("objects", source + " " + std::to_string(type) + " " + symid + " " + device + " " + bcv);
    append("array", symid + " " + device + " " + bcv + " " + std::to_string(state));
}

std::string FimctlWorld::add_volume(const std::string &group, const std::string &volume,
                                    const std::string &symid, const std::string &device,
                                    const std::string &bcv, long state) {
    const std::string path = fimctl::path::volume_folder + group + "/" + volume;
    make_folders(fs::path(path).parent_path());
    // Never opened: any numbers will do, as long as no two volumes have the same.
    EXPECT_EQ(mknod(path.c_str(), S_IFBLK | 0600, makedev(240, ++volumes_)), 0) << path;
    add_object(path, 2, symid, device, bcv, state);
    append("volumes", path + " " + group + " " + volume);
    return path;
}

std::vector<std::string> FimctlWorld::groups_up() const {
    return fake::lines_of("groups");
}

std::string FimctlWorld::copy_folder(int64_t id, int number) const {
    return state_ + "/mnt/" + fimctl::short_host_name() + "-" + std::to_string(id) + "-" +
           std::to_string(number);
}

void FimctlWorld::script(const std::string &line) {
    append("script", line);
}

void FimctlWorld::array_fails(const std::string &call, int code) {
    append("symapi", call + " " + std::to_string(code));
}

pid_t FimctlWorld::start(const std::vector<std::string> &arguments) {
    const pid_t pid = fork();
    if (pid != 0) return pid;
    // The streams lie outside of what is frozen.
    redirect(STDOUT_FILENO, output_of(getpid(), "out"));
    if (!out_to_.empty()) redirect(STDOUT_FILENO, out_to_);
    redirect(STDERR_FILENO, output_of(getpid(), "err"));
    std::vector<const char *> words = {"fimctl"};
    for (const std::string &argument : arguments) words.push_back(argument.c_str());
    const int status = fimctl::run_command_line(static_cast<int>(words.size()), words.data());
    fflush(nullptr);
    _exit(status);
}

Ended FimctlWorld::finish(pid_t pid) {
    int status = 0;
    while (waitpid(pid, &status, 0) < 0 && errno == EINTR) {
    }
    Ended ended;
    if (WIFEXITED(status)) ended.status = WEXITSTATUS(status);
    ended.out = read_file(output_of(pid, "out"));
    ended.err = read_file(output_of(pid, "err"));
    return ended;
}

bool FimctlWorld::wait_until_told(pid_t pid, const std::string &part) {
    for (int i = 0; i < patience; ++i) {
        if (read_file(output_of(pid, "err")).find(part) != std::string::npos) return true;
        usleep(10000);
    }
    return false;
}

Ended FimctlWorld::fimctl(const std::vector<std::string> &arguments) {
    return finish(start(arguments));
}

std::vector<std::string> FimctlWorld::calls() const {
    std::vector<std::string> made;
    for (const std::string &line : fake::lines_of("calls")) {
        made.push_back(line.substr(line.find(' ') + 1));
    }
    return made;
}

std::string FimctlWorld::story() const {
    std::string text;
    for (const std::string &line : calls()) {
        const std::string call = line.substr(0, line.find(' '));
        if (is_snapshot_work(call)) text += (text.empty() ? "" : " ") + call;
    }
    return text;
}

std::vector<pid_t> FimctlWorld::processes_of(const std::string &call) const {
    std::vector<pid_t> found;
    for (const std::string &line : fake::lines_of("calls")) {
        std::istringstream words(line);
        pid_t pid = 0;
        std::string name;
        words >> pid >> name;
        if (name == call) found.push_back(pid);
    }
    return found;
}

bool FimctlWorld::wait_for_call(const std::string &call) {
    for (int i = 0; i < patience; ++i) {
        if (!processes_of(call).empty()) return true;
        usleep(10000);
    }
    return false;
}

long FimctlWorld::array_state(const std::string &device) const {
    for (const fake::ArrayPair &pair : fake::read_array()) {
        if (pair.device == device) return pair.state;
    }
    return -1;
}

fimctl::SnapshotRecord FimctlWorld::snapshot(int64_t id, const std::string &state_dir) const {
    fimctl::Catalogue catalogue(state_dir.empty() ? state_ : state_dir, false);
    const auto found = catalogue.find(id);
    return found ? *found : fimctl::SnapshotRecord();
}

bool wait_until_gone(pid_t pid) {
    for (int i = 0; i < patience; ++i) {
        if (kill(pid, 0) != 0 && errno == ESRCH) return true;
        usleep(10000);
    }
    return false;
}

}  // namespace test
