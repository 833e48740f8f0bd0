// The least that any daemon of one thread does for an answer: it waits for all its clients at once,
// receives a request and sends as many bytes as the answer has.
#pragma once

#include <sys/types.h>

#include <string>
#include <vector>

namespace bench {

// A process that answers every `request` bytes with `reply` bytes, on a socket of the array's type.
class Echo {
  public:
    Echo(std::string path, size_t request, size_t reply);
    ~Echo();
    Echo(const Echo &) = delete;
    const std::string &path() const { return path_; }

  private:
    std::string path_;
    pid_t server_;
};

// A client that sends and receives, and looks at nothing.
class BareClient {
  public:
    BareClient(const std::string &path, std::vector<char> request, size_t reply);
    ~BareClient();
    BareClient(const BareClient &) = delete;
    void call();
    const std::vector<char> &reply() const { return reply_; }
    // Other calls on the same connection from now on.
    void use(std::vector<char> request, size_t reply);

  private:
    int fd_;
    std::vector<char> request_, reply_;
};

}  // namespace bench
