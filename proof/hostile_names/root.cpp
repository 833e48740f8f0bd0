#include "proof/hostile_names/root.h"

#include <fcntl.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <stdexcept>

namespace hostile {
namespace {

namespace fs = std::filesystem;

constexpr char scratch[] = "/tmp";  // a tmpfs of the row's own namespace
constexpr char template_root[] = "/tmp/template";
constexpr unsigned patience = 20;  // seconds of one point

constexpr const char *tool_paths[] = {"/usr/sbin/qzdg",
                                      "/usr/sbin/qzdisk",
                                      "/usr/sbin/qzdctl",
                                      "/usr/sbin/qzvol",
                                      "/usr/sbin/qzvset",
                                      "/usr/sbin/lockfs",
                                      "/usr/sbin/fsck",
                                      "/usr/bin/mount",
                                      "/usr/bin/umount",
                                      "/usr/quill/tessera/bin/tqtpcinfo",
                                      "/usr/quill/tessera/bin/tqdgclone",
                                      "/usr/quill/tessera/bin/tqdgclone_script"};
// Words that a shell would find when a name is taken apart.
constexpr const char *canaries[] = {"canary", "a", "b", "ab", "x", "Z", "if", "a=b", "touch", "rm"};

[[noreturn]] void fails(const std::string &what) {
    throw std::runtime_error("cannot " + what + ": " + strerror(errno));
}

void do_mount(const char *source, const std::string &target, const char *type, unsigned long flags,
              const std::string &data) {
    if (mount(source, target.c_str(), type, flags, data.c_str()) != 0) fails("mount " + target);
}

std::string read_all(const std::string &path) {
    std::ifstream in(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(in), {}};
}

void install_tools(const std::string &recorder) {
    const fs::path root = template_root;
    for (const char *folder :
         {"usr/quill/tessera/online_util/fi_cntl", "usr/quill/tessera/online_util/db_cntl",
          "var/symapi/db", "proof/bin", "proof/answers", "data", "etc"}) {
        fs::create_directories(root / folder);
    }
    for (const char *tool : tool_paths) {
        const fs::path place = root.string() + tool;
        fs::create_directories(place.parent_path());
        fs::copy_file(recorder, place);
    }
    for (const char *name : canaries) fs::copy_file(recorder, root / "proof/bin" / name);
    std::ofstream(root / "proof/outside") << "nobody's business\n";
    std::ofstream(root / "var/symapi/db/symapi_db.bin") << "";
    std::ofstream(root / "etc/nsswitch.conf") << "passwd: files\ngroup: files\nhosts: files\n";
}

// What a path is; an entry that looks the same before and after was not touched.
using Tree = std::map<std::string, std::string>;

void read_tree(const std::string &base, const std::string &below, Tree *tree) {
    std::error_code error;
    for (fs::directory_iterator entry(base + below, error), end; entry != end;
         entry.increment(error)) {
        const std::string path = below + "/" + entry->path().filename().string();
        struct stat is = {};
        if (lstat((base + path).c_str(), &is) != 0) continue;
        std::string text = std::to_string(is.st_mode) + " " + std::to_string(is.st_uid) + " " +
                           std::to_string(is.st_gid) + " " + std::to_string(is.st_rdev);
        if (S_ISDIR(is.st_mode)) {
            read_tree(base, path, tree);
        } else {
            text += " " + std::to_string(is.st_ino) + " " + std::to_string(is.st_size) + " " +
                    std::to_string(is.st_ctim.tv_sec) + "." + std::to_string(is.st_ctim.tv_nsec);
        }
        (*tree)[path] = text;
    }
}

// The upper layer of the root, and what is mounted above it.
Tree whole_tree(int upper) {
    Tree tree;
    read_tree("/proc/self/fd/" + std::to_string(upper), "", &tree);
    for (const char *folder : {"/tmp", "/dev"}) read_tree("", folder, &tree);
    tree.erase("/proof/words");
    return tree;
}

// A folder that was there and now lies in the upper layer was only copied there.
bool is_folder_of(const std::vector<int> &lower_layers, const std::string &path) {
    struct stat is = {};
    for (const int layer : lower_layers) {
        if (fstatat(layer, path.c_str() + 1, &is, AT_SYMLINK_NOFOLLOW) == 0) {
            return S_ISDIR(is.st_mode);
        }
    }
    return false;
}

std::set<std::string> differences(const Tree &before, const Tree &after) {
    std::set<std::string> changed;
    for (const auto &[path, text] : after) {
        const auto was = before.find(path);
        if (was == before.end() || was->second != text) changed.insert(path);
    }
    for (const auto &entry : before) {
        if (after.find(entry.first) == after.end()) changed.insert(entry.first);
    }
    return changed;
}

void mount_root(const std::string &place) {
    for (const char *folder : {"upper", "work", "root"})
        fs::create_directories(place + "/" + folder);
    const std::string root = place + "/root";
    do_mount("overlay", root, "overlay", 0,
             std::string("lowerdir=") + template_root + ":/,upperdir=" + place +
                 "/upper,workdir=" + place + "/work");
    for (const char *folder : {"/proc", "/dev", "/tmp"}) fs::create_directories(root + folder);
    do_mount("/proc", root + "/proc", nullptr, MS_BIND | MS_REC, "");
    do_mount("dev", root + "/dev", "tmpfs", 0, "mode=0755");
    do_mount("tmp", root + "/tmp", "tmpfs", 0, "mode=1777");
    if (mknod((root + "/dev/null").c_str(), S_IFCHR | 0666, makedev(1, 3)) != 0) {
        fails("make /dev/null");
    }
    chmod((root + "/dev/null").c_str(), 0666);
}

// The report of a point goes to the parent as texts, each behind its length.
void put_text(std::string *report, const std::string &text) {
    *report += std::to_string(text.size()) + ":" + text;
}

std::string take_text(const std::string &report, size_t *at) {
    const size_t colon = report.find(':', *at);
    if (colon == std::string::npos) throw std::runtime_error("a report breaks off");
    const size_t length = std::stoul(report.substr(*at, colon - *at));
    *at = colon + 1 + length;
    return report.substr(colon + 1, length);
}

void write_all(int fd, const std::string &text) {
    for (size_t done = 0; done < text.size();) {
        const ssize_t written = write(fd, text.data() + done, text.size() - done);
        if (written <= 0) _exit(98);
        done += static_cast<size_t>(written);
    }
}

// In the point's own process.
std::string be_point(const std::string &place, const std::function<void()> &set_up,
                     const std::function<std::string()> &run) {
    if (unshare(CLONE_NEWNS | CLONE_NEWUTS) != 0) fails("unshare");
    mount_root(place);
    const int upper = open((place + "/upper").c_str(), O_PATH | O_CLOEXEC);
    const std::vector<int> lower = {open(template_root, O_PATH | O_CLOEXEC),
                                    open("/", O_PATH | O_CLOEXEC)};
    if (upper < 0 || lower[0] < 0 || lower[1] < 0) fails("open the layers");
    if (chroot((place + "/root").c_str()) != 0 || chdir("/data") != 0) fails("change the root");
    setenv("PATH", "/proof/bin", 1);
    set_up();
    const Tree before = whole_tree(upper);
    const std::string outcome = run();
    if (chdir("/") != 0) fails("leave the folder");
    std::string report;
    put_text(&report, outcome);
    put_text(&report, read_all("/proof/words"));
    put_text(&report, read_all("/proof/tripped"));
    for (const std::string &path : differences(before, whole_tree(upper))) {
        if (before.find(path) == before.end() && is_folder_of(lower, path)) continue;
        put_text(&report, path);
    }
    return report;
}

std::vector<Words> runs_of(const std::string &text) {
    std::vector<Words> runs;
    for (size_t at = 0; at < text.size(); ++at) {
        Words words;
        while (text[at] != '\n') words.push_back(take_text(text, &at));
        runs.push_back(words);
    }
    return runs;
}

Seen seen_in(const std::string &report) {
    Seen seen;
    size_t at = 0;
    seen.outcome = take_text(report, &at);
    seen.runs = runs_of(take_text(report, &at));
    seen.tripped = take_text(report, &at);
    while (at < report.size()) seen.changed.insert(take_text(report, &at));
    return seen;
}

std::string read_to_end(int fd) {
    std::string text;
    char piece[65536];
    for (ssize_t length; (length = read(fd, piece, sizeof piece)) > 0;) {
        text.append(piece, static_cast<size_t>(length));
    }
    return text;
}

}  // namespace

Roots::Roots(const std::string &folder) {
    const std::string recorder = read_all(folder + "/proof_recorder");
    if (recorder.empty()) fails("read " + folder + "/proof_recorder");
    if (unshare(CLONE_NEWNS) != 0) fails("unshare");
    do_mount("none", "/", nullptr, MS_REC | MS_PRIVATE, "");
    do_mount("scratch", scratch, "tmpfs", 0, "mode=0755");
    const std::string copy = std::string(scratch) + "/recorder";
    std::ofstream(copy, std::ios::binary) << recorder;
    chmod(copy.c_str(), 0755);
    install_tools(copy);
}

Seen Roots::run(const std::function<void()> &set_up, const std::function<std::string()> &run) {
    const std::string place = std::string(scratch) + "/point" + std::to_string(++count_);
    int report[2];
    if (pipe2(report, O_CLOEXEC) != 0) fails("open a pipe");
    fflush(nullptr);
    const pid_t pid = fork();
    if (pid < 0) fails("fork");
    if (pid == 0) {
        alarm(patience);
        close(report[0]);
        try {
            write_all(report[1], be_point(place, set_up, run));
        } catch (const std::exception &error) {
            fprintf(stderr, "%s\n", error.what());
            _exit(97);
        }
        _exit(0);
    }
    close(report[1]);
    const std::string text = read_to_end(report[0]);
    close(report[0]);
    int status = 0;
    waitpid(pid, &status, 0);
    Seen seen;
    if (WIFEXITED(status) && WEXITSTATUS(status) == 0) seen = seen_in(text);
    seen.status = WIFSIGNALED(status) ? 128 + WTERMSIG(status) : WEXITSTATUS(status);
    std::error_code ignored;
    fs::remove_all(place, ignored);
    return seen;
}

bool make_folder(const std::string &path) {
    std::error_code error;
    fs::create_directories(path, error);
    struct stat is = {};
    return stat(path.c_str(), &is) == 0 && S_ISDIR(is.st_mode);
}

bool make_file(const std::string &path, const std::string &text) {
    const size_t slash = path.rfind('/');
    if (slash != std::string::npos && slash > 0) make_folder(path.substr(0, slash));
    std::ofstream(path, std::ios::binary | std::ios::trunc) << text;
    return access(path.c_str(), F_OK) == 0;
}

bool make_node(const std::string &path, mode_t type) {
    const size_t slash = path.rfind('/');
    if (slash != std::string::npos && slash > 0) make_folder(path.substr(0, slash));
    // The null device, or a loop device that nothing is behind.
    const dev_t device = S_ISCHR(type) ? makedev(1, 3) : makedev(7, 250);
    return mknod(path.c_str(), type | 0600, device) == 0;
}

}  // namespace hostile
