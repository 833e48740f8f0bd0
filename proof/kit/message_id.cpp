#include <cstring>
#include <string>
#include <vector>

#include "proof/kit/faulted_run.h"

namespace proof {
namespace {

struct Message {
    const char *id, *format;
};

constexpr Message messages[] = {
#define TF_MESSAGE(name, identifier, lookup, numbers, format, ...) {identifier, format},
#include "method/messages.def"
#undef TF_MESSAGE
};

// The parts of a format between its conversions; a doubled percent sign is one.
std::vector<std::string> fixed_parts(const char *format) {
    std::vector<std::string> parts(1);
    for (const char *at = format; *at != '\0'; ++at) {
        if (*at != '%') {
            parts.back() += *at;
            continue;
        }
        // "%%s" is where the text of a failed system call goes.
        at += at[1] == '%' ? 2 : 1;
        while (strchr("l0123456789", *at) != nullptr) ++at;
        parts.emplace_back();
    }
    return parts;
}

bool made_by(const std::string &text, const char *format) {
    const std::vector<std::string> parts = fixed_parts(format);
    size_t at = 0;
    for (size_t i = 0; i + 1 < parts.size(); ++i) {
        const size_t found = text.find(parts[i], at);
        if (found == std::string::npos || (i == 0 && found != 0)) return false;
        // A message begins with who reports it, in one word; what follows may be a whole message.
        if (i == 1 && text.find_first_of(": ") < found) return false;
        at = found + parts[i].size();
    }
    const std::string &last = parts.back();
    return text.size() >= at + last.size() &&
           text.compare(text.size() - last.size(), std::string::npos, last) == 0;
}

}  // namespace

std::string message_id(const std::string &text) {
    if (text.empty()) return "-";
    std::string plain = text;
    for (size_t at; (at = plain.find("\\n")) != std::string::npos;) plain.replace(at, 2, "\n");
    const Message *best = nullptr;
    size_t most = 0;
    for (const Message &message : messages) {
        // The format that says most of it itself: "%s: %s" fits everything.
        size_t fixed = 0;
        for (const std::string &part : fixed_parts(message.format)) fixed += part.size();
        if (fixed < most || !made_by(plain, message.format)) continue;
        best = &message;
        most = fixed;
    }
    return best == nullptr ? "?" : best->id;
}

}  // namespace proof
