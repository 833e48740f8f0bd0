#include "tests/support/private_root.h"

#include <fcntl.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <sstream>

namespace test {
namespace {

bool real_root = false;

[[noreturn]] void give_up(const std::string &what) {
    fprintf(stderr, "test setup: cannot %s: %s\n", what.c_str(), strerror(errno));
    _exit(1);
}

void do_mount(const char *source, const std::string &target, const char *type, unsigned long flags,
              const char *data) {
    if (mount(source, target.c_str(), type, flags, data) != 0) give_up("mount on " + target);
}

void bind(const std::string &source, const std::string &target) {
    do_mount(source.c_str(), target, nullptr, MS_BIND | MS_REC, nullptr);
}

void put_text(const char *path, const std::string &text) {
    const int fd = open(path, O_WRONLY | O_CLOEXEC);
    if (fd < 0 || write(fd, text.data(), text.size()) != static_cast<ssize_t>(text.size())) {
        give_up(std::string("write ") + path);
    }
    close(fd);
}

// Puts an overlay of a folder at the target; what is written there stays on the scratch tmpfs.
// False when the kernel does not take this folder as the lower layer.
bool overlay(const std::string &lower, const std::string &target) {
    static int count = 0;
    const std::string number = std::to_string(count++);
    const std::string upper = "/tmp/upper" + number, work = "/tmp/work" + number;
    for (const std::string &folder : {upper, work}) mkdir(folder.c_str(), 0755);
    std::string options = "lowerdir=" + lower + ",upperdir=" + upper + ",workdir=" + work;
    if (!real_root) options += ",userxattr";
    return mount("overlay", target.c_str(), "overlay", 0, options.c_str()) == 0;
}

// Without root a user namespace gives the capabilities for the mounts below.
void enter_namespaces() {
    real_root = geteuid() == 0;
    const uid_t uid = getuid();
    const gid_t gid = getgid();
    if (unshare(CLONE_NEWNS | (real_root ? 0 : CLONE_NEWUSER)) != 0) give_up("unshare");
    if (!real_root) {
        put_text("/proc/self/setgroups", "deny");
        put_text("/proc/self/uid_map", "0 " + std::to_string(uid) + " 1");
        put_text("/proc/self/gid_map", "0 " + std::to_string(gid) + " 1");
    }
    do_mount("none", "/", nullptr, MS_REC | MS_PRIVATE, nullptr);
}

bool holds_mounts(const std::string &folder) {
    std::ifstream table("/proc/self/mountinfo");
    for (std::string line; std::getline(table, line);) {
        std::istringstream fields(line);
        std::string skipped, place;
        fields >> skipped >> skipped >> skipped >> skipped >> place;
        if (place.starts_with(folder + "/")) return true;
    }
    return false;
}

// The entries of a folder, each overlaid for itself: in a user namespace the mounts that were there
// before cannot be parted from the folder that they lie in, and the kernel takes no such folder as
// a lower layer. What cannot be overlaid is bound as it is, and what cannot even be bound (another
// user's mount) stays empty. "" is the root.
void assemble(const std::string &folder, const std::string &root) {
    std::error_code error, unreadable;
    for (std::filesystem::directory_iterator entry(folder + "/", error), end; entry != end;
         ++entry) {
        const std::string path = folder + "/" + entry->path().filename().string();
        const std::string target = root + path;
        if (entry->is_symlink()) {
            std::filesystem::copy_symlink(path, target);
            continue;
        }
        if (!entry->is_directory(unreadable)) {
            close(open(target.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0600));
            mount(path.c_str(), target.c_str(), nullptr, MS_BIND, nullptr);
            continue;
        }
        mkdir(target.c_str(), 0755);
        if (path == "/proc" || path == "/sys" || path == "/dev" || path == "/tmp") continue;
        if (holds_mounts(path)) {
            assemble(path, root);
        } else if (!overlay(path, target)) {
            mount(path.c_str(), target.c_str(), nullptr, MS_BIND | MS_REC, nullptr);
        }
    }
    if (error) bind(folder, root + folder);
}

// The new root, a mount of its own; /proc, /sys, /dev and /tmp in it are still empty.
void make_root(const std::string &root) {
    if (real_root) {
        if (!overlay("/", root)) give_up("overlay /");
        return;
    }
    do_mount("tmpfs", root, "tmpfs", 0, "mode=0755");
    assemble("", root);
    // Only the top of an overlay belongs to this user; tests write below these, too.
    for (const std::string folder : {"/usr/bin", "/usr/sbin", "/var/lib"}) {
        if (!overlay(folder, root + folder)) give_up("overlay " + folder);
    }
}

// What a developer's machine knows of the product is not what a case begins with. Without root,
// what the machine's root has closed stays as it is.
void hide_the_machines_own(const std::string &root) {
    for (const char *folder :
         {"/var/lib/fimctl", "/run/fimctl", "/etc/fimctl", "/var/symapi", "/usr/quill"}) {
        std::error_code error;
        std::filesystem::remove_all(root + folder, error);
        if (error && real_root) give_up("hide " + std::string(folder) + ": " + error.message());
    }
}

void fill_dev(const std::string &dev) {
    do_mount("tmpfs", dev, "tmpfs", 0, "mode=0755");
    for (const char *node : {"null", "zero", "full", "random", "urandom"}) {
        const std::string target = dev + "/" + node;
        close(open(target.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0600));
        bind(std::string("/dev/") + node, target);
    }
    make_folders(dev + "/shm");
    do_mount("tmpfs", dev + "/shm", "tmpfs", 0, nullptr);
}

}  // namespace

void enter_private_root() {
    enter_namespaces();
    // The scratch tmpfs hides whatever lies in /tmp, so the source folder is kept by descriptor:
    // one of the new namespace, since the kernel binds nothing that belongs to another.
    const int source = open(TF_SOURCE_DIR, O_PATH | O_CLOEXEC);
    if (source < 0) give_up("open " TF_SOURCE_DIR);
    do_mount("tmpfs", "/tmp", "tmpfs", 0, nullptr);
    const std::string root = "/tmp/root";
    mkdir(root.c_str(), 0755);
    make_root(root);
    hide_the_machines_own(root);
    bind("/proc", root + "/proc");
    bind("/sys", root + "/sys");
    fill_dev(root + "/dev");
    do_mount("tmpfs", root + "/tmp", "tmpfs", 0, "mode=1777");
    make_folders(root + TF_SOURCE_DIR);
    bind("/proc/self/fd/" + std::to_string(source), root + TF_SOURCE_DIR);
    close(source);
    make_folders(root + "/tmp/.old");
    if (syscall(SYS_pivot_root, root.c_str(), (root + "/tmp/.old").c_str()) != 0) {
        give_up("pivot_root");
    }
    if (chdir("/") != 0) give_up("chdir /");
    if (umount2("/tmp/.old", MNT_DETACH) != 0) give_up("detach the old root");
    rmdir("/tmp/.old");
    unsetenv("TMPDIR");
}

bool is_real_root() {
    return real_root;
}

std::vector<std::string> files_left_in_tmp() {
    // A source tree under /tmp is bound into the private root; it is not something left behind.
    const std::string source = TF_SOURCE_DIR;
    std::vector<std::string> left;
    for (const auto &entry : std::filesystem::directory_iterator("/tmp")) {
        const std::string path = entry.path();
        if (source == path || source.starts_with(path + "/")) continue;
        left.push_back(path);
    }
    return left;
}

void make_folders(const std::string &path) {
    std::error_code error;
    std::filesystem::create_directories(path, error);
    if (error) {
        errno = error.value();
        give_up("make " + path);
    }
}

void write_file(const std::string &path, const std::string &text, int mode) {
    make_folders(std::filesystem::path(path).parent_path());
    std::ofstream out(path, std::ios::trunc | std::ios::binary);
    out << text;
    out.close();
    if (!out) give_up("write " + path);
    chmod(path.c_str(), static_cast<mode_t>(mode));
}

void write_script(const std::string &path, const std::string &body) {
    write_file(path, "#!/bin/sh\n" + body + "\n", 0755);
}

std::string read_file(const std::string &path) {
    std::ifstream in(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(in), {}};
}

bool exists(const std::string &path) {
    struct stat status = {};
    return lstat(path.c_str(), &status) == 0;
}

void write_mount_table(const std::string &text) {
    unlink("/etc/mtab");
    write_file("/etc/mtab", text);
}

}  // namespace test
