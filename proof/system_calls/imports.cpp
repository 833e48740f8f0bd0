#include "proof/system_calls/imports.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <iterator>
#include <memory>
#include <set>
#include <span>
#include <stdexcept>
#include <string_view>

#include "proof/kit/row.h"
#include "proof/system_calls/faults.h"

namespace proof {
namespace {

// What the linker calls a function, and what the agent counts it as; every one of these counts.
struct OtherName {
    std::string_view import, counted;
};
constexpr OtherName other_names[] = {
    {"fcntl", "lock"},
    {"fcntl", "duplicate"},
    {"open", "open"},
    {"open", "create"},
    {"__fgets_chk", "fgets"},
    {"__getdelim", "getline"},
    {"__realpath_chk", "realpath"},
};

// Functions of text, numbers and memory that is there already; those that give something back;
// those of the process itself, which fail for wrong arguments alone; and allocations, which have
// their row.
constexpr std::string_view cannot_fail[] = {
    "__cxa_atexit",
    "__cxa_finalize",
    "__errno_location",
    "__gmon_start__",
    "__stack_chk_fail",
    "_ITM_deregisterTMCloneTable",
    "_ITM_registerTMCloneTable",
    "abort",
    "stderr",
    // text
    "__fprintf_chk",
    "__isoc99_sscanf",
    "__isoc99_vsscanf",
    "__vsnprintf_chk",
    "isspace",
    "memcmp",
    "memcpy",
    "memmove",
    "memset",
    "qsort",
    "strcasecmp",
    "strchr",
    "strcmp",
    "strcspn",
    "strerror",
    "strerror_r",
    "strlen",
    "strncmp",
    "strnlen",
    "strsep",
    "strspn",
    "strstr",
    "strtok_r",
    "strtol",
    "strtoll",
    // given back
    "endmntent",
    "free",
    "freeaddrinfo",
    "freeifaddrs",
    "posix_spawn_file_actions_destroy",
    "posix_spawnattr_destroy",
    // the process and its streams
    "clock_gettime",
    "clock_nanosleep",
    "dlerror",
    "feof",
    "ferror",
    "fileno",
    "geteuid",
    "getpid",
    "posix_spawn_file_actions_init",
    "posix_spawnattr_init",
    "posix_spawnattr_setflags",
    "posix_spawnattr_setsigdefault",
    "posix_spawnattr_setsigmask",
    "pthread_sigmask",
    "sigaction",
    "sigaddset",
    "sigemptyset",
    "sigismember",
    "sigpending",
    "sigprocmask",
    "sigtimedwait",
    "sleep",
    "sync",
    // rows of their own: allocations, array calls
    "calloc",
    "malloc",
    "realloc",
    "strdup",
    "dlsym",
};

std::vector<std::string> counted_as(const std::string &import) {
    std::vector<std::string> counted;
    for (const OtherName &other : other_names) {
        if (other.import == import) counted.emplace_back(other.counted);
    }
    if (counted.empty()) counted.push_back(import);
    return counted;
}

bool is_one_of(std::span<const std::string_view> names, const std::string &name) {
    return std::find(names.begin(), names.end(), name) != names.end();
}

// The host library's functions are the method's own affair.
bool is_of_the_host_library(const std::string &import) {
    return import.starts_with("Q_") || import.starts_with("ql") || import.starts_with("qnet_") ||
           import.starts_with("tq_") || import == "read_AD_HOC_config_entry";
}

std::set<std::string> imports_of(const std::string &library) {
    const std::string line = "nm -D --undefined-only '" + library + "'";
    const std::unique_ptr<FILE, int (*)(FILE *)> in(popen(line.c_str(), "re"), pclose);
    std::set<std::string> names;
    char name[256];
    while (in != nullptr && fscanf(in.get(), " %*s %255[^@\n]%*[^\n]", name) == 1)
        names.insert(name);
    if (names.empty()) throw std::runtime_error("nm shows nothing of " + library);
    return names;
}

}  // namespace

std::vector<Gap> import_gaps(const std::set<std::string> &reached) {
    std::set<std::string> unknown, idle;
    for (const auto &library : shipped_libraries()) {
        for (const std::string &import : imports_of(library.string())) {
            if (is_of_the_host_library(import) || is_one_of(cannot_fail, import)) continue;
            for (const std::string &function : counted_as(import)) {
                if (faults_of(function).empty())
                    unknown.insert(import);
                else if (!reached.contains(function))
                    idle.insert(function);
            }
        }
    }
    std::vector<Gap> gaps;
    for (const std::string &name : unknown) gaps.push_back({name, "nobody makes it fail"});
    for (const std::string &name : idle)
        gaps.push_back({name, "it can fail, and no place calls it"});
    return gaps;
}

}  // namespace proof
