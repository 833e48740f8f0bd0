#include "tests/method/message_look_ups.h"

#include <gtest/gtest.h>

#include <cstdarg>
#include <cstdio>

#include "tessera_host.h"

extern "C" {
int __real_qlgetmsg(const char *id, const char *lc_messages, size_t errmsg_size, char *errmsg,
                    const char *lc_logging, size_t logmsg_size, char *logmsg, const char *format,
                    ...);
int __wrap_qlgetmsg(const char *id, const char *lc_messages, size_t errmsg_size, char *errmsg,
                    const char *lc_logging, size_t logmsg_size, char *logmsg, const char *format,
                    ...);
int __real_qlgetmsg_errno(const char *id, const char *lc_messages, size_t errmsg_size, char *errmsg,
                          const char *lc_logging, size_t logmsg_size, char *logmsg, int errnum,
                          const char *format, ...);
int __wrap_qlgetmsg_errno(const char *id, const char *lc_messages, size_t errmsg_size, char *errmsg,
                          const char *lc_logging, size_t logmsg_size, char *logmsg, int errnum,
                          const char *format, ...);
}

namespace {

test::MessageLookUps *current = nullptr;

std::string formatted(const char *format, va_list args) {
    va_list again;
    va_copy(again, args);
    std::string text(static_cast<size_t>(vsnprintf(nullptr, 0, format, args)), '\0');
    vsnprintf(text.data(), text.size() + 1, format, again);
    va_end(again);
    return text;
}

int answer(const test::LookUp &asked, char *errmsg, char *logmsg) {
    current->seen.push_back(asked);
    Q_strlcpy(errmsg, "M", asked.errmsg_size);
    Q_strlcpy(logmsg, "L", asked.logmsg_size);
    return 0;
}

}  // namespace

namespace test {

MessageLookUps::MessageLookUps() {
    current = this;
}

MessageLookUps::~MessageLookUps() {
    current = nullptr;
}

}  // namespace test

// The arguments cannot be handed on as they came, so the service gets the finished text as its only
// argument.
int __wrap_qlgetmsg(const char *id, const char *lc_messages, size_t errmsg_size, char *errmsg,
                    const char *lc_logging, size_t logmsg_size, char *logmsg, const char *format,
                    ...) {
    if (current != nullptr) {
        return answer({"qlgetmsg", id, lc_messages, errmsg_size, errmsg, lc_logging, logmsg_size,
                       logmsg, format},
                      errmsg, logmsg);
    }
    va_list args;
    va_start(args, format);
    const std::string text = formatted(format, args);
    va_end(args);
    return __real_qlgetmsg(id, lc_messages, errmsg_size, errmsg, lc_logging, logmsg_size, logmsg,
                           "%s", text.c_str());
}

// The place of the system error's text is the end of every format, and stays the service's own.
int __wrap_qlgetmsg_errno(const char *id, const char *lc_messages, size_t errmsg_size, char *errmsg,
                          const char *lc_logging, size_t logmsg_size, char *logmsg, int errnum,
                          const char *format, ...) {
    if (current != nullptr) {
        return answer({"qlgetmsg_errno", id, lc_messages, errmsg_size, errmsg, lc_logging,
                       logmsg_size, logmsg, format, errnum},
                      errmsg, logmsg);
    }
    va_list args;
    va_start(args, format);
    std::string text = formatted(format, args);
    va_end(args);
    EXPECT_TRUE(text.ends_with("%s")) << format;
    text.resize(text.size() - 2);
    return __real_qlgetmsg_errno(id, lc_messages, errmsg_size, errmsg, lc_logging, logmsg_size,
                                 logmsg, errnum, "%s%%s", text.c_str());
}
