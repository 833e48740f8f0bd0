// The message service: one text per failure, in the locale of each buffer.
#include <cstdio>
#include <cstring>

#include "tessera_host.h"

namespace {

// A format with the system error's text in place is at most this long before its arguments go in.
constexpr size_t format_size = 2048;

// The catalogue's format for an identifier in a locale. This build ships no catalogues: the English
// format is the text in every locale. A catalogue is looked up here.
const char *catalogue_format(const char * /*id*/, const char * /*locale*/, const char *english) {
    return english;
}

void format_into(char *buffer, size_t size, const char *format, va_list args) {
    if (buffer == nullptr || size == 0) return;
    if (vsnprintf(buffer, size, format, args) < 0) buffer[0] = '\0';
}

void format_both(const char *id, const char *lc_messages, size_t errmsg_size, char *errmsg,
                 const char *lc_logging, size_t logmsg_size, char *logmsg, const char *format,
                 va_list args) {
    va_list again;
    va_copy(again, args);
    format_into(errmsg, errmsg_size, catalogue_format(id, lc_messages, format), args);
    format_into(logmsg, logmsg_size, catalogue_format(id, lc_logging, format), again);
    va_end(again);
}

// Puts the error's text where the format says "%%s". It goes into the format, not into the finished
// message: a "%s" that came in with an argument (a path may hold one) must stay what it is. Percent
// signs of the text are doubled to survive the formatting.
void insert_error_text(char (&out)[format_size], const char *format, const char *error_text) {
    size_t used = 0;
    const auto append = [&out, &used](const char *text, size_t length) {
        // All of it or nothing: half of a doubled percent sign would begin a conversion.
        if (used + length >= sizeof out) return;
        memcpy(out + used, text, length);
        used += length;
    };
    while (*format != '\0') {
        if (strncmp(format, "%%s", 3) == 0) {
            for (const char *c = error_text; *c != '\0'; ++c) {
                append(*c == '%' ? "%%" : c, *c == '%' ? 2 : 1);
            }
            format += 3;
        } else {
            const size_t length = strncmp(format, "%%", 2) == 0 ? 2 : 1;
            append(format, length);
            format += length;
        }
    }
    out[used] = '\0';
}

}  // namespace

int qlgetmsg(const char *id, const char *lc_messages, size_t errmsg_size, char *errmsg,
             const char *lc_logging, size_t logmsg_size, char *logmsg, const char *format, ...) {
    va_list args;
    va_start(args, format);
    format_both(id, lc_messages, errmsg_size, errmsg, lc_logging, logmsg_size, logmsg, format,
                args);
    va_end(args);
    return 0;
}

int qlgetmsg_errno(const char *id, const char *lc_messages, size_t errmsg_size, char *errmsg,
                   const char *lc_logging, size_t logmsg_size, char *logmsg, int errnum,
                   const char *format, ...) {
    char reason[256];
    char with_reason[format_size];
    insert_error_text(with_reason, format, strerror_r(errnum, reason, sizeof reason));
    va_list args;
    va_start(args, format);
    format_both(id, lc_messages, errmsg_size, errmsg, lc_logging, logmsg_size, logmsg, with_reason,
                args);
    va_end(args);
    return 0;
}
