#include "lab/common/descriptor.h"

#include <fcntl.h>

#include <algorithm>

namespace lab::common {

void keep_only(std::vector<int> kept) {
    Descriptor null(open("/dev/null", O_RDWR | O_CLOEXEC));
    for (int fd = 0; fd <= 2; ++fd) dup2(null.get(), fd);
    if (null.get() <= 2) null.release();  // it was one of them that was closed
    std::sort(kept.begin(), kept.end());
    unsigned next = 3;
    for (const int fd : kept) {
        const auto number = static_cast<unsigned>(fd);
        if (number > next) close_range(next, number - 1, 0);
        next = number + 1;
    }
    close_range(next, ~0U, 0);
}

}  // namespace lab::common
