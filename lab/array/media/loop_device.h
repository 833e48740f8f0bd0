// One loop device over a window of a file. It frees itself when its last user is gone, also after
// kill -9: it is set up with the autoclear flag, and its descriptor is one of its users.
#pragma once

#include <sys/types.h>

#include <map>
#include <string>
#include <utility>

#include "lab/array/media/files.h"
#include "lab/common/loop.h"

namespace lab {

// The loop devices of the machine that are over a file: by the file, then by where they begin.
using FileId = std::pair<dev_t, ino_t>;
using AttachedLoops = std::map<FileId, std::map<uint64_t, int>>;
AttachedLoops attached_loops(const std::string &nodes);

class LoopDevice {
  public:
    // Attaches a free loop device; nodes are made in the folder `nodes`. size 0: to the file's end.
    static LoopDevice attach(const std::string &nodes, const Fd &file, const std::string &path,
                             uint64_t offset, uint64_t size);
    // Takes over a device of `known` that is still in use over the same file and offset, if there
    // is one: a second one over the same range would have a cache of its own. size 0: at any
    // offset.
    static bool take_over(const std::string &nodes, const AttachedLoops &known, const Fd &file,
                          uint64_t offset, uint64_t size, LoopDevice *taken);

    int minor() const { return minor_; }
    std::string node() const { return node_; }
    // Another descriptor that nobody may share; -1 with EBUSY when a host holds or has mounted it.
    Fd open_exclusively() const;
    // Where the window begins; at the file's end it has no capacity.
    void move_window(uint64_t offset);
    uint64_t capacity() const;
    // Writes back and forgets what the machine has cached of the device.
    void flush() const;

  private:
    Fd fd_;
    int minor_ = -1;
    std::string node_;
};

using common::loop_major;

}  // namespace lab
