// The transfer file: the clone tool's description of a disk group on its way to the backup host.
#pragma once

#include "include/records.h"
#include "method/descriptor.h"

namespace tf {

// The transfer file that rebuild makes and fills. Closed at the end of the scope; the file stays,
// under the path that the object's record keeps.
class TransferFile {
  public:
    // Creates the file, which must not exist, with mode 0600. Returns whether that worked; errno
    // says why not.
    bool create(const char *path);
    // Writes a line and a newline. Returns whether all of it was written; false when closed.
    bool write_line(const char *line);
    // Closes it, or does nothing when that has been done.
    void close() { file_.reset(); }

  private:
    DescriptorOwner file_;
};

// Deletes the object's transfer file and empties its path, when it has one. What somebody else put
// in the file's place is left alone.
void discard_transfer_file(hdef *h);

}  // namespace tf
