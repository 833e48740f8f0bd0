// An input as lines of text.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace fuzz {

inline std::string text_of(const uint8_t *data, size_t size) {
    return {data, data + size};
}

// Takes the first line off a text; without its newline.
inline std::string take_line_off(std::string &text) {
    const size_t end = text.find('\n');
    std::string line = text.substr(0, end);
    text.erase(0, end == std::string::npos ? end : end + 1);
    return line;
}

inline std::vector<std::string> lines_of(std::string text) {
    std::vector<std::string> lines;
    while (!text.empty()) lines.push_back(take_line_off(text));
    return lines;
}

// The parts of a text between lines that say nothing but "--".
inline std::vector<std::string> sections_of(std::string text) {
    std::vector<std::string> sections(1);
    while (!text.empty()) {
        const std::string line = take_line_off(text);
        if (line == "--") {
            sections.emplace_back();
        } else {
            sections.back() += line + "\n";
        }
    }
    return sections;
}

// A text as the C code sees it, in a block of its own size, so that one byte too far is seen.
class ExactText {
  public:
    explicit ExactText(const std::string &text)
        : block_(text.c_str(), text.c_str() + length(text)) {
        block_.push_back('\0');
    }
    char *get() { return block_.data(); }

  private:
    static size_t length(const std::string &text) { return std::string_view(text.c_str()).size(); }
    std::vector<char> block_;
};

}  // namespace fuzz
