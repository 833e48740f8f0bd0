// Reporting a failure: error number, message into both of the framework's buffers, log, status.
#pragma once

#include <cerrno>
#include <cstddef>
#include <type_traits>

#include "method/interface.h"
#include "method/numbers.h"
#include "tessera_host.h"

namespace tf {

enum class Lookup { plain, with_errno };

namespace detail {

void message_format_does_not_match_its_types();  // never defined: calling it is the diagnosis

// The conversion that prints a type in a message.
template <class T>
consteval const char *conversion() {
    if constexpr (std::is_same_v<T, const char *>) {
        return "s";
    } else if constexpr (std::is_same_v<T, int>) {
        return "d";
    } else if constexpr (std::is_same_v<T, long>) {
        return "ld";
    } else {
        static_assert(std::is_same_v<T, unsigned long>, "no message prints this type");
        return "lu";
    }
}

// Advances format past its next conversion when that is the wanted one.
consteval bool take_conversion(const char *&format, const char *wanted) {
    while (*format != '\0' && (format[0] != '%' || format[1] == '%')) {
        format += format[0] == '%' ? 2 : 1;
    }
    if (*format == '\0') return false;
    ++format;
    while (*wanted != '\0') {
        if (*format++ != *wanted++) return false;
    }
    return true;
}

consteval bool no_conversion_left(const char *format) {
    while (*format != '\0') {
        if (format[0] == '%' && format[1] != '%') return false;
        format += format[0] == '%' ? 2 : 1;
    }
    return true;
}

}  // namespace detail

// One row of messages.def. The constructor runs at compile time and compares the format with the
// argument types, so a row that would misread its arguments does not build.
template <Lookup how, class... Args>
struct Message {
    const char *id;
    const char *format;

    consteval Message(const char *identifier, const char *english)
        : id(identifier), format(english) {
        const char *rest = english;
        if (!(detail::take_conversion(rest, detail::conversion<Args>()) && ...) ||
            !detail::no_conversion_left(rest)) {
            detail::message_format_does_not_match_its_types();
        }
    }
};

namespace msg {
#define TF_MESSAGE(name, id, lookup, numbers, format, ...) \
    inline constexpr Message<Lookup::lookup, __VA_ARGS__> name{id, format};
#include "method/messages.def"
#undef TF_MESSAGE
}  // namespace msg

// The buffers a message is written into: the framework's, or private ones where it gave none.
struct MessageBuffers {
    char *errmsg;
    char *logmsg;
};
MessageBuffers message_buffers();

// Stores the number where the framework reads it.
void set_error_number(ErrorNumber number);
// Logs the message that stands in the buffer, at level 0 or more.
void log_current_message();

// Reports a failure and returns the status 11: stores the number, writes the message into both
// buffers, logs it at level 0 or more. A message with a system error takes it from errno, read
// before anything else happens.
template <Lookup how, class... Args>
int32_t fail(ErrorNumber number, const Message<how, Args...> &message,
             std::type_identity_t<Args>... args) {
    const int system_error = errno;
    set_error_number(number);
    const MessageBuffers to = message_buffers();
    if constexpr (how == Lookup::with_errno) {
        qlgetmsg_errno(message.id, mth_lc_messages, TF_MESSAGE_SIZE, to.errmsg, mth_lc_logging,
                       TF_MESSAGE_SIZE, to.logmsg, system_error, message.format, args...);
    } else {
        qlgetmsg(message.id, mth_lc_messages, TF_MESSAGE_SIZE, to.errmsg, mth_lc_logging,
                 TF_MESSAGE_SIZE, to.logmsg, message.format, args...);
    }
    log_current_message();
    return failure;
}

}  // namespace tf
