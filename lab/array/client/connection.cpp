#include "lab/array/client/connection.h"

#include <errno.h>
#include <pthread.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include "lab/array/model/codes.h"

namespace lab {
namespace {

struct Connection {
    int fd;
    pid_t owner;
    dev_t device;  // of the socket: the host process may have closed our descriptor and given its
    ino_t inode;   // number to something else, which must be neither written to nor closed
};

Connection connection = {-1, 0, 0, 0};
pthread_mutex_t lock = PTHREAD_MUTEX_INITIALIZER;

bool is_still_ours() {
    struct stat status;
    return connection.fd >= 0 && fstat(connection.fd, &status) == 0 && S_ISSOCK(status.st_mode) &&
           status.st_dev == connection.device && status.st_ino == connection.inode;
}

void disconnect() {
    if (is_still_ours()) close(connection.fd);
    connection.fd = -1;
}

// A connection belongs to one process: two that share it would read each other's answers.
bool ensure_connected() {
    if (connection.fd >= 0 && (connection.owner != getpid() || !is_still_ours())) disconnect();
    if (connection.fd >= 0) return true;
    const int fd = connect_to(host_socket);
    if (fd < 0) return false;
    struct stat status;
    if (fstat(fd, &status) != 0) {
        close(fd);
        return false;
    }
    connection = {fd, getpid(), status.st_dev, status.st_ino};
    return true;
}

// In one piece where it can be: the daemon would be woken once for the head and once for the texts.
bool send_request(const Request &request) {
    struct iovec pieces[] = {
        {const_cast<RequestHead *>(&request.head), sizeof request.head},
        {request.texts, request.head.size},
    };
    return send_pieces(connection.fd, pieces, 2);
}

// A request that could not be sent whole was never executed, so it may be sent again: the daemon
// may have been started anew since the last call. One whose answer is missing must not be.
bool send_with_one_retry(const Request &request) {
    for (int attempt = 0; attempt < 2; ++attempt) {
        if (!ensure_connected()) return false;
        if (send_request(request)) return true;
        disconnect();
    }
    return false;
}

bool skip(size_t size) {
    char scrap[512];
    while (size > 0) {
        const size_t part = size < sizeof scrap ? size : sizeof scrap;
        if (!receive_all(connection.fd, scrap, part)) return false;
        size -= part;
    }
    return true;
}

int receive_payload(size_t length, void *payload, size_t size, char **all) {
    if (all != nullptr) {
        *all = static_cast<char *>(malloc(length + 1));
        if (*all == nullptr) return skip(length) ? code::no_memory : code::answer_lost;
        (*all)[length] = '\0';
        if (receive_all(connection.fd, *all, length)) return code::ok;
        free(*all);
        *all = nullptr;
        return code::answer_lost;
    }
    const size_t wanted = length < size ? length : size;
    if (size > 0) memset(payload, 0, size);
    if (!receive_all(connection.fd, payload, wanted) || !skip(length - wanted)) {
        return code::answer_lost;
    }
    return code::ok;
}

int receive_reply(ReplyHead *reply, void *payload, size_t size, char **all) {
    if (!receive_all(connection.fd, reply, sizeof *reply)) return code::answer_lost;
    if (reply->magic != wire_magic || reply->size > max_payload) return code::bad_request;
    return receive_payload(reply->size, payload, size, all);
}

int transact_locked(const Request &request, ReplyHead *reply, void *payload, size_t size,
                    char **all) {
    if (!send_with_one_retry(request)) return code::not_connected;
    const int answer = receive_reply(reply, payload, size, all);
    if (answer == code::ok) return reply->code;
    // Whatever is still to come on this connection would be taken for the next call's answer.
    if (answer != code::no_memory) disconnect();
    return answer;
}

void before_fork() {
    pthread_mutex_lock(&lock);
}
void after_fork_in_parent() {
    pthread_mutex_unlock(&lock);
}
void after_fork_in_child() {
    disconnect();
    pthread_mutex_unlock(&lock);
}

// The handlers go by themselves when the library is unloaded.
__attribute__((constructor)) void loaded() {
    pthread_atfork(before_fork, after_fork_in_parent, after_fork_in_child);
}
__attribute__((destructor)) void unloaded() {
    if (connection.owner == getpid()) disconnect();
}

}  // namespace

Request make_request(Function function, int32_t session) {
    Request request = {};
    request.head.magic = wire_magic;
    request.head.function = function;
    request.head.session = session;
    request.complete = true;
    return request;
}

void add_text(Request *request, const char *text) {
    if (text == nullptr) text = "";
    const size_t length = strlen(text) + 1, used = request->head.size;
    if (!request->complete || length > max_payload - used) {
        request->complete = false;
        return;
    }
    if (used + length > request->capacity) {
        const size_t capacity = 2 * request->capacity + length + 64;
        char *grown = static_cast<char *>(realloc(request->texts, capacity));
        if (grown == nullptr) {
            request->complete = false;
            return;
        }
        request->texts = grown;
        request->capacity = capacity;
    }
    memcpy(request->texts + used, text, length);
    request->head.size += static_cast<uint32_t>(length);
}

int transact(Request *request, ReplyHead *reply, void *payload, size_t size, char **all) {
    ReplyHead unused;
    if (reply == nullptr) reply = &unused;
    const int reason = errno;
    int answer = code::no_memory;
    if (request->complete) {
        pthread_mutex_lock(&lock);
        answer = transact_locked(*request, reply, payload, size, all);
        pthread_mutex_unlock(&lock);
    }
    free(request->texts);
    request->texts = nullptr;
    errno = reason;
    return answer;
}

}  // namespace lab
