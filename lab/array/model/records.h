// What the array knows: plain records, no behaviour.
#pragma once

#include <cstdint>
#include <stdexcept>
#include <string>
#include <vector>

#include "lab/array/model/codes.h"

namespace lab {

// Virtual time in microseconds since the array was switched on.
using Micros = int64_t;
constexpr Micros micros_per_second = 1'000'000;

// What one synchronisation counts in, and the unit of device sizes (both in bytes).
constexpr uint64_t track_size = uint64_t{64} << 10;
constexpr uint64_t size_unit = uint64_t{1} << 20;

enum class PairState : int {
    synchronising = 1,
    synchronised = 2,
    splitting = 3,
    split = 5,
    restoring = 7,
    restored = 8,
};

enum class BcvAction : int {
    full_establish = 1,
    split = 2,
    incremental_establish = 3,
    restore = 5
};

const char *name_of(PairState state);
const char *name_of(BcvAction action);

// What the administrator asked for and cannot have; the array is as it was.
struct Refused : std::runtime_error {
    Refused(int answer, const std::string &what)
        : std::runtime_error(what + ": " + code_text(answer)), number(answer) {}
    explicit Refused(const std::string &what)
        : std::runtime_error(what), number(code::bad_argument) {}
    int number;
};

struct ArrayRecord {
    std::string symid;
    uint64_t capacity = 0;  // most bytes that its standard devices may have together; 0: no limit
    uint64_t used = 0;      // end of the last window in the pool
};

struct Device {
    int64_t id = 0;
    std::string symid, name;
    uint64_t size = 0;
    bool bcv = false;
    uint64_t offset = 0;         // a standard device's window in the array's pool
    std::string group, ldev;     // group "" when it belongs to none
    std::vector<int64_t> pairs;  // in the order in which they were made; kept by World
};

struct Pair {
    int64_t id = 0, primary = 0, bcv = 0;
    PairState state = PairState::split;
    Micros started = 0, ends = 0;  // of the transition that `state` stands for; ends 0: none
    Micros background_until = 0;   // a split that reads as done still keeps the array busy so long
    uint64_t tracks = 0;           // moved by the last establish or restore
    bool established_before = false;
};

struct Path {
    std::string path;
    bool port = false;  // an alternate path: in the port list, not the device's own name
    bool down = false;
};

// One device as one host sees it. The first path that is no port is the device's name there.
struct View {
    std::string host;
    int64_t device = 0;
    std::vector<Path> paths;
};

struct HostRecord {
    std::string name, socket, dev;
};

// One scripted fault: the at-th matching call from the time it was entered, once or from then on.
struct Fault {
    int64_t id = 0;
    std::string function;      // name of the interface function
    std::string device, host;  // "" matches every one
    int64_t at = 1;
    bool for_good = false;
    bool after = false;  // fail after the effect: done, answer lost
    int code = 0;        // 0: only the delay
    int delay_ms = 0;    // real time by which the answer comes later
    int64_t seen = 0;
};

struct Settings {
    uint32_t version = 0x05000000;
    std::string patch = "0";
    uint64_t rate = 512;  // MiB that a pair moves in a second; 0: everything at once
    Micros split_time = 0, background_time = 0;
    Micros clock = 0;  // virtual time when last saved
    bool clock_running = true;
    int32_t next_session = 1;
};

}  // namespace lab
