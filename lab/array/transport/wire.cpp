#include "lab/array/transport/wire.h"

#include <errno.h>
#include <fcntl.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

namespace lab {
namespace {

// In a process that runs without a standard stream, what anybody prints must not become a request.
int above_standard_streams(int fd) {
    if (fd < 0 || fd > STDERR_FILENO) return fd;
    const int copy = fcntl(fd, F_DUPFD_CLOEXEC, STDERR_FILENO + 1);
    const int reason = errno;
    close(fd);
    errno = reason;
    return copy;
}

}  // namespace

int connect_to(const char *path) {
    struct sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    const size_t length = strlen(path);
    if (length >= sizeof address.sun_path) {
        errno = ENAMETOOLONG;
        return -1;
    }
    memcpy(address.sun_path, path, length);
    const int fd = above_standard_streams(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
    if (fd < 0) return -1;
    int answer = 0;
    do {
        answer = connect(fd, reinterpret_cast<const struct sockaddr *>(&address), sizeof address);
    } while (answer != 0 && errno == EINTR);
    if (answer == 0) return fd;
    const int reason = errno;
    close(fd);
    errno = reason;
    return -1;
}

bool send_all(int fd, const void *data, size_t size) {
    struct iovec piece = {const_cast<void *>(data), size};
    return send_pieces(fd, &piece, 1);
}

bool send_pieces(int fd, struct iovec *pieces, size_t count) {
    for (;;) {
        while (count > 0 && pieces->iov_len == 0) {
            ++pieces;
            --count;
        }
        if (count == 0) return true;
        struct msghdr message = {};
        message.msg_iov = pieces;
        message.msg_iovlen = count;
        const ssize_t done = sendmsg(fd, &message, MSG_NOSIGNAL);
        if (done < 0 && errno == EINTR) continue;
        if (done <= 0) return false;
        size_t left = static_cast<size_t>(done);
        for (struct iovec *piece = pieces; left > 0; ++piece) {
            const size_t part = left < piece->iov_len ? left : piece->iov_len;
            piece->iov_base = static_cast<char *>(piece->iov_base) + part;
            piece->iov_len -= part;
            left -= part;
        }
    }
}

bool receive_all(int fd, void *data, size_t size) {
    char *at = static_cast<char *>(data);
    while (size > 0) {
        const ssize_t done = recv(fd, at, size, 0);
        if (done < 0 && errno == EINTR) continue;
        if (done <= 0) return false;
        at += done;
        size -= static_cast<size_t>(done);
    }
    return true;
}

}  // namespace lab
