// The array interface as a host's programs load it: every function of include/symapi.h. It holds no
// state but its connection; sessions, devices and pairs live in the array.
#include "include/symapi.h"

#include <errno.h>
#include <fcntl.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include "lab/array/client/connection.h"
#include "lab/array/model/codes.h"

namespace code = lab::code;
using lab::add_text;
using lab::make_request;
using lab::ReplyHead;
using lab::Request;
using lab::transact;

static_assert(static_cast<int>(code::split_in_background) == SYM_SPLIT_IN_BACKGROUND);
static_assert(static_cast<int>(code::split_in_background_too) == SYM_SPLIT_IN_BACKGROUND_TOO);

namespace {

// A call that carries the session and up to two numbers, and answers nothing but its code.
int plain(lab::Function function, int32_t session, int first = 0, int second = 0) {
    Request request = make_request(function, session);
    request.head.numbers[0] = first;
    request.head.numbers[1] = second;
    return transact(&request, nullptr, nullptr, 0, nullptr);
}

// The record is written on success only, and then whole.
int show(Request *request, SymDevice *device) {
    SymDevice shown;
    ReplyHead reply;
    const int answer = transact(request, &reply, &shown, sizeof shown, nullptr);
    if (answer != code::ok) return answer;
    if (reply.size != sizeof shown) return code::bad_request;
    *device = shown;
    return code::ok;
}

int list(lab::Function function, int32_t session, void **out) {
    if (out == nullptr) return code::bad_argument;
    *out = nullptr;
    Request request = make_request(function, session);
    char *text = nullptr;
    const int answer = transact(&request, nullptr, nullptr, 0, &text);
    if (answer != code::ok) {
        free(text);
        return answer;
    }
    *out = text;
    return code::ok;
}

// Texts of the release belong to the library: they stay until the next call for them.
int fetch_text(lab::Function function, char *text, size_t size, ReplyHead *reply) {
    Request request = make_request(function, 0);
    char fetched[64] = {};
    const int answer = transact(&request, reply, fetched, sizeof fetched - 1, nullptr);
    if (answer == code::ok) snprintf(text, size, "%s", fetched);
    return answer;
}

// A file-size limit of the host process is an error here, not its end.
ssize_t write_some(int fd, const char *text, size_t size) {
    sigset_t one, mask, pending;
    sigemptyset(&one);
    sigaddset(&one, SIGXFSZ);
    pthread_sigmask(SIG_BLOCK, &one, &mask);
    sigpending(&pending);
    const ssize_t done = write(fd, text, size);
    const int error = errno;
    const struct timespec at_once = {0, 0};
    if (done < 0 && error == EFBIG && sigismember(&pending, SIGXFSZ) == 0) {
        sigtimedwait(&one, nullptr, &at_once);
    }
    pthread_sigmask(SIG_SETMASK, &mask, nullptr);
    errno = error;
    return done;
}

bool write_all(int fd, const char *text, size_t size) {
    while (size > 0) {
        const ssize_t done = write_some(fd, text, size);
        if (done < 0 && errno == EINTR) continue;
        if (done <= 0) return false;
        text += done;
        size -= static_cast<size_t>(done);
    }
    return true;
}

// The database is replaced whole: a reader sees the old one or the new one.
int write_database(const char *path, const char *text) {
    char fresh[4096];
    const int length = snprintf(fresh, sizeof fresh, "%s.%ld", path, static_cast<long>(getpid()));
    if (length < 0 || static_cast<size_t>(length) >= sizeof fresh) {
        return code::database_unwritable;
    }
    const int fd = open(fresh, O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC | O_NOFOLLOW, 0644);
    if (fd < 0) return code::database_unwritable;
    const bool written = write_all(fd, text, strlen(text));
    if (close(fd) == 0 && written && rename(fresh, path) == 0) return code::ok;
    unlink(fresh);
    return code::database_unwritable;
}

}  // namespace

#pragma GCC visibility push(default)
extern "C" {

int SymInitV(const char *db_file, int mode, int32_t *session, SymInitOptions *options,
             uint32_t api_version) {
    if (db_file == nullptr || session == nullptr) return code::bad_argument;
    struct stat status;
    Request request = make_request(lab::function_SymInitV, 0);
    request.head.numbers[0] = mode;
    request.head.numbers[1] = options != nullptr ? options->version : SYM_INIT_OPTIONS_VERSION;
    request.head.numbers[2] = stat(db_file, &status) == 0 && S_ISREG(status.st_mode) ? 1 : 0;
    memcpy(&request.head.numbers[3], &api_version, sizeof api_version);
    add_text(&request, db_file);
    ReplyHead reply;
    const int answer = transact(&request, &reply, nullptr, 0, nullptr);
    if (answer == code::ok) *session = reply.session;
    return answer;
}

int SymExit(int32_t session, int flags) {
    return plain(lab::function_SymExit, session, flags);
}

int SymDiscover(int32_t session, int flags) {
    Request request = make_request(lab::function_SymDiscover, session);
    request.head.numbers[0] = flags;
    char *texts = nullptr;
    ReplyHead reply = {};
    int answer = transact(&request, &reply, nullptr, 0, &texts);
    // A fault after the effect brings its code and the database alike.
    if (texts != nullptr && reply.size > 0) {
        const size_t path = strlen(texts) + 1;
        const int written = write_database(texts, path <= reply.size ? texts + path : "");
        if (answer == code::ok) answer = written;
    }
    free(texts);
    return answer;
}

int SymApiVersion(uint32_t *number, const char **text) {
    static char version[64];
    if (number == nullptr || text == nullptr) return code::bad_argument;
    ReplyHead reply;
    const int answer = fetch_text(lab::function_SymApiVersion, version, sizeof version, &reply);
    if (answer != code::ok) return answer;
    *number = reply.number;
    *text = version;
    return code::ok;
}

int SymApiPatch(const char **text) {
    static char patch[64];
    if (text == nullptr) return code::bad_argument;
    ReplyHead reply;
    const int answer = fetch_text(lab::function_SymApiPatch, patch, sizeof patch, &reply);
    if (answer == code::ok) *text = patch;
    return answer;
}

const char *SymPerror(int32_t session, int code) {
    static_cast<void>(session);
    return lab::code_text(code);
}

const char *SymErrorSymbol(int code) {
    return lab::code_symbol(code);
}

int SymPrefsSet(int32_t session, int preference, int value) {
    return plain(lab::function_SymPrefsSet, session, preference, value);
}

int SymPdevShow(int32_t session, const char *pdevname, SymDevice *device) {
    if (pdevname == nullptr || device == nullptr) return code::bad_argument;
    Request request = make_request(lab::function_SymPdevShow, session);
    add_text(&request, pdevname);
    return show(&request, device);
}

int SymDevShow(int32_t session, const char *symid, const char *sym_devname, SymDevice *device) {
    if (symid == nullptr || sym_devname == nullptr || device == nullptr) return code::bad_argument;
    Request request = make_request(lab::function_SymDevShow, session);
    add_text(&request, symid);
    add_text(&request, sym_devname);
    return show(&request, device);
}

int SymPdevSync(int32_t session, const char *pdevname, int scope) {
    if (pdevname == nullptr) return code::bad_argument;
    Request request = make_request(lab::function_SymPdevSync, session);
    request.head.numbers[0] = scope;
    add_text(&request, pdevname);
    return transact(&request, nullptr, nullptr, 0, nullptr);
}

int SymDevSync(int32_t session, const char *symid, const char *sym_devname, int scope, int flags) {
    if (symid == nullptr || sym_devname == nullptr) return code::bad_argument;
    Request request = make_request(lab::function_SymDevSync, session);
    request.head.numbers[0] = scope;
    request.head.numbers[1] = flags;
    add_text(&request, symid);
    add_text(&request, sym_devname);
    return transact(&request, nullptr, nullptr, 0, nullptr);
}

int SymLdevBcvControl(int32_t session, const char *dgname, const char *ldevname, int action,
                      int options) {
    if (dgname == nullptr || ldevname == nullptr) return code::bad_argument;
    Request request = make_request(lab::function_SymLdevBcvControl, session);
    request.head.numbers[0] = action;
    request.head.numbers[1] = options;
    add_text(&request, dgname);
    add_text(&request, ldevname);
    return transact(&request, nullptr, nullptr, 0, nullptr);
}

int SymDevBcvControl(int32_t session, const char *symid, const char *sym_devname,
                     const char *bcv_sym_devname, int action, int options) {
    if (symid == nullptr || sym_devname == nullptr || bcv_sym_devname == nullptr) {
        return code::bad_argument;
    }
    Request request = make_request(lab::function_SymDevBcvControl, session);
    request.head.numbers[0] = action;
    request.head.numbers[1] = options;
    add_text(&request, symid);
    add_text(&request, sym_devname);
    add_text(&request, bcv_sym_devname);
    return transact(&request, nullptr, nullptr, 0, nullptr);
}

int SymDevListBcvControl(int32_t session, const char *symid, int count, const char *const *devnames,
                         const char *const *bcv_devnames, int action, int options, int flags) {
    if (symid == nullptr || count < 1 || devnames == nullptr || bcv_devnames == nullptr) {
        return code::bad_argument;
    }
    // A list that is not closed where its count says is one that the caller built wrongly.
    if (devnames[count] != nullptr || bcv_devnames[count] != nullptr) return code::bad_argument;
    Request request = make_request(lab::function_SymDevListBcvControl, session);
    request.head.numbers[0] = action;
    request.head.numbers[1] = options;
    request.head.numbers[2] = flags;
    add_text(&request, symid);
    bool whole = true;
    for (int i = 0; i < count; ++i) {
        whole = whole && devnames[i] != nullptr && bcv_devnames[i] != nullptr;
        add_text(&request, devnames[i]);
        add_text(&request, bcv_devnames[i]);
    }
    if (!whole) {
        free(request.texts);
        return code::bad_argument;
    }
    return transact(&request, nullptr, nullptr, 0, nullptr);
}

int SymDgBcvControl(int32_t session, const char *dgname, int action, int options) {
    if (dgname == nullptr) return code::bad_argument;
    Request request = make_request(lab::function_SymDgBcvControl, session);
    request.head.numbers[0] = action;
    request.head.numbers[1] = options;
    add_text(&request, dgname);
    return transact(&request, nullptr, nullptr, 0, nullptr);
}

// The group record is not laid out anywhere: the call tells whether the group exists.
int SymDgShow(int32_t session, const char *dgname, void *group) {
    static_cast<void>(group);
    if (dgname == nullptr) return code::bad_argument;
    Request request = make_request(lab::function_SymDgShow, session);
    add_text(&request, dgname);
    return transact(&request, nullptr, nullptr, 0, nullptr);
}

int SymSync(int32_t session, int scope) {
    return plain(lab::function_SymSync, session, scope);
}

int SymFree(void *block) {
    free(block);
    return code::ok;
}

int SymList(int32_t session, void **list_out) {
    return list(lab::function_SymList, session, list_out);
}
int SymPdevList(int32_t session, void **list_out) {
    return list(lab::function_SymPdevList, session, list_out);
}
int SymBcvPdevList(int32_t session, void **list_out) {
    return list(lab::function_SymBcvPdevList, session, list_out);
}

int SymCommit(int32_t session) {
    return plain(lab::function_SymCommit, session);
}
int SymInquiry(int32_t session) {
    return plain(lab::function_SymInquiry, session);
}
int SymPing(int32_t session) {
    return plain(lab::function_SymPing, session);
}
int SymStat(int32_t session) {
    return plain(lab::function_SymStat, session);
}

}  // extern "C"
#pragma GCC visibility pop
