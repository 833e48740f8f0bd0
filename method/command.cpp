#include "method/command.h"

#include <cerrno>
#include <cstdarg>
#include <cstdlib>
#include <cstring>

#include "method/capture.h"
#include "method/descriptor.h"
#include "method/log.h"
#include "method/report.h"
#include "method/text.h"

namespace {

constexpr char reporter[] = "do_cmd";

constexpr size_t line_size = 16384;
// What the shell itself answers when it cannot redirect a command's output.
constexpr int cannot_redirect = 2;

constexpr size_t dump_line_size = 1034;
constexpr size_t dump_piece_size = 1024;

// A formatter's result: a negative value is an error and does not fit either.
bool does_not_fit(int length) {
    return static_cast<unsigned>(length) >= line_size;
}

// Builds the whole line in command: the caller's command, then the redirections. Standard input is
// the null device, so that no command can wait for input.
int32_t build_line(const hdef *h, char (&command)[line_size], const char *format, va_list args) {
    char suffix[line_size];
    const snap::ShellWord out(tf::capture_name(h->out_file));
    const snap::ShellWord err(tf::capture_name(h->err_file));
    if (out.lost() || err.lost()) return tf::no_memory_for_command();
    const int suffix_length =
        tf::put_format(suffix, " </dev/null >%s 2>%s", out.text(), err.text());
    if (does_not_fit(suffix_length)) {
        return tf::fail(tf::ErrorNumber::limit, tf::msg::snprintf_failed, reporter, suffix_length);
    }
    const int length = Q_vsnprintf(command, sizeof command, format, args);
    if (does_not_fit(length)) {
        return tf::fail(tf::ErrorNumber::limit, tf::msg::vsnprintf_failed, reporter, length);
    }
    if (strlen(command) + strlen(suffix) + 1 > sizeof command) {
        return tf::fail(tf::ErrorNumber::limit, tf::msg::command_too_long, reporter, command);
    }
    Q_strlcat(command, suffix, sizeof command);
    return tf::success;
}

// Only the byte of the exit status is looked at, and callers rely on what follows from that: a
// command that a signal ended counts as a success, and a shell that could not be started (-1) as a
// command that exited with 255.
int exit_status_of(int result) {
    return static_cast<int>((static_cast<unsigned>(result) >> 8) & 0xffU);
}

int32_t run_line(const hdef *h, char *line) {
    if (tf::logging(tf::command_level)) emc_tf__log_fmt("Executing command: %s", line);
    // The shell follows links and truncates whatever it finds under the two names.
    if (!tf::capture_file_ready(h->out_file) || !tf::capture_file_ready(h->err_file)) {
        return tf::fail(tf::ErrorNumber::operation, tf::msg::command_failed, reporter,
                        cannot_redirect, line);
    }
    const int status = exit_status_of(system(line));
    if (status == 0) return tf::success;
    tf::fail(tf::ErrorNumber::operation, tf::msg::command_failed, reporter, status, line);
    emc_tf__log_dump_file(tf::capture_name(h->out_file), "stdout");
    emc_tf__log_dump_file(tf::capture_name(h->err_file), "stderr");
    return tf::failure;
}

template <class... Args>
[[gnu::always_inline]] inline void dump_line(const char *format, Args... args) {
    char line[dump_line_size];
    tf::put_format(line, format, args...);
    emc_tf__log(line);
}

void dump_lines(FILE *stream) {
    char piece[dump_piece_size] = {};
    while (fgets(piece, sizeof piece, stream) != nullptr) {
        const size_t length = strlen(piece);
        if (length > 0) {
            if (piece[length - 1] == '\n') piece[length - 1] = '\0';
            dump_line("    %s", piece);
        }
        memset(piece, 0, sizeof piece);
    }
}

}  // namespace

int32_t tf::no_memory_for_command() {
    return fail(ErrorNumber::operation, msg::out_of_memory, reporter);
}

int32_t do_cmd(const hdef *h, const char *format, ...) {
    char line[line_size];
    va_list args;
    va_start(args, format);
    const int32_t result = build_line(h, line, format, args);
    va_end(args);
    return result != tf::success ? result : run_line(h, line);
}

// The level is not looked at: what a failed command printed is wanted even where its message was
// kept quiet.
void emc_tf__log_dump_file(const char *path, const char *label) {
    if (logf_p == nullptr) return;
    dump_line("--- Dumping file %s (%s):", path, label);
    const tf::StreamOwner stream(tf::open_for_reading(path));
    if (stream) {
        dump_lines(stream.get());
    } else {
        const int error = errno;
        dump_line("--- Open of file %s failed: errno=%d (%s)", path, error, strerror(error));
    }
    dump_line("--- End of file %s", path);
}
