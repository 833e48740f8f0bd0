#include "proof/kill_points/killer/calls.h"

#include <fcntl.h>
#include <limits.h>
#include <linux/fs.h>
#include <sched.h>
#include <sys/ioctl.h>
#include <sys/syscall.h>
#include <sys/uio.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cstring>
#include <fstream>
#include <map>
#include <regex>

#include "lab/array/transport/wire.h"

namespace killer {
namespace {

// The names that whoever drives the method chooses for what it keeps itself.
constexpr char drivers_folder[] = "/exchange/";
constexpr char temporary_folder[] = "/exchange/killed/";

constexpr const char *array_functions[] = {
#define LAB_FUNCTION(name) #name,
#include "lab/array/transport/functions.def"
#undef LAB_FUNCTION
};
// Those that change something on the array, or a session with it.
constexpr uint32_t changing_functions[] = {lab::function_SymInitV,
                                           lab::function_SymExit,
                                           lab::function_SymDiscover,
                                           lab::function_SymPrefsSet,
                                           lab::function_SymLdevBcvControl,
                                           lab::function_SymDevBcvControl,
                                           lab::function_SymDevListBcvControl,
                                           lab::function_SymDgBcvControl};

// Which argument names what a call works on.
enum class About { nothing, path, path_at, descriptor };
struct Kind {
    const char *name;
    About about;
    size_t argument = 0;  // the path, or the descriptor
};

// Whatever it is called with, it changes something.
const std::map<uint64_t, Kind> &changing_calls() {
    static const std::map<uint64_t, Kind> calls = {
        {SYS_creat, {"creat", About::path, 0}},
        {SYS_unlink, {"unlink", About::path, 0}},
        {SYS_unlinkat, {"unlink", About::path, 1}},
        {SYS_rename, {"rename", About::path, 0}},
        {SYS_renameat, {"rename", About::path, 1}},
        {SYS_renameat2, {"rename", About::path, 1}},
        {SYS_mkdir, {"mkdir", About::path, 0}},
        {SYS_mkdirat, {"mkdir", About::path, 1}},
        {SYS_rmdir, {"rmdir", About::path, 0}},
        {SYS_link, {"link", About::path, 0}},
        {SYS_linkat, {"link", About::path, 1}},
        {SYS_symlink, {"symlink", About::path, 1}},
        {SYS_symlinkat, {"symlink", About::path, 2}},
        {SYS_truncate, {"truncate", About::path, 0}},
        {SYS_ftruncate, {"ftruncate", About::descriptor, 0}},
        {SYS_fallocate, {"fallocate", About::descriptor, 0}},
        {SYS_chmod, {"chmod", About::path, 0}},
        {SYS_fchmod, {"fchmod", About::descriptor, 0}},
        {SYS_fchmodat, {"chmod", About::path, 1}},
        {SYS_chown, {"chown", About::path, 0}},
        {SYS_lchown, {"chown", About::path, 0}},
        {SYS_fchown, {"fchown", About::descriptor, 0}},
        {SYS_fchownat, {"chown", About::path, 1}},
        {SYS_mount, {"mount", About::path, 1}},
        {SYS_umount2, {"umount", About::path, 0}},
        {SYS_flock, {"flock", About::descriptor, 0}},
        {SYS_fork, {"start a process", About::nothing}},
        {SYS_vfork, {"start a process", About::nothing}},
        {SYS_wait4, {"end of a process", About::nothing}},
        {SYS_waitid, {"end of a process", About::nothing}}};
    return calls;
}

// Random endings, and numbers of processes and snapshots, differ from run to run.
std::string lasting(const std::string &path) {
    static const std::regex temporary("(QfMS|EMCTX|EMCTF|fimctl\\.)[A-Za-z0-9]{6}");
    static const std::regex number(
        "(symapi_db\\.bin\\.|/fimctl/tmp/|/mnt/client1-|/run/fimctl/[^/]+/)[0-9]+");
    static const std::regex catalogue("(/run/fimctl/)[0-9a-f]+-[0-9a-f]+");
    // The processes before the killed one have made theirs in the common folder.
    static const std::regex folder("^(/tmp|/exchange/killed)/(QfMS|EMC)");
    static const std::regex deleted(" \\(deleted\\)$");
    std::string name = path;
    for (const std::regex *one : {&temporary, &number, &catalogue})
        name = std::regex_replace(name, *one, "$1*");
    name = std::regex_replace(name, folder, "TMPDIR/$2");
    return std::regex_replace(name, deleted, "");
}

// Nothing for what is the driver's own.
std::optional<std::string> named(const std::string &call, const std::string &path) {
    if (path.starts_with("/proc/") || path == "/dev/null") return std::nullopt;
    if (path.starts_with(drivers_folder) && !path.starts_with(temporary_folder))
        return std::nullopt;
    return call + " " + lasting(path);
}

std::optional<std::string> name_of_open(const std::string &path, uint64_t flags) {
    if ((flags & O_TMPFILE) == O_TMPFILE) return named("open+temporary", path);
    if ((flags & O_CREAT) != 0) return named("open+create", path);
    if ((flags & O_TRUNC) != 0) return named("open+truncate", path);
    return std::nullopt;
}

bool is_file(const std::string &target) {
    return target.starts_with("/");
}

bool read_head(const Process &process, uint64_t address, uint64_t size, lab::RequestHead *head) {
    return size == sizeof *head && process.bytes(address, head, sizeof *head) &&
           head->magic == lab::wire_magic && head->function < lab::function_count;
}

std::optional<std::string> name_of_output(const Process &process, const SystemCall &call) {
    const std::string target = process.descriptor(static_cast<int>(call.arguments[0]));
    if (is_file(target)) return named("write", target);
    lab::RequestHead head = {};
    if (!read_head(process, call.arguments[1], call.arguments[2], &head)) return std::nullopt;
    const bool changes = std::find(std::begin(changing_functions), std::end(changing_functions),
                                   head.function) != std::end(changing_functions);
    if (!changes) return std::nullopt;
    return std::string("array ") + array_functions[head.function];
}

std::optional<std::string> name_of_lock(const Process &process, const SystemCall &call) {
    switch (call.arguments[1]) {
    case F_SETLK:
    case F_SETLKW:
    case F_OFD_SETLK:
    case F_OFD_SETLKW:
        break;
    default:
        return std::nullopt;
    }
    struct flock lock = {};
    if (!process.bytes(call.arguments[2], &lock, sizeof lock)) return std::nullopt;
    return named(lock.l_type == F_UNLCK ? "unlock" : "lock",
                 process.descriptor(static_cast<int>(call.arguments[0])));
}

std::optional<std::string> name_of_start(uint64_t flags) {
    if ((flags & CLONE_THREAD) != 0) return std::nullopt;
    return "start a process";
}

// To close the last descriptor of a file lets go of its locks; of these two kinds of files only.
std::optional<std::string> name_of_close(const Process &process, const SystemCall &call) {
    const std::string target = process.descriptor(static_cast<int>(call.arguments[0]));
    if (target.find("LOCKFILE") == std::string::npos) return std::nullopt;
    return named("close", target);
}

std::optional<std::string> name_of_control(const Process &process, const SystemCall &call) {
    constexpr uint64_t qz_freeze = 0x564f4c64, qz_thaw = 0x564f4c65;
    const std::string target = process.descriptor(static_cast<int>(call.arguments[0]));
    if (call.arguments[1] == FIFREEZE || call.arguments[1] == qz_freeze)
        return named("freeze", target);
    if (call.arguments[1] == FITHAW || call.arguments[1] == qz_thaw) return named("thaw", target);
    return std::nullopt;
}

}  // namespace

std::string Process::text(uint64_t address) const {
    std::array<char, PATH_MAX> piece = {};
    // A text may end just before a page that is not there, so it is read page by page.
    size_t got = 0;
    while (got < piece.size()) {
        const size_t page = 4096 - (address + got) % 4096;
        const size_t wanted = std::min(page, piece.size() - got);
        if (!bytes(address + got, piece.data() + got, wanted)) break;
        got += wanted;
        if (memchr(piece.data(), '\0', got) != nullptr) break;
    }
    return std::string(piece.data(), strnlen(piece.data(), got));
}

bool Process::bytes(uint64_t address, void *into, size_t size) const {
    const iovec here = {into, size};
    iovec there = {};
    memcpy(&there.iov_base, &address, sizeof there.iov_base);
    there.iov_len = size;
    return process_vm_readv(pid_, &here, 1, &there, 1, 0) == static_cast<ssize_t>(size);
}

std::string Process::descriptor(int fd) const {
    char target[PATH_MAX] = "";
    const std::string link = "/proc/" + std::to_string(pid_) + "/fd/" + std::to_string(fd);
    const ssize_t size = readlink(link.c_str(), target, sizeof target);
    return size > 0 ? std::string(target, static_cast<size_t>(size)) : "";
}

std::string Process::step() const {
    std::ifstream in("/proc/" + std::to_string(pid_) + "/comm");
    std::string name;
    std::getline(in, name);
    return name;
}

std::optional<std::string> name_of_change(const Process &process, const SystemCall &call) {
    switch (call.number) {
    case SYS_open:
        return name_of_open(process.text(call.arguments[0]), call.arguments[1]);
    case SYS_openat:
        return name_of_open(process.text(call.arguments[1]), call.arguments[2]);
    case SYS_write:
    case SYS_pwrite64:
    case SYS_writev:
    case SYS_pwritev:
    case SYS_sendto:
        return name_of_output(process, call);
    case SYS_fcntl:
        return name_of_lock(process, call);
    case SYS_close:
        return name_of_close(process, call);
    case SYS_ioctl:
        return name_of_control(process, call);
    case SYS_clone:
        return name_of_start(call.arguments[0]);
    case SYS_clone3: {
        uint64_t flags = 0;  // the first field of its record
        process.bytes(call.arguments[0], &flags, sizeof flags);
        return name_of_start(flags);
    }
    default:
        break;
    }
    const auto kind = changing_calls().find(call.number);
    if (kind == changing_calls().end()) return std::nullopt;
    switch (kind->second.about) {
    case About::path:
        return named(kind->second.name, process.text(call.arguments[kind->second.argument]));
    case About::descriptor:
        return named(kind->second.name,
                     process.descriptor(static_cast<int>(call.arguments[kind->second.argument])));
    default:
        return kind->second.name;
    }
}

uint32_t rest_of_request(const Process &process, const SystemCall &call) {
    lab::RequestHead head = {};
    if (!read_head(process, call.arguments[1], call.arguments[2], &head)) return 0;
    return head.size;
}

}  // namespace killer
