// The host product's configuration: "KEY=VALUE" lines in a file under the product root.
#include <fcntl.h>
#include <unistd.h>

#include <cctype>
#include <climits>
#include <cstring>

#include "host/owners.h"
#include "tessera_host.h"

namespace {

constexpr char file_name[] = "tq.conf";
constexpr char comment_sign = '#';

// The file, line by line. It needs no memory: an entry that could not be read would count as
// absent, and one look at the file could contradict the next.
class Lines {
  public:
    explicit Lines(const char *path) : file_(open(path, O_RDONLY | O_CLOEXEC)) {}

    // The next line without its newline; what it has beyond the room is dropped. Null behind the
    // last one.
    char *next() {
        size_t length = 0;
        bool begun = false;
        while (next_ < filled_ || fill()) {
            begun = true;
            const char c = block_[next_++];
            if (c == '\n') break;
            if (length < sizeof line_ - 1) line_[length++] = c;
        }
        line_[length] = '\0';
        return begun ? line_ : nullptr;
    }

  private:
    bool fill() {
        const ssize_t got = read(file_.get(), block_, sizeof block_);
        next_ = 0;
        filled_ = got > 0 ? static_cast<size_t>(got) : 0;
        return filled_ > 0;
    }

    const tessera::Descriptor file_;
    char block_[4096] = {};
    char line_[4096] = {};
    size_t next_ = 0, filled_ = 0;
};

bool is_blank(char c) {
    return isspace(static_cast<unsigned char>(c)) != 0;
}

// The text without the blanks around it; the end is cut in place.
char *trimmed(char *text) {
    while (is_blank(*text)) ++text;
    char *end = text + strlen(text);
    while (end > text && is_blank(end[-1])) --end;
    *end = '\0';
    return text;
}

// The value of a line that is an entry of the key; null for every other line.
const char *value_of(char *line, const char *key) {
    char *text = trimmed(line);
    if (*text == comment_sign) return nullptr;
    char *value = strchr(text, '=');
    if (value == nullptr) return nullptr;
    *value++ = '\0';
    return strcmp(trimmed(text), key) == 0 ? trimmed(value) : nullptr;
}

}  // namespace

int read_AD_HOC_config_entry(const char *root, const char *key, char *value, size_t size) {
    char path[PATH_MAX];
    const int length = Q_snprintf(path, sizeof path, "%s/%s", root, file_name);
    if (length < 0 || static_cast<size_t>(length) >= sizeof path) return -1;
    Lines lines(path);
    // The first entry of a key is the one that holds.
    while (char *const line = lines.next()) {
        const char *found = value_of(line, key);
        if (found == nullptr) continue;
        if (value != nullptr) Q_strlcpy(value, found, size);
        return 0;
    }
    return -1;
}
