// The host product's configuration: "KEY=VALUE" lines in a file under the product root.
#include <cctype>
#include <climits>
#include <cstdio>
#include <cstring>

#include "host/owners.h"
#include "tessera_host.h"

namespace {

constexpr char file_name[] = "tq.conf";
constexpr char comment_sign = '#';

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
    const tessera::Stream file(fopen(path, "re"));
    if (!file) return -1;
    tessera::Heap<char> line;
    size_t capacity = 0;
    // The first entry of a key is the one that holds.
    while (getline(line.out(), &capacity, file.get()) > 0) {
        const char *found = value_of(line.get(), key);
        if (found == nullptr) continue;
        if (value != nullptr) Q_strlcpy(value, found, size);
        return 0;
    }
    return -1;
}
