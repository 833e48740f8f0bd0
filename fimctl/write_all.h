// Writing, signals or not.
#pragma once

#include <unistd.h>

#include <cerrno>
#include <string_view>

namespace fimctl {

// All of a text, in as few writes as the system lets it be; what cannot be written is let go.
inline void write_all(int fd, std::string_view text) {
    while (!text.empty()) {
        const ssize_t done = write(fd, text.data(), text.size());
        if (done < 0 && errno == EINTR) continue;
        if (done <= 0) return;
        text.remove_prefix(static_cast<size_t>(done));
    }
}

}  // namespace fimctl
