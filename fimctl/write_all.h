// Writing, signals or not.
#pragma once

#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <string>
#include <string_view>

namespace fimctl {

// All of a text, in as few writes as the system lets it be; what cannot be written is let go, and
// why is answered: an error number, 0 for none.
inline int write_all(int fd, std::string_view text) {
    while (!text.empty()) {
        const ssize_t done = write(fd, text.data(), text.size());
        if (done < 0 && errno == EINTR) continue;
        if (done <= 0) return done < 0 ? errno : EIO;
        text.remove_prefix(static_cast<size_t>(done));
    }
    return 0;
}

// What stands in standard output goes out; "" or why it could not.
inline std::string flush_output() {
    errno = 0;
    const bool good = fflush(stdout) == 0 && ferror(stdout) == 0;
    return good ? "" : strerror(errno != 0 ? errno : EIO);
}

}  // namespace fimctl
