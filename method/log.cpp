#include "method/log.h"

#include <cstdarg>
#include <cstring>

#include "method/interface.h"
#include "tessera_host.h"

namespace {

// The sink takes lines of this many characters at most.
constexpr size_t sink_piece = 1024;
constexpr size_t line_size = 1024;

void log_formatted(const char *format, va_list args) {
    char line[line_size];
    // One byte less than the buffer holds: lines are cut to 1022 characters, a margin that tools
    // which split the log at that width rely on.
    Q_vsnprintf(line, sizeof line - 1, format, args);
    line[sizeof line - 1] = '\0';
    emc_tf__log(line);
}

}  // namespace

void emc_tf__log(char *text) {
    // A sink may switch itself off while it runs; it still gets the rest of the text it was called
    // for.
    const tf_log_function sink = logf_p;
    if (sink == nullptr || text == nullptr) return;
    const size_t length = strlen(text);
    for (size_t start = 0; start < length; start += sink_piece) {
        if (start + sink_piece >= length) {
            sink(text + start);
            return;
        }
        char *const end = text + start + sink_piece;
        const char saved = *end;
        *end = '\0';
        sink(text + start);
        *end = saved;
    }
}

void emc_tf__log_fmt(const char *format, ...) {
    va_list args;
    va_start(args, format);
    log_formatted(format, args);
    va_end(args);
}

namespace tf {

bool logging(int32_t level) {
    return logf_p != nullptr && log_level >= level;
}

void log_progress(const char *format, ...) {
    if (!logging(progress_level)) return;
    va_list args;
    va_start(args, format);
    log_formatted(format, args);
    va_end(args);
}

void log_trace(const char *format, ...) {
    if (!logging(trace_level)) return;
    va_list args;
    va_start(args, format);
    log_formatted(format, args);
    va_end(args);
}

}  // namespace tf
