// Running host commands with their output captured.
#pragma once

#include <cstdint>

#include "include/records.h"
#include "snap/shell_word.h"
#include "tessera_host.h"

// Formats a command line, runs it through the shell with standard input from the null device and
// its output in the record's two capture files, and returns 0 when it exited with status 0.
// Otherwise it reports, dumps both files into the log and returns 11. Only the exit status byte
// counts: a command that a signal ended is a success.
int32_t do_cmd(const hdef *h, const char *format, ...) __attribute__((format(printf, 2, 3)));
// Writes a text file into the log between a header and a trailer line, whatever the level.
void emc_tf__log_dump_file(const char *path, const char *label);

namespace tf {

// Reports that a command line could not be made for want of memory, and returns 11.
int32_t no_memory_for_command();

template <class... Words>
[[gnu::always_inline]] inline int32_t run_quoted(const hdef *h, const char *format,
                                                 const char *tool, const Words &...words) {
    if ((words.lost() || ...)) return no_memory_for_command();
    return do_cmd(h, format, tool, words.text()...);
}

// do_cmd for a tool and the names that it is given, each of which is one word for the shell
// whatever it holds. format has a "%s" for the tool and one for each name.
template <class... Names>
[[gnu::always_inline]] inline int32_t run_tool(const hdef *h, const char *format, const char *tool,
                                               Names... names) {
    return run_quoted(h, format, tool, snap::ShellWord(names)...);
}

}  // namespace tf
