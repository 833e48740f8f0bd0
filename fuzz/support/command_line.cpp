#include "fuzz/support/command_line.h"

#include <algorithm>
#include <cstring>
#include <iterator>

#include "fuzz/support/finding.h"

namespace fuzz {
namespace {

constexpr const char *tools[] = {
    "/usr/sbin/qzdg",
    "/usr/sbin/qzdisk",
    "/usr/sbin/qzdctl",
    "/usr/sbin/qzvol",
    "/usr/sbin/qzvset",
    "/usr/sbin/lockfs",
    "/usr/quill/tessera/bin/tqdgclone",
    "/usr/quill/tessera/bin/tqdgclone_script",
    "/usr/quill/tessera/bin/tqtpcinfo",
};

bool is_plain(char c) {
    return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') ||
           (c != '\0' && strchr("_-.,/:+=@%", c) != nullptr);
}

// A quoted part: everything up to the closing quote stands for itself.
const char *take_quoted(const char *line, const char *at, std::string &word) {
    const char *const end = strchr(at + 1, '\'');
    if (end == nullptr) finding("an open quote in the command line: %s", line);
    word.append(at + 1, end);
    return end + 1;
}

const char *take_word(const char *line, const char *at, std::string &word) {
    while (*at != '\0' && *at != ' ') {
        if (is_plain(*at)) {
            word += *at++;
        } else if (*at == '\'') {
            at = take_quoted(line, at, word);
        } else if (at[0] == '\\' && at[1] == '\'') {
            word += '\'';
            at += 2;
        } else {
            finding("a character for the shell in the command line, at <%s>: %s", at, line);
        }
    }
    return at;
}

// The stream that a redirection at this place is about, or null; *length is how long it is.
std::string *redirected(CommandLine &parsed, const char *at, size_t *length) {
    *length = at[0] == '2' ? 2 : 1;
    if (at[0] == '<') return &parsed.in;
    if (at[0] == '>') return &parsed.out;
    return at[0] == '2' && at[1] == '>' ? &parsed.err : nullptr;
}

}  // namespace

CommandLine parse_command_line(const char *line) {
    CommandLine parsed;
    for (const char *at = line; *at != '\0';) {
        if (*at == ' ') {
            ++at;
            continue;
        }
        size_t length = 0;
        std::string word;
        std::string *const stream = redirected(parsed, at, &length);
        at = take_word(line, stream != nullptr ? at + length : at, word);
        if (stream != nullptr) {
            *stream = word;
        } else {
            parsed.words.push_back(word);
        }
    }
    const bool known = !parsed.words.empty() && std::find(std::begin(tools), std::end(tools),
                                                          parsed.words[0]) != std::end(tools);
    if (!known) finding("not a tool of the library: %s", line);
    return parsed;
}

}  // namespace fuzz
