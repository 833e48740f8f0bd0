// Writing that cannot end the host.
#pragma once

#include <sys/types.h>

#include <cstddef>

namespace tf {

// write, but a file-size limit and a closed pipe are errors (EFBIG, EPIPE) and nothing else: the
// signal that comes with them is held back from this thread and taken up. What the process has set
// for its signals stays as it is, and no signal from elsewhere is lost.
ssize_t held_write(int fd, const void *data, size_t size);

// Writes all of it, in as many pieces as the system takes. Returns whether that worked; errno says
// why not.
bool write_all(int fd, const char *data, size_t size);

}  // namespace tf
