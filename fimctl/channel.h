// One end of a conversation between the command and a phase: whole JSON values over a socket.
#pragma once

#include <nlohmann/json.hpp>
#include <optional>

namespace fimctl {

using Message = nlohmann::json;

class Channel {
  public:
    explicit Channel(int fd) : fd_(fd) {}
    Channel(Channel &&other) noexcept : fd_(other.fd_) { other.fd_ = -1; }
    Channel &operator=(Channel &&) = delete;
    ~Channel() { close(); }

    // False when the other end is gone.
    bool send(const Message &message);
    // Nothing when the other end is gone. Calls woken() whenever a signal, or a second
    // gone by, ends the wait.
    template <typename Woken>
    std::optional<Message> receive(Woken woken);
    std::optional<Message> receive() {
        return receive([] {});
    }
    void close();
    void take(int fd) {
        close();
        fd_ = fd;
    }

  private:
    // Bytes read into data; 0 at the end, -1 when there were none yet.
    long read_some(void *data, size_t size);
    std::optional<Message> decode();

    int fd_;
    std::string pending_;  // what was read of the message that is on its way
};

template <typename Woken>
std::optional<Message> Channel::receive(Woken woken) {
    for (;;) {
        if (auto message = decode()) return message;
        char data[4096];
        const long size = read_some(data, sizeof data);
        if (size == 0) return std::nullopt;
        if (size < 0) {
            woken();
        } else {
            pending_.append(data, static_cast<size_t>(size));
        }
    }
}

}  // namespace fimctl
