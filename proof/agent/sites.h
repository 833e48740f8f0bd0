// Where a call comes from, and what is to be done with it: the part that all interposers of the
// agent share. The agent is preloaded into the process that drives the method (never into the
// commands that it runs: its own name leaves LD_PRELOAD before the program starts) and follows one
// plan:
//
//   TFAGENT_PLAN    "record KIND..."                      counts the calls of these kinds
//                   "KIND FATE VALUE WORD CALL SCOPE KEY" meets one of them, and counts that kind
//   TFAGENT_REPORT  the file that is written at the end, and before the agent ends the process:
//                   "site KEY CALLS KIND FUNCTION OFFSET,OFFSET,..." for each site, in the order in
//                   which they were reached; "fired CALLS" when the plan met a call; what note()
//                   said
//
// KIND is "array", "alloc" or "system". FATE is a name of the enumeration below. VALUE and WORD are
// for the interposer. CALL is the number of the call at the site that is met first, from 1. SCOPE
// is what is met after it: "once" nothing, "site" every call there, "function" every call of the
// function, "kind" every call of the kind. KEY is the site's, or "any": then CALL counts all calls
// of the kind.
//
// A site is a kind, a function and the return addresses in the shipped libraries on the way to it,
// as offsets in the method, or in the host library with in_host_library added, outermost first. The
// agent is inert outside the entry points: a call counts only when, outwards from it, a frame of a
// shipped library comes before one of the array's library or of the program (whose log sink is
// called from inside, too).
//
// Nothing here allocates once the program runs.
#pragma once

#include <cstddef>
#include <cstdint>

namespace agent {

constexpr uint64_t in_host_library = 1U << 31;

enum class Fate : uint8_t { go_on, fail, fail_after, kill, kill_after, lie };

// What an interposer is to do with a call: go on with the real one; fail without it; make it, and
// fail all the same; make it, and end the process (end()); lie in the way that word names. "kill"
// is done here, before the call.
struct Order {
    Fate fate = Fate::go_on;
    long value = 0;
    const char *word = "";
};

// Whether the plan is about a kind at all: what an interposer asks first, since it costs nothing.
bool watches(const char *kind);

// Counts a call and says what is to be done with it.
Order at(const char *kind, const char *function);

// Whether an address, as of __builtin_return_address(0), lies in the shipped library.
bool in_library(const void *address);

// Calls of the agent itself are nobody's: at() answers go_on, and counts nothing, while one exists.
class Inside {
  public:
    Inside();
    ~Inside();
    Inside(const Inside &) = delete;
    Inside &operator=(const Inside &) = delete;
};

// Ends the process at once with SIGKILL, the report being written.
[[noreturn]] void end();

// A line for the report, without its newline; it is written at once.
__attribute__((format(printf, 1, 2))) void note(const char *format, ...);

// The next definition of a function behind the agent's own; ends the process where there is none.
void *next(const char *name);

template <class Function>
Function *next_of(const char *name) {
    return reinterpret_cast<Function *>(next(name));
}

}  // namespace agent
