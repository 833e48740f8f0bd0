#include "lab/array/daemon/server.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "lab/array/daemon/admin_calls.h"
#include "lab/array/daemon/host_calls.h"
#include "lab/array/transport/wire.h"

namespace lab {
namespace {

constexpr size_t admin_line_limit = size_t{16} << 20;
constexpr int backlog = 64;

Fd listen_on(const std::string &path) {
    struct sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    if (path.size() >= sizeof address.sun_path) {
        throw Refused("socket " + path + ": the path is too long");
    }
    memcpy(address.sun_path, path.data(), path.size());
    make_folders_above(path);
    unlink(path.c_str());
    Fd fd(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    if (fd.get() < 0 ||
        bind(fd.get(), reinterpret_cast<const struct sockaddr *>(&address), sizeof address) != 0 ||
        ::listen(fd.get(), backlog) != 0) {
        throw Refused("socket " + path + ": " + strerror(errno));
    }
    return fd;
}

HostCall call_of(const RequestHead &head, const char *payload) {
    HostCall call;
    call.function = head.function;
    call.session = head.session;
    std::copy(std::begin(head.numbers), std::end(head.numbers), std::begin(call.numbers));
    const char *const end = payload + head.size;
    while (payload < end) {
        const char *stop = std::find(payload, end, '\0');
        call.texts.emplace_back(payload, stop);
        payload = stop == end ? end : stop + 1;
    }
    return call;
}

std::string frame(const HostAnswer &answer) {
    ReplyHead head = {};
    head.magic = wire_magic;
    head.size = static_cast<uint32_t>(answer.payload.size());
    head.code = answer.code;
    head.session = answer.session;
    head.number = answer.number;
    std::string text(reinterpret_cast<const char *>(&head), sizeof head);
    return text + answer.payload;
}

}  // namespace

Server::Server(Engine *engine, const std::string &control_socket)
    : engine_(engine), control_(listen_on(control_socket)) {
    engine_->listen = [this](const HostRecord &host) { listen_for(host); };
    for (const auto &[name, host] : engine_->world().hosts()) listen_for(host);
}

void Server::listen_for(const HostRecord &host) {
    listeners_[host.name] = listen_on(host.socket);
}

void Server::accept_from(const Fd &listener, const std::string &host, bool admin) {
    Connection added;
    added.fd = Fd(accept4(listener.get(), nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK));
    if (added.fd.get() < 0) return;
    added.number = next_number_++;
    added.host = host;
    added.admin = admin;
    connections_.push_back(std::move(added));
}

int Server::timeout() const {
    Micros soonest = engine_->next_settle();
    const Micros real = steady_time();
    for (const Connection &one : connections_) {
        if (one.due == 0) continue;
        const Micros rest = std::max<Micros>(one.due - real, 0);
        soonest = soonest < 0 ? rest : std::min(soonest, rest);
    }
    if (soonest < 0) return -1;
    return static_cast<int>(std::min<Micros>(soonest / 1000 + 1, 60'000));
}

void Server::wait() {
    std::vector<struct pollfd> watched = {{control_.get(), POLLIN, 0}};
    std::vector<std::string> hosts;
    for (const auto &[host, listener] : listeners_) {
        watched.push_back({listener.get(), POLLIN, 0});
        hosts.push_back(host);
    }
    const size_t first = watched.size();
    for (const Connection &one : connections_) {
        const int events = one.out.empty() ? POLLIN : POLLIN | POLLOUT;
        watched.push_back({one.fd.get(), static_cast<short>(events), 0});
    }
    if (poll(watched.data(), watched.size(), timeout()) < 0 && errno != EINTR) {
        throw Refused(std::string("poll: ") + strerror(errno));
    }
    size_t i = first;
    for (Connection &one : connections_) {
        const int events = watched[i++].revents;
        if ((events & (POLLIN | POLLHUP | POLLERR)) != 0) read_from(&one);
        release_late(&one);
        if (!one.out.empty()) write_to(&one);
    }
    for (i = 1; i < first; ++i) {
        const auto listener = listeners_.find(hosts[i - 1]);
        if (watched[i].revents != 0 && listener != listeners_.end()) {
            accept_from(listener->second, listener->first, false);
        }
    }
    if (watched[0].revents != 0) accept_from(control_, "", true);
}

void Server::run() {
    for (;;) {
        wait();
        engine_->settle();
        std::erase_if(listeners_, [this](const auto &entry) {
            return engine_->world().host(entry.first) == nullptr;
        });
        std::erase_if(connections_, [this](const Connection &one) {
            if (one.ended) engine_->sessions().connection_ended(one.number);
            return one.ended;
        });
    }
}

void Server::read_from(Connection *connection) {
    char buffer[65536];
    for (;;) {
        const ssize_t got = recv(connection->fd.get(), buffer, sizeof buffer, 0);
        if (got < 0 && errno == EINTR) continue;
        if (got < 0 && errno == EAGAIN) break;
        if (got <= 0) {
            connection->ended = true;
            return;
        }
        connection->in.append(buffer, static_cast<size_t>(got));
        // Whatever comes after a piece that is shorter than the room for it wakes the daemon again.
        if (static_cast<size_t>(got) < sizeof buffer) break;
    }
    // One call at a time: the next one waits for an answer that is kept back.
    while (connection->due == 0 && !connection->ended &&
           (connection->admin ? take_admin_line(connection) : take_host_call(connection))) {
    }
}

bool Server::take_host_call(Connection *connection) {
    RequestHead head;
    if (connection->in.size() < sizeof head) return false;
    memcpy(&head, connection->in.data(), sizeof head);
    if (head.magic != wire_magic || head.size > max_payload) {
        connection->ended = true;
        return false;
    }
    const size_t whole = sizeof head + head.size;
    if (connection->in.size() < whole) return false;
    const HostCall call = call_of(head, connection->in.data() + sizeof head);
    connection->in.erase(0, whole);
    const HostAnswer answer = answer_host(engine_, connection->host, connection->number, call);
    if (answer.delay_ms > 0) {
        connection->later = frame(answer);
        connection->due = steady_time() + Micros{answer.delay_ms} * 1000;
    } else {
        connection->out += frame(answer);
    }
    return true;
}

bool Server::take_admin_line(Connection *connection) {
    const size_t end = connection->in.find('\n');
    if (end == std::string::npos) {
        connection->ended = connection->in.size() > admin_line_limit;
        return false;
    }
    const std::string line = connection->in.substr(0, end);
    connection->in.erase(0, end + 1);
    connection->out += answer_admin(engine_, line) + "\n";
    return true;
}

void Server::release_late(Connection *connection) {
    if (connection->due == 0 || connection->due > steady_time()) return;
    connection->out += connection->later;
    connection->later.clear();
    connection->due = 0;
}

void Server::write_to(Connection *connection) {
    const ssize_t done =
        send(connection->fd.get(), connection->out.data(), connection->out.size(), MSG_NOSIGNAL);
    if (done >= 0) {
        connection->out.erase(0, static_cast<size_t>(done));
    } else if (errno != EAGAIN && errno != EINTR) {
        connection->ended = true;
    }
}

}  // namespace lab
