// What a process has that no call of a library may change.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace phase {

// Signal actions, signals held and pending, umask, working directory, locale, environment,
// descriptors and children of this process, as they are when it is made.
class HostState {
  public:
    HostState();

    // One text for everything that is different in now; none when all is as it was. Connections to
    // the array may come and go, the library opens one when a session begins; there may be no more
    // than this many new ones.
    std::vector<std::string> changes(const HostState &now, size_t connections = SIZE_MAX) const;

  private:
    // A line "WHAT: VALUE" each, in an order of its own.
    std::vector<std::string> facts_;
    std::vector<std::string> connections_;
};

}  // namespace phase
