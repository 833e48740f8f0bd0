#include "bench/array_daemon/echo.h"

#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <cstring>
#include <stdexcept>

#include "lab/array/transport/wire.h"
#include "lab/host/system.h"

namespace bench {
namespace {

constexpr int backlog = 64;

tflab::Fd listen_on(const std::string &path) {
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    if (path.size() >= sizeof address.sun_path) throw std::runtime_error(path + " is too long");
    memcpy(address.sun_path, path.data(), path.size());
    unlink(path.c_str());
    tflab::Fd fd(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
    if (fd.get() < 0 ||
        bind(fd.get(), reinterpret_cast<const sockaddr *>(&address), sizeof address) != 0 ||
        listen(fd.get(), backlog) != 0) {
        tflab::fails("listen on " + path);
    }
    return fd;
}

[[noreturn]] void serve(int listener, size_t request, size_t reply) {
    std::vector<pollfd> watched = {{listener, POLLIN, 0}};
    std::vector<size_t> received = {0};
    std::vector<char> in(request);
    const std::vector<char> out(reply);
    for (;;) {
        if (poll(watched.data(), watched.size(), -1) < 0) tflab::fails("wait for calls");
        for (size_t i = 1; i < watched.size(); ++i) {
            if (watched[i].revents == 0) continue;
            const ssize_t got = recv(watched[i].fd, in.data(), request - received[i], 0);
            if (got <= 0) {
                close(watched[i].fd);
                watched[i].fd = -1;
                continue;
            }
            received[i] += static_cast<size_t>(got);
            if (received[i] < request) continue;
            received[i] = 0;
            lab::send_all(watched[i].fd, out.data(), reply);
        }
        if (watched[0].revents == 0) continue;
        watched.push_back({accept(listener, nullptr, nullptr), POLLIN, 0});
        received.push_back(0);
    }
}

}  // namespace

Echo::Echo(std::string path, size_t request, size_t reply) : path_(std::move(path)) {
    const tflab::Fd listener = listen_on(path_);
    server_ = tflab::fork_into(0, [&]() -> int { serve(listener.get(), request, reply); });
}

Echo::~Echo() {
    kill(server_, SIGKILL);
    waitpid(server_, nullptr, 0);
    unlink(path_.c_str());
}

BareClient::BareClient(const std::string &path, std::vector<char> request, size_t reply)
    : fd_(lab::connect_to(path.c_str())), request_(std::move(request)), reply_(reply) {
    if (fd_ < 0) tflab::fails("connect to " + path);
}

BareClient::~BareClient() {
    close(fd_);
}

void BareClient::use(std::vector<char> request, size_t reply) {
    request_ = std::move(request);
    reply_.resize(reply);
}

void BareClient::call() {
    if (!lab::send_all(fd_, request_.data(), request_.size()) ||
        !lab::receive_all(fd_, reply_.data(), reply_.size())) {
        tflab::fails("call");
    }
}

}  // namespace bench
