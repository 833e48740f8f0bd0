// The process that thaws what a killed world leaves frozen.
//
// A file system that is frozen (FIFREEZE) when its last process is killed stays frozen: writers
// hang in the kernel, the world's namespaces cannot end, and the loop device beneath it stays
// attached. Whoever froze it cannot help, being killed with the world. So each world has a warden
// outside it: it holds the mount namespace of every host, sees the world end, and thaws until all
// is gone. It ends by itself, with the world.
#pragma once

#include <sys/types.h>

#include <string>

#include "lab/host/system.h"

namespace tflab {

// The warden's side of a world. Made before the world, so that the world inherits the socket.
class Warden {
  public:
    Warden();
    // In the process outside the world: starts the warden of the world whose first process this is.
    // It holds the world's hosts until that process is gone.
    void start(pid_t first_process);
    // In the world's first process, once it has its own /run: hosts are told to the warden there.
    void listen();
    // In the process outside, after the world has ended: waits for the warden's end.
    void wait();

  private:
    [[noreturn]] void guard(pid_t first_process, const Fd &life) const;

    Fd socket_;
    Pipe life_;
    pid_t pid_ = -1;
};

// From inside a world. Nothing happens where there is no warden any more.
// A host has started: pid is its first process.
void tell_warden_of_host(const std::string &name, pid_t pid);
// Thaws every file system of every host once. For whoever waits for processes that hang on one.
void ask_warden_to_thaw();
// The host (or every host, for "") has ended: its mounts may go.
void tell_warden_of_end(const std::string &name);

}  // namespace tflab
