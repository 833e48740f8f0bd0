// The checkpoint text of one object, as far as the framework reads it and adds to it.
#pragma once

#include <string>
#include <vector>

namespace fimctl {

struct Pair {
    std::string symid, device, bcv;

    friend bool operator==(const Pair &, const Pair &) = default;
};

class CheckpointText {
  public:
    explicit CheckpointText(const std::string &text);

    // The value of the last line with this key, "" when there is none: later lines win.
    std::string value(const std::string &key) const;
    bool is_file_system() const;
    bool is_volume() const;
    // A volume whose disk group is brought up by importing the mirrors.
    bool is_imported_group() const;
    // Made for the alternate backup host: its record thaws, and never commits the thaw.
    bool is_target() const;
    // The pairs that the object's records name, in their order.
    std::vector<Pair> pairs() const;

  private:
    long number(const std::string &key) const;

    std::vector<std::string> lines_;
};

// The text with the contents of the clone-information file put behind its "TRANSFER_FILE=" line.
// The method writes only that line; carrying the contents is the framework's business, since the
// file itself is gone when the next process rebuilds.
std::string with_clone_information(const std::string &text);

// The text with the mark of the alternate backup host. It stands first, since a record that is read
// before the mark is taken for one of the primary host.
std::string for_backup_host(const std::string &text);
// The text without it.
std::string for_primary_host(const std::string &text);

// A text that was taken before the copy was mounted, for the release of a snapshot whose mount was
// cut short: the record is told to unmount, and what its disk group was brought up as. The method
// unmounts whatever is mounted on the copy's directory, which is why that belongs to one snapshot
// alone.
std::string as_if_mounted(const std::string &text);

}  // namespace fimctl
