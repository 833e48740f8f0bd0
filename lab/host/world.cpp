#include "lab/host/world.h"

#include <fcntl.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <stdexcept>
#include <thread>

#include "lab/host/devices.h"
#include "lab/host/loops.h"
#include "lab/host/places.h"
#include "lab/host/tree.h"
#include "lab/host/warden.h"

namespace tflab {
namespace {

using namespace std::chrono_literals;

constexpr auto patience = 20s;

// The world's own view of the machine: everything as it is, but /run, /proc and /dev.
void make_view() {
    if (mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0) fails("make / private");
    mount_new("proc", "/proc", MS_NOSUID | MS_NODEV | MS_NOEXEC);
    mount_tmpfs(place::run, "mode=0755");
    for (const fs::path &folder :
         {place::logs, place::store, place::tree, place::hosts, place::exchange}) {
        make_folder(folder);
    }
    make_folder(place::administrator);
    // devtmpfs is one for the whole machine: nodes made there would be seen everywhere.
    const fs::path dev = place::base / "dev";
    make_folder(dev);
    mount_tmpfs(dev, "mode=0755");
    fill_devices(dev);
    if (fs::is_directory("/dev/pts")) mount_bind("/dev/pts", dev / "pts");
    if (mount(dev.c_str(), "/dev", nullptr, MS_MOVE, nullptr) != 0) fails("mount /dev");
}

// An xfs that can share blocks between files, on a sparse image that is removed by being forgotten.
void make_store(uint64_t bytes) {
    const Fd image = open_file(place::store_image, O_RDWR | O_CREAT | O_EXCL);
    if (ftruncate(image.get(), static_cast<off_t>(bytes)) != 0) fails("make the store's image");
    const fs::path log = place::logs / "mkfs";
    if (run({"mkfs.xfs", "-q", "-m", "reflink=1", place::store_image}, log) != 0) {
        throw std::runtime_error("cannot make the array's store: " + read_text(log));
    }
    fs::path node;
    const Fd device = attach_loop(place::store_image, "/dev", &node);
    if (mount(node.c_str(), place::store.c_str(), "xfs", 0, nullptr) != 0) {
        fails("mount the array's store");
    }
}

void start_array(const WorldOptions &options) {
    Pipe ready = make_pipe();
    const fs::path log = place::logs / "tfarrayd";
    const pid_t daemon = fork_into(0, [&options, &ready, &log] {
        const Fd out = open_file(log, O_WRONLY | O_CREAT | O_APPEND);
        const Fd in = open_file("/dev/null", O_RDONLY);
        dup2(in.get(), STDIN_FILENO);
        dup2(out.get(), STDOUT_FILENO);
        dup2(out.get(), STDERR_FILENO);
        setsid();
        const int fd = dup(ready.write.get());  // without close-on-exec
        execute({options.build / "bin/tfarrayd", "--store", place::store, "--state", place::state,
                 "--control", place::control, "--media", options.media, "--ready-fd",
                 std::to_string(fd)},
                own_environment());
        return 0;
    });
    ready.write.reset();
    char byte = 0;
    if (read(ready.read.get(), &byte, 1) != 1) {
        throw std::runtime_error("the array's daemon does not start (status " +
                                 std::to_string(wait_for(daemon)) + "): " + read_text(log));
    }
}

// The first process of a namespace is parent to every orphan in it.
int reap_until(pid_t awaited) {
    for (;;) {
        int status = 0;
        const pid_t pid = waitpid(-1, &status, 0);
        if (pid == awaited) {
            return WIFSIGNALED(status) ? 128 + WTERMSIG(status) : WEXITSTATUS(status);
        }
        if (pid < 0 && errno != EINTR) fails("wait for the world's processes");
    }
}

// Ends every process of the world but this one. Anywhere else than in the first process of a
// namespace the same call would end every process of the machine.
void end_processes() {
    if (getpid() != 1) throw std::logic_error("this is not the first process of a world");
    kill(-1, SIGKILL);
    // One that writes to a frozen file system ends only when it is thawed.
    for (pid_t pid = 0; pid >= 0 || errno == EINTR; pid = waitpid(-1, nullptr, WNOHANG)) {
        if (pid != 0) continue;
        ask_warden_to_thaw();
        std::this_thread::sleep_for(1ms);
    }
    tell_warden_of_end("");
}

// Takes the store away while somebody can still wait for it, and answers what is left. The kernel
// gives back the mounts of a host some moments after its last process.
std::vector<Loop> end_devices() {
    const std::vector<Loop> loops = loops_below(place::base, "/dev");
    const auto deadline = std::chrono::steady_clock::now() + patience;
    std::vector<Loop> left;
    do {
        umount2(place::store.c_str(), 0);
        left.clear();
        std::copy_if(loops.begin(), loops.end(), std::back_inserter(left), is_attached);
        if (!left.empty()) std::this_thread::sleep_for(2ms);
    } while (!left.empty() && std::chrono::steady_clock::now() < deadline);
    return left;
}

// The programs of the system's administrator and of the lab are found, whatever the caller's PATH.
void extend_path(const fs::path &build) {
    const char *inherited = getenv("PATH");
    const std::string path = (build / "bin").string() + ":/usr/sbin:/usr/bin:/sbin:/bin" +
                             (inherited != nullptr ? ":" + std::string(inherited) : "");
    setenv("PATH", path.c_str(), 1);
}

int live(const WorldOptions &options, Warden &warden, const std::function<int()> &body) {
    umask(022);  // the modes of what is made here are those of a fresh system, whoever starts it
    extend_path(options.build);
    make_view();
    warden.listen();
    install_tree(options.build, place::tree);
    fs::create_directory_symlink(options.build, place::build);
    if (options.array) {
        make_store(options.store_bytes);
        start_array(options);
    }
    const int status = reap_until(fork_into(0, body));
    end_processes();
    const std::vector<Loop> left = end_devices();
    for (const Loop &loop : left) {
        fprintf(stderr, "tflab: /dev/loop%d is left, over %s\n", loop.number, loop.file.c_str());
    }
    return left.empty() ? status : something_left;
}

}  // namespace

int run_world(const WorldOptions &options, const std::function<int()> &body) {
    for (const char *own : {"/run/", "/dev/", "/proc/"}) {
        if (options.build.string().starts_with(own)) {
            throw std::runtime_error(options.build.string() +
                                     " cannot be seen in a world, which has " + own +
                                     " for itself");
        }
    }
    Warden warden;
    Pipe life = make_pipe();
    const pid_t first = fork_into(CLONE_NEWPID | CLONE_NEWNS, [&options, &warden, &body, &life] {
        life.write.reset();
        die_with_parent(life.read.get());
        return live(options, warden, body);
    });
    life.read.reset();
    warden.start(first);
    if (options.in_outer) options.in_outer(first);
    const int status = wait_for(first);
    warden.wait();
    return status;
}

void require_world() {
    if (!fs::exists(place::hosts)) {
        throw std::runtime_error(
            "this is no lab world; \"tflab run\" and \"tflab shell\" make one");
    }
}

void administer(const std::vector<std::string> &arguments) {
    std::vector<std::string> command = {place::build / "bin/tfarray"};
    command.insert(command.end(), arguments.begin(), arguments.end());
    const fs::path log = place::logs / ("tfarray." + std::to_string(getpid()));
    const int status = run(command, log);
    const std::string said = read_text(log);
    fs::remove(log);
    if (status != 0) throw std::runtime_error("the array says: " + said);
}

}  // namespace tflab
