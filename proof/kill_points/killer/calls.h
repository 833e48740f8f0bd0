// The system calls of a traced process that change something outside of it, and their names.
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <optional>
#include <string>

namespace killer {

// A call as its process makes it.
struct SystemCall {
    uint64_t number = 0;
    uint64_t arguments[6] = {};
};

// What of a process a name needs. All of it is read while the process is stopped.
class Process {
  public:
    explicit Process(pid_t pid) : pid_(pid) {}
    pid_t pid() const { return pid_; }

    std::string text(uint64_t address) const;
    // False when it has less than that.
    bool bytes(uint64_t address, void *into, size_t size) const;
    // What a descriptor leads to: a path, or "socket:[...]" and the like.
    std::string descriptor(int fd) const;
    // Of the thread: the step that it says it takes.
    std::string step() const;

  private:
    pid_t pid_;
};

// "openat+create /tmp/QfMS*", "array SymDevListBcvControl", "clone"; nothing for a call that
// changes nothing, or only what belongs to whoever drives the method (paths below an exchange
// folder that are no temporary file of the process). What differs from run to run is "*".
std::optional<std::string> name_of_change(const Process &process, const SystemCall &call);

// Of a call "array ...": the bytes that follow it in calls of their own, and belong to it.
uint32_t rest_of_request(const Process &process, const SystemCall &call);

}  // namespace killer
