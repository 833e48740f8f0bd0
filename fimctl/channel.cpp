#include "fimctl/channel.h"

#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <cstring>

namespace fimctl {

// A message is its length, as this machine writes it, and CBOR: a path may hold any byte, and JSON
// text could not carry that.
bool Channel::send(const Message &message) {
    const std::vector<std::uint8_t> body = Message::to_cbor(message);
    const std::uint64_t size = body.size();
    std::string out(sizeof size, '\0');
    memcpy(out.data(), &size, sizeof size);
    out.append(body.begin(), body.end());
    for (size_t sent = 0; sent < out.size();) {
        const ssize_t done = ::send(fd_, out.data() + sent, out.size() - sent, MSG_NOSIGNAL);
        if (done < 0 && errno == EINTR) continue;
        if (done <= 0) return false;
        sent += static_cast<size_t>(done);
    }
    return true;
}

std::optional<Message> Channel::decode() {
    std::uint64_t size = 0;
    if (pending_.size() < sizeof size) return std::nullopt;
    memcpy(&size, pending_.data(), sizeof size);
    if (pending_.size() - sizeof size < size) return std::nullopt;
    const auto start = pending_.begin() + sizeof size;
    Message message = Message::from_cbor(start, start + static_cast<std::ptrdiff_t>(size));
    pending_.erase(0, sizeof size + size);
    return message;
}

// Whoever waits is woken every second, to look around.
long Channel::read_some(void *data, size_t size) {
    struct pollfd wanted = {fd_, POLLIN, 0};
    if (poll(&wanted, 1, 1000) <= 0) return -1;
    const ssize_t done = read(fd_, data, size);
    if (done < 0 && errno == EINTR) return -1;
    return done < 0 ? 0 : done;
}

void Channel::close() {
    if (fd_ >= 0) ::close(fd_);
    fd_ = -1;
}

}  // namespace fimctl
