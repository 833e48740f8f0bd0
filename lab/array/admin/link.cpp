#include "lab/array/admin/link.h"

#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "lab/array/transport/wire.h"

namespace lab {

Link::Link(const std::string &socket) : fd_(connect_to(socket.c_str())) {
    if (fd_ < 0) {
        throw NoArray("no array answers at " + socket + ": " + strerror(errno));
    }
}

Link::~Link() {
    close(fd_);
}

nlohmann::json Link::ask(const nlohmann::json &request) {
    const std::string line = request.dump() + "\n";
    if (!send_all(fd_, line.data(), line.size())) throw NoArray("the array is gone");
    std::string answer;
    char buffer[65536];
    while (!answer.ends_with('\n')) {
        const ssize_t got = recv(fd_, buffer, sizeof buffer, 0);
        if (got < 0 && errno == EINTR) continue;
        if (got <= 0) throw NoArray("the array went away before it answered");
        answer.append(buffer, static_cast<size_t>(got));
    }
    nlohmann::json result = nlohmann::json::parse(answer);
    if (result.value("ok", false)) return result;
    throw CommandRefused(result.value("code", 0), result.value("error", "refused"));
}

}  // namespace lab
