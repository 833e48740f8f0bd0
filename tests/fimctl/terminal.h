// A terminal of a test's own, with fimctl in front of it.
#pragma once

#include <sys/types.h>

#include <functional>
#include <string>

namespace test {

class Terminal {
  public:
    // Runs body in a process whose controlling terminal, standard input and standard error this one
    // is; body's value is its exit status. Standard output is the terminal as well.
    explicit Terminal(const std::function<int()> &body, unsigned short columns = 100);
    ~Terminal();
    Terminal(const Terminal &) = delete;
    Terminal &operator=(const Terminal &) = delete;

    // Reads until the text has been seen; false when the process has ended, or after a while.
    bool wait_for(const std::string &text);
    void type(const std::string &keys);
    // Reads to the end; the exit status, -1 when the process was killed by a signal.
    int finish();
    // Everything that was written so far, with "\r\n" as "\n".
    const std::string &output() const { return output_; }
    // What a user sees when all is over: the screen's lines, without what was taken away.
    std::string screen() const;
    pid_t pid() const { return pid_; }

  private:
    bool read_some(int milliseconds);

    int master_ = -1;
    pid_t pid_ = -1;
    std::string output_;
};

}  // namespace test
