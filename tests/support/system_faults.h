// Calls of the code under test that fail or fall short on demand: read, write, lseek, ftruncate,
// unlink, fcntl, fstat, fdopen, getpgid, getpid, access, sigtimedwait, system, and the host
// library's Q_snprintf.
#pragma once

#include <string>

namespace test {

// One scripted answer, for as long as the object lives: the n-th call of the function from now on
// (1 is the next one) answers result with errno set to error, without doing anything.
class SystemFault {
  public:
    SystemFault(const std::string &function, int n, int error, long result = -1);
    ~SystemFault();
    SystemFault(const SystemFault &) = delete;
    SystemFault &operator=(const SystemFault &) = delete;
};

// Called with every descriptor that the code under test closes; null for none.
void on_close(void (*action)(int fd));
// Called before each write is passed on or answered; null for none.
void on_write(void (*action)());
// Called with the line of each system() before it is passed on or answered; null for none.
void on_command_line(void (*action)(const char *line));

}  // namespace test
