#include "method/transfer_file.h"

#include <fcntl.h>
#include <unistd.h>

#include <cstdio>

namespace tf {

bool TransferFile::create(const char *path) {
    file_.reset(open(path, O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0600));
    return static_cast<bool>(file_);
}

// Written through at once: a full disk shows with the line that did not fit, not unseen at the end.
bool TransferFile::write_line(const char *line) {
    return file_ && dprintf(file_.get(), "%s\n", line) >= 0;
}

void discard_transfer_file(hdef *h) {
    if (h->transfer_file[0] == '\0') return;
    unlink(h->transfer_file);
    h->transfer_file[0] = '\0';
}

}  // namespace tf
