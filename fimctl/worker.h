// A phase in a process of its own.
//
// The method sets flags once for a process and writes its process id into the array's counter
// file. So each phase gets a fresh process, and that process is reaped before the next one starts:
// an owner that has ended but was not waited for still exists, and still owns its locks.
#pragma once

#include <sys/types.h>

#include <functional>
#include <string>

#include "fimctl/channel.h"
#include "fimctl/progress.h"

namespace fimctl {

class Worker {
  public:
    using Body = std::function<void(Channel &)>;

    // Runs body in a child process. scratch, when not empty, is a folder that is made for the
    // child's temporary files and removed when it has ended: nothing of a phase outlives it.
    Worker(const Body &body, const std::string &scratch);
    Worker(const Worker &) = delete;
    Worker &operator=(const Worker &) = delete;
    ~Worker();

    // The child's next message; nothing once it has ended. What it has to show is shown meanwhile.
    // An interruption is handed on to the child, which ends at its next clean point; a second one
    // kills it.
    std::optional<Message> receive();
    bool send(const Message &message) { return channel_.send(message); }
    // Waits for the end of the child. "" for a clean one, else how it ended.
    std::string reap();
    pid_t pid() const { return pid_; }

  private:
    void hand_on();

    pid_t pid_ = -1;
    int seen_;           // signals that have been dealt with
    bool told_ = false;  // the child knows of one
    std::string scratch_;
    progress::Line line_;
    Channel channel_;
};

}  // namespace fimctl
