#include "lab/host/host.h"

#include <fcntl.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <fstream>
#include <sstream>
#include <stdexcept>

#include "lab/host/devices.h"
#include "lab/host/places.h"
#include "lab/host/warden.h"
#include "lab/host/world.h"

namespace tflab {
namespace {

constexpr unsigned long host_namespaces = CLONE_NEWNS | CLONE_NEWUTS | CLONE_NEWIPC | CLONE_NEWPID;

void check_name(const std::string &name) {
    const bool good = !name.empty() && name.size() < 64 && name[0] != '-' && name[0] != '.' &&
                      std::all_of(name.begin(), name.end(), [](unsigned char c) {
                          return isalnum(c) != 0 || c == '-' || c == '.';
                      });
    if (!good) throw std::runtime_error("'" + name + "' is no host name");
}

// The installed tree over the machine's files; what the host writes stays in memory.
void mount_overlay(const fs::path &below, const fs::path &installed, const fs::path &changes,
                   const fs::path &target) {
    make_folder(changes / "upper");
    make_folder(changes / "work");
    const std::string lower =
        (fs::exists(installed) ? installed.string() + ":" : "") + below.string();
    const std::string options = "lowerdir=" + lower + ",upperdir=" + (changes / "upper").string() +
                                ",workdir=" + (changes / "work").string();
    if (mount("overlay", target.c_str(), "overlay", 0, options.c_str()) != 0) {
        fails("lay the host's root over " + below.string());
    }
}

// Folders that are file systems of their own on this machine: the overlay over / shows them empty.
std::vector<fs::path> separate_folders() {
    std::vector<fs::path> found;
    std::ifstream table("/proc/self/mounts");
    for (std::string line; std::getline(table, line);) {
        std::istringstream fields(line);
        std::string source, folder;
        fields >> source >> folder;
        for (const char *wanted : {"/etc", "/home", "/opt", "/root", "/srv", "/usr", "/var"}) {
            const bool below = folder == wanted || folder.starts_with(std::string(wanted) + "/");
            if (below && folder.find('\\') == std::string::npos && fs::is_directory(folder)) {
                found.emplace_back(folder);
            }
        }
    }
    return found;
}

void mount_root(const place::Host &host) {
    mount_overlay("/", place::tree, host.changes / "root", host.root);
    int number = 0;
    for (const fs::path &folder : separate_folders()) {
        const fs::path target = host.root / folder.relative_path();
        if (!fs::is_directory(target)) continue;
        mount_overlay(folder, place::tree / folder.relative_path(),
                      host.changes / std::to_string(++number), target);
    }
}

void mount_own_folders(const place::Host &host, bool administrator) {
    const fs::path &root = host.root;
    for (const char *folder : {"dev", "proc", "sys", "run", "tmp"}) make_folder(root / folder);
    mount_bind(host.dev, root / "dev");
    mount_new("devpts", root / "dev/pts", MS_NOSUID | MS_NOEXEC, "ptmxmode=0666,mode=0620,gid=5");
    mount_new("proc", root / "proc", MS_NOSUID | MS_NODEV | MS_NOEXEC);
    mount_new("sysfs", root / "sys", MS_NOSUID | MS_NODEV | MS_NOEXEC | MS_RDONLY);
    mount_bind(host.own_run, root / "run");
    if (administrator) mount_bind(place::administrator, root / "run/tfarray");
    mount_tmpfs(root / "tmp", "mode=1777");
    mount_bind(place::exchange, root / place::exchange_in_host.relative_path());
}

// What makes the machine's files another host's.
void write_identity(const std::string &name, const fs::path &root) {
    if (sethostname(name.c_str(), name.size()) != 0) fails("set the host's name");
    const auto replace = [&root](const char *file, const std::string &text) {
        fs::remove(root / file);
        write_text(root / file, text);
    };
    replace("etc/hostname", name + "\n");
    replace("etc/hosts", "127.0.0.1 localhost " + name + "\n::1 localhost\n");
    // Names come from that file alone: a host of the lab must not wait for a name server.
    replace("etc/nsswitch.conf", "passwd: files\ngroup: files\nshadow: files\nhosts: files\n");
    // The kernel's table of whoever reads it: here, the host's own mounts and nothing else.
    fs::remove(root / "etc/mtab");
    fs::create_symlink("../proc/self/mounts", root / "etc/mtab");
}

void change_root(const fs::path &root) {
    if (chdir(root.c_str()) != 0) fails("enter the host's root");
    if (syscall(SYS_pivot_root, ".", ".") != 0) fails("change the root");
    if (umount2(".", MNT_DETACH) != 0) fails("leave the machine's root");
    if (chdir("/") != 0) fails("enter the host's root");
}

void leave_terminal(const fs::path &log) {
    setsid();
    const Fd out = open_file(log, O_WRONLY | O_CREAT | O_APPEND);
    const Fd in = open_file("/dev/null", O_RDONLY);
    dup2(in.get(), STDIN_FILENO);
    dup2(out.get(), STDOUT_FILENO);
    dup2(out.get(), STDERR_FILENO);
}

// The first process of a host: makes its root, says so, and then is parent to the host's orphans.
int be_host(const std::string &name, const place::Host &host, bool administrator, const Fd &ready) {
    leave_terminal(place::logs / name);
    if (mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0) fails("make / private");
    mount_root(host);
    mount_own_folders(host, administrator);
    write_identity(name, host.root);
    change_root(host.root);
    if (write(ready.get(), "", 1) != 1) fails("report the host");
    // Blocked, the signal is kept until it is waited for, so no orphan stays a zombie: one that
    // owned an array's locks would go on owning them.
    sigset_t orphan;
    sigemptyset(&orphan);
    sigaddset(&orphan, SIGCHLD);
    sigprocmask(SIG_BLOCK, &orphan, nullptr);
    for (;;) {
        while (waitpid(-1, nullptr, WNOHANG) > 0) {
        }
        sigwaitinfo(&orphan, nullptr);
    }
}

void make_folders(const place::Host &host) {
    for (const fs::path &folder : {host.root, host.changes, host.dev, host.own_run}) {
        make_folder(folder);
    }
    for (const char *folder : {"lock", "tfarray", "fimctl"}) make_folder(host.own_run / folder);
    mount_tmpfs(host.dev, "mode=0755");
    fill_devices(host.dev);
}

pid_t pid_of(const std::string &name) {
    const std::string text = read_text(place::Host(name).pid);
    if (text.empty()) throw std::runtime_error("there is no host '" + name + "' in this world");
    const pid_t pid = atoi(text.c_str());
    if (pid <= 1) throw std::runtime_error("the process of host '" + name + "' is not known");
    return pid;
}

// The first process of a process namespace ends after all others in it, and then may stay a zombie.
bool has_ended(pid_t pid) {
    if (kill(pid, 0) != 0) return true;
    const std::string status = read_text("/proc/" + std::to_string(pid) + "/stat");
    const size_t name_end = status.rfind(") ");
    return name_end != std::string::npos && status[name_end + 2] == 'Z';
}

// All are opened before the first is entered, since from there on the process has another /proc.
void enter(pid_t pid, const std::vector<const char *> &kinds) {
    std::vector<Fd> spaces;
    for (const char *kind : kinds) {
        spaces.push_back(open_file("/proc/" + std::to_string(pid) + "/ns/" + kind, O_RDONLY));
    }
    for (const Fd &space : spaces) {
        if (setns(space.get(), 0) != 0) fails("enter process " + std::to_string(pid));
    }
}

}  // namespace

void start_host(const std::string &name, bool administrator) {
    check_name(name);
    require_world();
    const place::Host host(name);
    if (fs::exists(host.folder)) throw std::runtime_error("host '" + name + "' is there already");
    make_folders(host);
    if (fs::exists(place::control)) {
        administer({"host", "add", name, "--socket", host.socket, "--dev", host.dev});
    }
    Pipe ready = make_pipe();
    const pid_t first = fork_into(host_namespaces, [&] {
        ready.read.reset();
        return be_host(name, host, administrator, ready.write);
    });
    ready.write.reset();
    char byte = 0;
    if (read(ready.read.get(), &byte, 1) != 1) {
        throw std::runtime_error("host '" + name + "' does not start (status " +
                                 std::to_string(wait_for(first)) +
                                 "): " + read_text(place::logs / name));
    }
    tell_warden_of_host(name, first);
    write_text(host.pid, std::to_string(first));
}

void stop_host(const std::string &name) {
    require_world();
    const place::Host host(name);
    const pid_t first = pid_of(name);
    kill(first, SIGKILL);
    // It may be the child of a process that never waits for it, so its end is looked up.
    while (!has_ended(first)) {
        if (waitpid(first, nullptr, WNOHANG) == first) break;
        ask_warden_to_thaw();
        usleep(1000);
    }
    tell_warden_of_end(name);
    if (fs::exists(place::control)) administer({"host", "remove", name});
    umount2(host.dev.c_str(), MNT_DETACH);
    fs::remove_all(host.folder);
}

std::vector<std::string> host_names() {
    require_world();
    std::vector<std::string> names;
    for (const auto &entry : fs::directory_iterator(place::hosts)) {
        if (fs::exists(entry.path() / "pid")) names.push_back(entry.path().filename());
    }
    std::sort(names.begin(), names.end());
    return names;
}

int execute_in_host(const std::string &name, const std::vector<std::string> &command,
                    const std::vector<std::string> &variables) {
    require_world();
    const pid_t first = pid_of(name);
    std::vector<std::string> environment = {
        "PATH=/usr/sbin:/usr/bin:/sbin:/bin:/usr/quill/tessera/bin", "HOME=/root", "LANG=C.UTF-8",
        "LD_LIBRARY_PATH=/usr/quill/tessera/lib"};
    if (const char *terminal = getenv("TERM"))
        environment.push_back(std::string("TERM=") + terminal);
    environment.insert(environment.end(), variables.begin(), variables.end());
    Pipe life = make_pipe();
    // A process of its own enters, so that the caller stays where it is.
    const pid_t between = fork_into(0, [&] {
        life.write.reset();
        die_with_parent(life.read.get());
        enter(first, {"mnt", "uts", "ipc", "pid"});
        Pipe inner = make_pipe();
        const pid_t pid = fork_into(0, [&] {
            inner.write.reset();
            die_with_parent(inner.read.get());
            if (chdir("/") != 0) fails("enter the host's root");
            execute(command, environment);
            return 0;
        });
        inner.read.reset();
        signal(SIGINT, SIG_IGN);
        signal(SIGQUIT, SIG_IGN);
        return wait_for(pid);
    });
    life.read.reset();
    return wait_for(between);
}

void enter_world(pid_t first_process) {
    enter(first_process, {"pid", "mnt"});
}

}  // namespace tflab
