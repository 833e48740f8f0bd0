#include "snap/shell_word.h"

#include <cstdlib>
#include <cstring>

namespace snap {
namespace {

constexpr char quote = '\'';
// Ends the quotes, adds a quote that stands for itself, begins them again.
constexpr char quote_in_quotes[] = R"('\'')";

// Not isalnum(): what a locale takes for a letter, another shell's locale may not. c is no NUL.
bool is_plain(char c) {
    return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') ||
           strchr("_-.,/:+=@%", c) != nullptr;
}

bool is_plain(const char *text) {
    for (; *text != '\0'; ++text) {
        if (!is_plain(*text)) return false;
    }
    return true;
}

char *make_quoted(const char *text) {
    auto *const made = static_cast<char *>(malloc(longest_quoted(strlen(text)) + 1));
    if (made == nullptr) return nullptr;
    char *end = made;
    *end++ = quote;
    for (; *text != '\0'; ++text) {
        if (*text != quote) {
            *end++ = *text;
            continue;
        }
        memcpy(end, quote_in_quotes, sizeof quote_in_quotes - 1);
        end += sizeof quote_in_quotes - 1;
    }
    *end++ = quote;
    *end = '\0';
    return made;
}

}  // namespace

ShellWord::ShellWord(const char *text) : text_(text != nullptr ? text : "") {
    if (is_plain(text_)) return;
    quoted_ = make_quoted(text_);
    text_ = quoted_;
}

ShellWord::~ShellWord() {
    free(quoted_);
}

}  // namespace snap
