#include "tests/lab_method/phase/utilities.h"

#include <arpa/inet.h>
#include <dlfcn.h>
#include <linux/filter.h>
#include <linux/seccomp.h>
#include <net/if.h>
#include <sched.h>
#include <sys/ioctl.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <iterator>

#include "fim_config/qfm_fim_config.h"
#include "snap/snap.h"
#include "tests/lab_method/phase/host_state.h"

namespace phase {
namespace {

[[noreturn]] void give_up(const std::string &why) {
    fprintf(stderr, "tfphase: %s\n", why.c_str());
    exit(2);
}

template <class Function>
Function *exported(void *library, const char *name) {
    void *found = dlsym(library, name);
    if (found == nullptr) give_up(dlerror());
    return reinterpret_cast<Function *>(found);
}
#define EXPORTED(name) exported<decltype(name)>(library, #name)

void (*log_sink)(const char *line);

int take_diagnostic(int, const char *text, int length) {
    log_sink(std::string(text, static_cast<size_t>(length)).c_str());
    return length;
}

std::string shown(const char *text) {
    return text != nullptr ? text : "(null)";
}

std::string number(int value) {
    return std::to_string(value);
}

// The word before the first blank, which leaves the text.
std::string take_word(std::string *text) {
    const size_t blank = text->find(' ');
    const std::string word = text->substr(0, blank);
    text->erase(0, blank == std::string::npos ? blank : blank + 1);
    return word;
}

std::string look_up(int (*routine)(const char *, char **, char **), const std::string &path) {
    char *name = nullptr, *type = nullptr;
    const int code = routine(path.c_str(), &name, &type);
    return number(code) + " " + shown(name) + " " + shown(type);
}

std::string block_of(void *library, const std::string &raw) {
    char *const block = EXPORTED(raw_to_block)(raw.c_str());
    std::string text = shown(block);
    free(block);
    return text;
}

std::string classify(void *library, std::string path) {
    char *device = path.data(), *dir = nullptr;
    struct stat status = {};
    int is_ufs = 0, is_qzfs = 0;
    const int code = EXPORTED(statdev)(&device, &status, &dir, &is_ufs, &is_qzfs);
    return number(code) + " " + device + " " + shown(dir) + " ufs " + number(is_ufs) + " qzfs " +
           number(is_qzfs);
}

std::string describe(void *library, const std::string &path) {
    char *kind = nullptr, *raw = nullptr, *block = nullptr, *mount = nullptr, *type = nullptr;
    const int code = EXPORTED(fsdevinfo)(path.c_str(), &kind, &raw, &block, &mount, &type);
    std::string text = number(code);
    for (const char *one : {kind, raw, block, mount, type}) text += " " + shown(one);
    if (block != path.c_str()) free(block);
    return text;
}

std::string lock_and_unlock(void *library, std::string path) {
    const std::string type = take_word(&path);
    const int fd = EXPORTED(lock_fs)(path.c_str(), type.c_str());
    const bool is_descriptor = type == "qzfs" && fd >= 0;
    const int unlocked = EXPORTED(unlock_fs)(path.c_str(), type.c_str(), fd);
    return (is_descriptor ? "a descriptor" : number(fd)) + ", then " + number(unlocked);
}

std::string lock_and_unlock_snap(void *library, std::string path) {
    const std::string type = take_word(&path);
    const int is_ufs = type == "ufs" ? 1 : 0, is_qzfs = type == "qzfs" ? 1 : 0;
    const int locked = EXPORTED(locksnap)(path.c_str(), is_ufs, is_qzfs);
    const int unlocked = EXPORTED(unlocksnap)(path.c_str(), is_ufs, is_qzfs);
    return number(locked) + ", then " + number(unlocked);
}

std::string add_to_list(void *library, std::string name) {
    const std::string type = take_word(&name);
    FS_LOCK_REC *first = nullptr;
    int32_t count = -1;
    const int code = EXPORTED(add_to_lock_list)(name.c_str(), type.c_str(), &first, &count);
    const int listed = EXPORTED(check_lock_list)(name.c_str());
    const int entries = *exported<int32_t>(library, "num_fs_lock_entries");
    return number(code) + " " + (first != nullptr ? first->name : "(null)") + " " + number(count) +
           "; listed " + number(listed) + " of " + number(entries);
}

// A table with an entry by each of the ten routines; what was not stored is 77, or no text.
std::string parse(void *library, const std::string &text) {
    int32_t status = 0, found = 0, a = 77, b = 77, c = 77, d = 77;
    int64_t e = 77, f = 77, g = 77, h = 77;
    char *i = nullptr, *j = nullptr;
    qfm_fcp_table *const table = EXPORTED(qfm_fcp_table_new)(&status);
    EXPORTED(qfm_fcp_int_new)(table, &status, "a", &a);
    EXPORTED(qfm_fcp_int_flag_new)(table, &status, "b", &b, &found);
    EXPORTED(qfm_fcp_int_range_new)(table, &status, "c", &c, 0, 9);
    EXPORTED(qfm_fcp_int_range_flag_new)(table, &status, "d", &d, 0, 9, &found);
    EXPORTED(qfm_fcp_long_new)(table, &status, "e", &e);
    EXPORTED(qfm_fcp_long_flag_new)(table, &status, "f", &f, &found);
    EXPORTED(qfm_fcp_long_range_new)(table, &status, "g", &g, 0, 9);
    EXPORTED(qfm_fcp_long_range_flag_new)(table, &status, "h", &h, 0, 9, &found);
    EXPORTED(qfm_fcp_string_new)(table, &status, "i", &i);
    EXPORTED(qfm_fcp_string_flag_new)(table, &status, "j", &j, &found);
    const int32_t built = status;
    if (status == 0) status = EXPORTED(qfm_fcp_parse)(text.c_str(), nullptr, table);
    std::string result = number(built) + ", then " + number(status) + ":";
    for (const int64_t value : {int64_t{a}, int64_t{b}, int64_t{c}, int64_t{d}, e, f, g, h})
        result += " " + std::to_string(value);
    result += " " + shown(i) + " " + shown(j) + ", found " + number(found);
    free(i);
    free(j);
    EXPORTED(qfm_fcp_table_delete)(table);
    return result;
}

std::string result_of(void *library, std::string line) {
    const std::string routine = take_word(&line);
    if (routine == "fstomp") return look_up(EXPORTED(fstomp), line);
    if (routine == "fstoblock") return look_up(EXPORTED(fstoblock), line);
    if (routine == "fstoraw") return look_up(EXPORTED(fstoraw), line);
    if (routine == "find_mnt") return look_up(EXPORTED(find_mnt), line);
    if (routine == "rawtofs") return look_up(EXPORTED(rawtofs), line);
    if (routine == "raw_to_block") return block_of(library, line);
    if (routine == "statdev") return classify(library, line);
    if (routine == "fsdevinfo") return describe(library, line);
    if (routine == "lock_fs") return lock_and_unlock(library, line);
    if (routine == "locksnap") return lock_and_unlock_snap(library, line);
    if (routine == "add_to_lock_list") return add_to_list(library, line);
    if (routine == "parse") return parse(library, line);
    give_up("unknown routine " + routine);
}

}  // namespace

std::vector<std::string> call_utilities(void *library, const std::vector<std::string> &lines,
                                        void (*log)(const char *line)) {
    constexpr int32_t any_descriptor = 1;
    log_sink = log;
    EXPORTED(sn_set_errf)(take_diagnostic, any_descriptor, 0);
    std::vector<std::string> all;
    for (const std::string &line : lines) {
        const HostState before;
        const std::string result = result_of(library, line);
        for (const std::string &change : before.changes(HostState()))
            all.push_back(change + " by " + line);
        log((line + " gives " + result).c_str());
    }
    EXPORTED(sn_set_errf)(nullptr, -1, 0);
    return all;
}

void accept_qzfs() {
    constexpr uint32_t freeze = 0x564f4c64, thaw = 0x564f4c65;
    sock_filter program[] = {
        BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(seccomp_data, nr)),
        BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, __NR_ioctl, 0, 4),
        // The request's lower half, which comes first on every machine that this runs on.
        BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(seccomp_data, args[1])),
        BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, freeze, 1, 0),
        BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, thaw, 0, 1),
        BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ERRNO),  // without an error: it answers 0
        BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ALLOW),
    };
    const sock_fprog filter = {static_cast<unsigned short>(std::size(program)), program};
    if (prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) != 0 ||
        prctl(PR_SET_SECCOMP, SECCOMP_MODE_FILTER, &filter) != 0) {
        give_up(std::string("no filter: ") + strerror(errno));
    }
}

void enter_own_network(const char *address) {
    if (unshare(CLONE_NEWNET) != 0) give_up(std::string("no network: ") + strerror(errno));
    const int fd = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    ifreq request = {};
    snprintf(request.ifr_name, sizeof request.ifr_name, "lo");
    sockaddr_in own = {};
    own.sin_family = AF_INET;
    const bool is_address = inet_pton(AF_INET, address, &own.sin_addr) == 1;
    memcpy(&request.ifr_addr, &own, sizeof own);
    const bool given = is_address && ioctl(fd, SIOCSIFADDR, &request) == 0;
    request.ifr_flags = IFF_UP;
    if (!given || ioctl(fd, SIOCSIFFLAGS, &request) != 0) give_up("the host gets no address");
    close(fd);
}

}  // namespace phase
