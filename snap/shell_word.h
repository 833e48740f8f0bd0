// A name as one word of a command line.
#pragma once

#include <cstddef>

namespace snap {

// Command lines are run by the shell, and a name comes from wherever names come from: a mount
// point, a volume, TMPDIR. A text of ASCII letters, digits and _ - . , / : + = @ % stands in the
// line as it is, so that ordinary lines read as they always did; so does the empty text, which is
// no word at all. Any other text is put in single quotes, so that no name can be a command. A
// leading dash is not the shell's business and stays.
class ShellWord {
  public:
    // text belongs to the caller and outlives the word; null is the empty text.
    explicit ShellWord(const char *text);
    ~ShellWord();
    ShellWord(const ShellWord &) = delete;
    ShellWord &operator=(const ShellWord &) = delete;

    // There was no memory for the quoted text (errno is ENOMEM). Nothing may be run then.
    bool lost() const { return text_ == nullptr; }
    // The word; null when it is lost.
    const char *text() const { return text_; }

  private:
    const char *text_;
    char *quoted_ = nullptr;
};

// How much longer a text of this length can become.
constexpr size_t longest_quoted(size_t length) {
    return 4 * length + 2;
}

}  // namespace snap
