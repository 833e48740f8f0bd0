// The method's lock files, as the host has them now.
//
// Reading takes no lock and holds none: whoever asked for one here, even for an instant, could make
// a snapshot that begins just then wait or fail.
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <ctime>
#include <string>
#include <vector>

#include "fimctl/inspect/process.h"

namespace fimctl {

// Held for an instant, around each change of a counter file.
struct HostLock {
    std::string path;
    bool exists = false;
    std::string trouble;  // why it cannot be read; "" when it can
    pid_t holder = 0;     // 0: nobody holds it
    ProcessInfo process;
};

enum class Owner {
    nobody,   // empty, or it names no process: whoever comes next owns it
    alive,    // the process that it names exists
    gone,     // it does not: the next snapshot on this array takes the file over
    replaced  // a process of that number exists, but it was started after the file was written
};
const char *name_of(Owner owner);

// Twelve bytes in the host's own order: owner, objects, whether a split has been seen to.
struct CounterFile {
    std::string path;
    std::string group;  // the serial number that its name carries: one for all devices of an array
    std::string trouble;  // why it cannot be read; "" when it can
    int64_t size = 0;
    time_t written = 0;
    Owner owner = Owner::nobody;
    int32_t pid = 0;
    bool has_count = false;
    int32_t count = 0;
    bool is_split = false;
    ProcessInfo process;  // of an owner that exists

    // Since when it is as it is: the start of the owner, else when it was last written.
    time_t since() const;
    // What an operator does about it, for one who does not know the rules.
    std::string advice() const;
};

HostLock read_host_lock();
// Every counter file, by name. Throws Failure (permission or failed) when the folder cannot be
// listed; a folder that is not there has none.
std::vector<CounterFile> read_counter_files();
CounterFile read_counter_file(const std::string &path);

// The counter file of a device's serial number: all devices of an array share one.
std::string counter_file_of(const std::string &serial);

// Takes a counter file away, under the method's own protocol, if its owner is gone. Waits for
// nobody: false with why when somebody holds the host-wide lock, or the file has another owner.
bool remove_left_counter(const std::string &path, std::string &why);

}  // namespace fimctl
