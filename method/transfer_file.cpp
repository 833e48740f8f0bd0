#include "method/transfer_file.h"

#include <cstring>

#include "method/held_write.h"
#include "method/private_file.h"

namespace tf {

bool TransferFile::create(const char *path) {
    file_.reset(create_private(path));
    return static_cast<bool>(file_);
}

// Written through at once: a full disk shows with the line that did not fit, not unseen at the end.
bool TransferFile::write_line(const char *line) {
    return file_ && write_all(file_.get(), line, strlen(line)) && write_all(file_.get(), "\n", 1);
}

void discard_transfer_file(hdef *h) {
    if (h->transfer_file[0] == '\0') return;
    remove_private_file(h->transfer_file);
    h->transfer_file[0] = '\0';
}

}  // namespace tf
