// The framework's log sink.
//
// Levels: below 0 nothing; 0 and above failures and progress; 1 and above the commands that are
// run; 2 and above traces.
#pragma once

#include <cstdint>

// Hands a text to the sink in pieces of at most 1024 characters. The text is changed while the sink
// runs and whole again on return. Looks at the sink, not at the level: callers test the level
// first.
void emc_tf__log(char *text);
// Formats a line of at most 1022 characters and hands it to emc_tf__log.
void emc_tf__log_fmt(const char *format, ...) __attribute__((format(printf, 1, 2)));

namespace tf {

inline constexpr int32_t progress_level = 0;
inline constexpr int32_t command_level = 1;
inline constexpr int32_t trace_level = 2;

// Whether a line of this level reaches the sink.
bool logging(int32_t level);
// A line at level 0 or more.
void log_progress(const char *format, ...) __attribute__((format(printf, 1, 2)));
// A line at level 2 or more.
void log_trace(const char *format, ...) __attribute__((format(printf, 1, 2)));

}  // namespace tf
