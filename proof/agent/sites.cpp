#include "proof/agent/sites.h"

#include <dlfcn.h>
#include <elf.h>
#include <fcntl.h>
#include <link.h>
#include <signal.h>
#include <sys/syscall.h>
#include <unistd.h>
#include <unwind.h>

#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace agent {
namespace {

constexpr char library_name[] = "libtimefinder_fim.so";
constexpr char host_name[] = "libtessera_host.so";
constexpr char array_name[] = "libsymapi.so";
constexpr char agent_name[] = "libtfagent.so";
constexpr size_t most_frames = 24, most_sites = 1 << 14, longest_word = 64;

// What the object is that an address lies in.
enum class Owner : uint8_t { library, host, array, program, other };

struct Site {
    uint64_t key = 0;  // 0: free
    size_t calls = 0, order = 0, frames = 0;
    char kind[longest_word] = "", function[longest_word] = "";
    uint32_t offsets[most_frames] = {};
};

struct Plan {
    bool active = false, record_only = false;
    char kinds[longest_word] = "";  // " array alloc "
    char word[longest_word] = "-", scope[longest_word] = "once";
    Fate fate = Fate::go_on;
    long value = 0;
    size_t call = 1;
    uint64_t key = 0;  // 0: any
};

Plan plan;
Site sites[most_sites];
size_t known_sites, fired, calls_of_kind;
char fired_function[longest_word];
bool met;  // the first call that the plan names was met
int report_file = -1;
pid_t owner;
thread_local int inside;

bool ends_with(const char *text, const char *end) {
    const size_t length = strlen(text), tail = strlen(end);
    return length >= tail && strcmp(text + length - tail, end) == 0;
}

Owner owner_of(const void *address, uint64_t *offset) {
    dl_find_object found;
    if (_dl_find_object(const_cast<void *>(address), &found) != 0) return Owner::other;
    const char *name = found.dlfo_link_map->l_name;
    *offset = reinterpret_cast<uintptr_t>(address) - found.dlfo_link_map->l_addr;
    if (name[0] == '\0') return Owner::program;
    if (ends_with(name, library_name)) return Owner::library;
    if (ends_with(name, host_name)) return Owner::host;
    return ends_with(name, array_name) ? Owner::array : Owner::other;
}

// The way to a call, innermost frame first.
struct Walk {
    bool ours = false, done = false;
    size_t frames = 0;
    uint32_t offsets[most_frames];
};

_Unwind_Reason_Code step(_Unwind_Context *context, void *walk_address) {
    Walk &walk = *static_cast<Walk *>(walk_address);
    const auto address = static_cast<uintptr_t>(_Unwind_GetIP(context));
    if (address == 0) return _URC_END_OF_STACK;
    uint64_t offset = 0;
    switch (owner_of(reinterpret_cast<void *>(address), &offset)) {
    case Owner::host:
        offset |= in_host_library;
        [[fallthrough]];
    case Owner::library:
        walk.ours = true;
        if (walk.frames < most_frames) {
            walk.offsets[walk.frames++] = static_cast<uint32_t>(offset);
        }
        break;
    case Owner::array:
        if (!walk.ours) return _URC_END_OF_STACK;
        break;
    case Owner::program:
        return _URC_END_OF_STACK;
    case Owner::other:
        break;
    }
    return _URC_NO_REASON;
}

uint64_t mixed(uint64_t hash, const void *bytes, size_t size) {
    for (size_t i = 0; i < size; ++i) {
        hash = (hash ^ static_cast<const unsigned char *>(bytes)[i]) * 0x100000001b3ULL;
    }
    return hash;
}

Site *find_site(const char *kind, const char *function, const Walk &walk) {
    uint64_t key = mixed(0xcbf29ce484222325ULL, kind, strlen(kind) + 1);
    key = mixed(key, function, strlen(function) + 1);
    key = mixed(key, walk.offsets, walk.frames * sizeof walk.offsets[0]);
    if (key == 0) key = 1;
    for (size_t i = 0, at = key % most_sites; i < most_sites; ++i, at = (at + 1) % most_sites) {
        Site &site = sites[at];
        if (site.key == key) return &site;
        if (site.key != 0) continue;
        site.key = key;
        site.order = ++known_sites;
        site.frames = walk.frames;
        snprintf(site.kind, sizeof site.kind, "%s", kind);
        snprintf(site.function, sizeof site.function, "%s", function);
        memcpy(site.offsets, walk.offsets, sizeof site.offsets);
        return &site;
    }
    return nullptr;
}

void write_all(const char *text, size_t length) {
    while (length > 0) {
        const long done = syscall(SYS_write, report_file, text, length);
        if (done <= 0) return;
        text += done;
        length -= static_cast<size_t>(done);
    }
}

void write_report() {
    if (report_file < 0 || syscall(SYS_getpid) != owner) return;
    char line[1024];
    const Inside guard;
    // In the order in which they were reached: the table is scattered.
    static uint16_t by_order[most_sites + 1];
    for (size_t i = 0; i < most_sites; ++i) {
        if (sites[i].key != 0) by_order[sites[i].order] = static_cast<uint16_t>(i);
    }
    for (size_t order = 1; order <= known_sites; ++order) {
        const Site &site = sites[by_order[order]];
        int used = snprintf(line, sizeof line, "site %016lx %zu %s %s ", site.key, site.calls,
                            site.kind, site.function);
        for (size_t frame = site.frames; frame > 0; --frame) {
            used += snprintf(line + used, sizeof line - static_cast<size_t>(used), "%x%s",
                             site.offsets[frame - 1], frame > 1 ? "," : "\n");
        }
        write_all(line, static_cast<size_t>(used));
    }
    if (fired > 0) note("fired %zu", fired);
    close(report_file);
    report_file = -1;
}

Fate fate_of(const char *name) {
    static const struct {
        const char *name;
        Fate fate;
    } fates[] = {{"fail", Fate::fail},
                 {"fail_after", Fate::fail_after},
                 {"kill", Fate::kill},
                 {"kill_after", Fate::kill_after},
                 {"lie", Fate::lie}};
    for (const auto &entry : fates) {
        if (strcmp(entry.name, name) == 0) return entry.fate;
    }
    return Fate::go_on;
}

void read_plan(const char *text) {
    char first[longest_word] = "", fate[longest_word] = "", key[longest_word] = "";
    int used = 0;
    if (sscanf(text, "%63s %n", first, &used) < 1) return;
    plan.record_only = strcmp(first, "record") == 0;
    if (plan.record_only) {
        snprintf(plan.kinds, sizeof plan.kinds, " %s ", text + used);
    } else {
        if (sscanf(text + used, "%63s %ld %63s %zu %63s %63s", fate, &plan.value, plan.word,
                   &plan.call, plan.scope, key) != 6) {
            return;
        }
        snprintf(plan.kinds, sizeof plan.kinds, " %.60s ", first);
        plan.fate = fate_of(fate);
        if (strcmp(key, "any") != 0) plan.key = strtoull(key, nullptr, 16);
    }
    plan.active = true;
}

// The commands that the process runs are not the agent's business.
void leave_environment() {
    char kept[1024] = "";
    const char *preload = getenv("LD_PRELOAD");
    for (const char *at = preload == nullptr ? "" : preload; *at != '\0';) {
        const size_t length = strcspn(at, ": ");
        char name[512] = "";
        snprintf(name, sizeof name, "%.*s", static_cast<int>(length), at);
        if (length > 0 && !ends_with(name, agent_name)) {
            const size_t used = strlen(kept);
            snprintf(kept + used, sizeof kept - used, "%s%s", used > 0 ? ":" : "", name);
        }
        at += length;
        at += strspn(at, ": ");
    }
    if (kept[0] == '\0')
        unsetenv("LD_PRELOAD");
    else
        setenv("LD_PRELOAD", kept, 1);
    unsetenv("TFAGENT_PLAN");
    unsetenv("TFAGENT_REPORT");
}

__attribute__((constructor)) void begin() {
    const Inside guard;
    owner = getpid();
    const char *text = getenv("TFAGENT_PLAN"), *file = getenv("TFAGENT_REPORT");
    if (file != nullptr) {
        // Far from the numbers that the program and the method are given.
        const int opened = open(file, O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
        report_file = fcntl(opened, F_DUPFD_CLOEXEC, 900);
        close(opened);
    }
    if (text != nullptr) read_plan(text);
    // The first walk of a process may allocate.
    Walk walk;
    _Unwind_Backtrace(step, &walk);
    leave_environment();
}

__attribute__((destructor)) void finish() {
    write_report();
}

// Whether the plan means this call, which is counted already.
bool meant(const Site &site) {
    if (plan.record_only) return false;
    if (!met) {
        met = plan.key == 0 ? calls_of_kind == plan.call
                            : site.key == plan.key && site.calls == plan.call;
        if (met) snprintf(fired_function, sizeof fired_function, "%s", site.function);
        return met;
    }
    if (strcmp(plan.scope, "site") == 0) return plan.key == 0 || site.key == plan.key;
    if (strcmp(plan.scope, "function") == 0) return strcmp(site.function, fired_function) == 0;
    return strcmp(plan.scope, "kind") == 0;
}

}  // namespace

Inside::Inside() {
    ++inside;
}

Inside::~Inside() {
    --inside;
}

bool watches(const char *kind) {
    if (!plan.active || inside > 0) return false;
    const char *found = strstr(plan.kinds, kind);
    return found != nullptr && found[-1] == ' ' && found[strlen(kind)] == ' ';
}

bool in_library(const void *address) {
    uint64_t offset = 0;
    return owner_of(address, &offset) == Owner::library;
}

Order at(const char *kind, const char *function) {
    if (!watches(kind)) return {};
    const Inside guard;
    if (syscall(SYS_getpid) != owner) return {};
    Walk walk;
    _Unwind_Backtrace(step, &walk);
    if (!walk.ours) return {};
    Site *site = find_site(kind, function, walk);
    if (site == nullptr) return {};
    ++site->calls;
    ++calls_of_kind;
    if (!meant(*site)) return {};
    ++fired;
    if (fired == 1) note("met %016lx", site->key);
    if (plan.fate == Fate::kill) end();
    return {plan.fate, plan.value, plan.word};
}

void end() {
    write_report();
    syscall(SYS_kill, owner, SIGKILL);
    for (;;) pause();
}

void note(const char *format, ...) {
    if (report_file < 0) return;
    const Inside guard;
    char line[1024];
    va_list arguments;
    va_start(arguments, format);
    const int length = vsnprintf(line, sizeof line - 1, format, arguments);
    va_end(arguments);
    if (length < 0) return;
    size_t size = static_cast<size_t>(length);
    if (size > sizeof line - 2) size = sizeof line - 2;
    line[size] = '\n';
    write_all(line, size + 1);
}

void *next(const char *name) {
    void *found = dlsym(RTLD_NEXT, name);
    if (found == nullptr) abort();
    return found;
}

}  // namespace agent
