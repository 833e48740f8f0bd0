// The lock of the one fimctl that works on a snapshot.
//
// It is runtime, so it lies in /run/fimctl and a reboot leaves nothing of it. The kernel holds it
// for as long as the command or one of its phases lives, so a killed command never leaves it
// behind.
#pragma once

#include <cstdint>
#include <string>

namespace fimctl {

class SnapshotLock {
  public:
    // Takes the lock of a snapshot of the catalogue in this state directory, which must exist.
    // Throws Failure (owned) when another fimctl holds it.
    SnapshotLock(const std::string &directory, int64_t id);
    // Lets it go and removes its file.
    ~SnapshotLock();
    SnapshotLock(const SnapshotLock &) = delete;
    SnapshotLock &operator=(const SnapshotLock &) = delete;

  private:
    std::string name_;
    int file_ = -1;
};

// The folder of the locks of one catalogue. Two names of one state directory give the same folder,
// two state directories never do.
std::string lock_folder_of(const std::string &directory);

}  // namespace fimctl
