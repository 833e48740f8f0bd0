// fimctl as an operator uses it, in worlds with two hosts: the method that ships, the volume
// manager, the clone tool and real file systems below it.
#pragma once

#include <string>

#include "tests/support/world.h"

namespace test {

// What a command left, and how it ended.
struct Told {
    int status = -1;
    std::string text;  // both streams, without the last newline
};

class FimctlOnTwoHosts : public World {
  protected:
    FimctlOnTwoHosts() : World("volumes", {"client1", "backup1"}) {}

    static constexpr char with_import[] = "--config alternate_backup_client=backup1";

    // The disk group datadg: vol1 (ext4) on p0 and vol2 (xfs) on p1, mounted on /data/vol1 and
    // /data/vol2, with files whose checksums are kept.
    void make_group();
    // One more group, logdg, with log1 (ext4) on p3.
    void make_second_group();
    // A file system without a volume, on p2, mounted on /data/plain.
    void make_plain();
    // The host's configuration entry that has disk groups imported.
    void ask_for_import() { host("echo dgimport=1 >/usr/quill/tessera/tq.conf"); }
    // Overwrites, adds and removes files of an original.
    void change(const std::string &name);

    // fimctl on the current host; waits cost no time. The first one has to end with 0.
    std::string fim(const std::string &arguments);
    Told try_fim(const std::string &arguments);

    // Whether the files below a directory of the current host are those that were there before the
    // snapshot.
    void expect_as_frozen(const std::string &name, const std::string &directory);
    // Nothing of a copy is left on the current host: mounts, groups, nodes, directories, locks.
    void expect_nothing_left();
    // The snapshot's pairs are synchronised again.
    void expect_established(const Words &devices);

  private:
    void fill(const std::string &name);
};

}  // namespace test
