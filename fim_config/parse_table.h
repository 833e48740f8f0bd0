// What the table and the parser of the configuration-string module share. Nothing here leaves the
// library.
#pragma once

#include <cstdint>
#include <cstdlib>
#include <memory>

#include "fim_config/qfm_fim_config.h"

// One accepted keyword.
struct qfm_fcp_entry {
    char *keyword;          // owned copy
    void *target;           // the caller's variable: char *, int32_t or int64_t after the type
    int32_t type;           // fcp::type_*
    int64_t min, max;       // of numbers; both ends are allowed
    int32_t *flag;          // raised by one each time the keyword is found, or null
    qfm_fcp_entry *next;    // the entry added after this one
    char *stored_by_parse;  // the text that the running parse put into target; only meaningful
                            // during a parse, afterwards it is the caller's
};

// Entries in the order in which keywords are matched.
struct qfm_fcp_table {
    uint32_t magic;  // fcp::magic while the table lives, 0 when it was deleted
    qfm_fcp_entry *first, *last;
};

// A string while it is read pair by pair.
struct qfm_fcp_context {
    char *text;            // owned copy of the whole string; never changed, so that messages can
                           // quote the rest of it
    const char *position;  // first character not read yet, inside text
    qfm_fcp_options options;
};

// Adds an entry; the one constructor behind the typed ones. type is 1 (string), 2 (int) or 3
// (long). Does nothing while *status is not 0. Returns the entry, which the table owns, or null:
// with *status 9 to 13 after a refusal, with *status still 0 when there was no memory.
qfm_fcp_entry *qfm_fcp_entry_new(qfm_fcp_table *table, int32_t *status, int32_t type,
                                 const char *keyword, void *target, int64_t min, int64_t max,
                                 int32_t *flag);
// Reads the next pair. *keyword and *value are new texts from malloc that the caller frees; the
// value is null for a keyword that stands alone, the keyword is null at the end of the string. On
// a failure both are null and the position is past the pair. Returns 0, 1 to 3, 5, 6 or 10; a bad
// context (5) leaves both outputs alone.
int32_t qfm_fcp_next(qfm_fcp_context *context, char **keyword, char **value);
// Cuts white space from both ends of a text, in place. Nothing happens for null.
void trim(char *text);

namespace fcp {

inline constexpr uint32_t magic = 0x41505352;  // "RSPA" in memory
inline constexpr int32_t type_string = 1;
inline constexpr int32_t type_int = 2;
inline constexpr int32_t type_long = 3;

inline constexpr int32_t message_level = 1;
inline constexpr int32_t detail_level = 5;

// The module's message buffer: the last message, whether it was logged or not.
extern char message[2048];

// Formats a message into the buffer and logs it at level 1 or more.
void report(const char *format, ...) __attribute__((format(printf, 1, 2)));
// Whether details are logged now: asked before the details of a loop, whose calls would be most of
// its cost.
extern bool logs_details;
// Formats and logs a detail at level 5 or more; below it nothing happens.
void trace(const char *format, ...) __attribute__((format(printf, 1, 2)));
// The message of a failed allocation. The number names the place to whoever reads the log.
void report_no_memory(const char *function, int place);

inline const char *shown(const char *text) {
    return text != nullptr ? text : "*NULL*";
}

struct Free {
    void operator()(void *block) const { free(block); }
};
using OwnedText = std::unique_ptr<char, Free>;

}  // namespace fcp
