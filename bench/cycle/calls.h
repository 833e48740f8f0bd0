// The calls that leave the method: to the system, to the array, to the host library. They are
// written down while the method runs one cycle, and made again by the floor, which does nothing
// else: same calls, same arguments, same number, same order.
#pragma once

#include <compare>
#include <cstddef>
#include <cstdint>
#include <map>
#include <string>

namespace bench {

// Every kind of call, under the name of its function.
// clang-format off
#define BENCH_CALLS(X) \
    X(open) X(close) X(read) X(write) X(lseek) X(ftruncate) X(fcntl) X(fcntl_lock) X(unlink) \
    X(stat) X(lstat) X(fstat) X(access) X(mkdir) X(chown) X(system) X(popen) X(getpid) \
    X(geteuid) X(getpgid) X(fdopen) X(fgets) X(fclose) \
    X(setmntent) X(getmntent) X(endmntent) X(tempnam) X(sigmask) X(sigpending) X(sleep) \
    X(sync) X(SymInitV) X(SymExit) X(SymPerror) X(SymPdevSync) X(SymPdevShow) X(SymDevSync) \
    X(SymDevShow) X(SymDevListBcvControl) X(SymDevBcvControl) X(other_array_call)
// clang-format on

enum class Kind : uint32_t {
#define BENCH_KIND(name) name,
    BENCH_CALLS(BENCH_KIND)
#undef BENCH_KIND
};

enum class Recording { off, on };

// Where the calls are kept: memory that forked processes share. Made before the first fork.
void make_call_log();
void empty_call_log();
void record_calls(Recording recording);
// Makes all calls of the log again, in this process.
void replay_calls();
// What is called from now on belongs to this phase of the cycle. The name is not copied.
void enter_phase(const char *name);

// A function ("open", "SymDevShow") as a phase calls it.
struct PhaseCall {
    std::string phase, function;
    auto operator<=>(const PhaseCall &) const = default;
};
using Calls = std::map<PhaseCall, int64_t>;
// How often each is in the log.
Calls count_calls();
// The array's functions answer from this moment on; see array.cpp.
void bind_array();
// Sets every pair of the array to this state.
void set_pair_states(long state);

// A call to the array, written down with its arguments.
void record_array_call(Kind kind, const char *first = "", const char *second = "",
                       int64_t number = 0);
// Makes it again.
void repeat_array_call(Kind kind, const char *first, const char *second, int64_t number);

}  // namespace bench
