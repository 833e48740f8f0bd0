// What a host remembers of its own: which disks are defined and which groups are imported. It lies
// below /run and is gone with the host; all else is on the disks.
#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include "lab/qzvm/error.h"

namespace qz {

struct KnownDisk {
    bool online = false;
    uint64_t order = 0;  // when it was put online, as a count
};

struct ImportedGroup {
    std::string id;
    std::vector<std::string> disks;  // block paths
};

enum class Daemon {
    enabled,
    disabled,
    stalled,  // a fault of the lab: it runs and answers no import
};

struct State {
    Daemon daemon = Daemon::enabled;
    uint64_t order = 0;                           // of the disk that was put online last
    std::map<std::string, KnownDisk> disks;       // by block path
    std::map<std::string, ImportedGroup> groups;  // by name

    std::string text() const;
    static State of_text(const std::string &text);  // throws on a text that is not its own
};

// Held by whoever reads or changes the state or a region, so that one operation of the host is done
// before the next begins. May be held several times over in one process.
class Exclusive {
  public:
    Exclusive();
    ~Exclusive();
    Exclusive(const Exclusive &) = delete;
    Exclusive &operator=(const Exclusive &) = delete;
};

// Under an Exclusive only.
State load_state();
void save_state(const State &state);

std::string this_host();

namespace place {
constexpr char base[] = "/run/qzvm";
constexpr char lock[] = "/run/qzvm/lock";
constexpr char state[] = "/run/qzvm/state";
constexpr char nodes[] = "/run/qzvm/nodes";      // of loop devices
constexpr char holders[] = "/run/qzvm/holders";  // a file a group with started volumes
constexpr char volumes[] = "/dev/qz/dsk";        // GROUP/VOLUME
constexpr char raw_volumes[] = "/dev/qz/rdsk";
}  // namespace place

}  // namespace qz
