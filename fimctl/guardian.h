// The guardian: a process that quiesces file systems and answers for it that they are thawed.
//
// It holds the descriptors. It thaws when it is told to, when the process that started it has
// ended in whatever way, and at the latest at a deadline: a file system that stays frozen stops
// every writer of the host, and nothing that goes wrong with a snapshot may cost that.
#pragma once

#include <sys/types.h>

#include <string>
#include <vector>

namespace fimctl {

class Guardian {
  public:
    struct End {
        bool late = false;       // the deadline had thawed them already
        bool disturbed = false;  // one of them was thawed by somebody else, or not by us
        double frozen_ms = 0;    // from before the first freeze until after the last thaw
    };

    // Freezes the file systems mounted on these directories, in this order, and returns when all
    // are frozen. Throws Failure, with all of them thawed, when one cannot be frozen or the
    // deadline (seconds, counted from the first freeze) passes first. None: does nothing.
    // mark: where the guardian notes what it has in hand (frozen_mark.h), "" for nowhere.
    Guardian(const std::vector<std::string> &directories, double deadline,
             const std::string &mark = "");
    Guardian(const Guardian &) = delete;
    Guardian &operator=(const Guardian &) = delete;
    ~Guardian();

    // Thaws them and waits for the guardian's end.
    End thaw();
    pid_t pid() const { return pid_; }

  private:
    void leave();
    void thaw_directly();

    std::vector<std::string> directories_;
    std::string mark_;
    pid_t pid_ = -1;
    int socket_ = -1;
};

}  // namespace fimctl
