// The lock of the one fimctl that works on a snapshot.
//
// It is runtime, so it lies in /run/fimctl and a reboot leaves nothing of it. The kernel holds it
// for as long as the command or one of its phases lives, so a killed command never leaves it
// behind.
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <string>

namespace fimctl {

enum class LockState {
    none,  // nobody works on the snapshot
    held,  // a fimctl, or one of its phases, does
    left   // one did, and was killed: an orderly end takes the file away
};

class SnapshotLock {
  public:
    // Takes the lock of a snapshot of the catalogue in this state directory, which must exist.
    // Throws Failure (owned) when another fimctl holds it.
    SnapshotLock(const std::string &directory, int64_t id);
    // Lets it go and removes its file.
    ~SnapshotLock();
    // Whether somebody works on a snapshot, without getting in his way.
    static LockState state_of(const std::string &directory, int64_t id);
    // The process that works on a snapshot, as the file says; 0 when that is not known.
    static pid_t holder_of(const std::string &directory, int64_t id);
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
