// The administrator's connection to an array.
#pragma once

#include <nlohmann/json.hpp>
#include <stdexcept>
#include <string>

namespace lab {

// No array answers at the socket.
struct NoArray : std::runtime_error {
    using std::runtime_error::runtime_error;
};
// The array refused a command; it is as it was.
struct CommandRefused : std::runtime_error {
    CommandRefused(int answer, const std::string &what)
        : std::runtime_error(what), number(answer) {}
    int number;
};

class Link {
  public:
    explicit Link(const std::string &socket);
    Link(const Link &) = delete;
    Link &operator=(const Link &) = delete;
    ~Link();
    // Sends a command and answers its result; throws CommandRefused or NoArray.
    nlohmann::json ask(const nlohmann::json &request);

  private:
    int fd_;
};

}  // namespace lab
