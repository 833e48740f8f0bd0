// Volumes of disk groups on real disks of the array, and the phases of their snapshots: the
// fixtures of the tests of this folder.
#pragma once

#include "tests/support/world.h"

namespace test {

// A file system on a volume. It is mounted on /data/NAME and its copy on /copy/NAME.
struct Object {
    std::string group, name, type;
    std::string disks;  // "p0" or "p1 p2": the disks that it is listed over

    std::string size() const { return type == "xfs" ? "320M" : "64M"; }
    std::string block() const { return "/dev/qz/dsk/" + group + "/" + name; }
    std::string data() const { return "/data/" + name; }
    std::string copy() const { return "/copy/" + name; }
};
using Objects = std::vector<Object>;

// The three volumes of datadg on p0, p1 and p2, and the one of logdg on p3.
extern const Object vol1, vol2, vol3, log1;

class VolumesInTheLab : public World {
  protected:
    explicit VolumesInTheLab(Words hosts = {"client1"}) : World("volumes", std::move(hosts)) {}

    // Disk groups, volumes and mounted file systems with files, whose checksums are kept.
    void make(const Objects &objects);
    // Overwrites, adds and removes files of the originals.
    void change(const Object &object);
    // Whether the files below a directory of the current host are those that make() wrote.
    void expect_unchanged(const Object &object, const std::string &directory);
    // A step of a phase that says so by its status.
    static std::string check_step(const Object &object, const std::string &directory);
    // A whole check of an unmounted file system, which changes nothing.
    void expect_sound(const Object &object, const std::string &block);

    // Freeze of all objects, control code 4, commits and checkpoints, in one process.
    Phase freeze(const Objects &objects, const std::string &config = "-", Words further = {});
    // Rebuilds from the texts, shows the copies, compares them and takes checkpoints again, in one
    // process on the current host.
    Phase bring_up(const Objects &objects, Words further = {});
    // Rebuilds from those checkpoints, and thaws. On the primary, commits the thaw, too.
    Phase thaw(const Objects &objects, bool commit);
    Phase release(const Objects &objects) { return thaw(objects, true); }

    // Steps for each object.
    static Words for_each(const Objects &objects, const Words &steps);
    static std::string text(size_t number) { return "/exchange/" + std::to_string(number); }

    // What the framework does to texts between the hosts: puts the lines of the transfer file into
    // the clone block, and adds lines in front.
    void carry_clone_information(const Objects &objects);
    void add_first(const Objects &objects, const std::string &line, const std::string &suffix = "");

    std::string saved(const std::string &name) const;
    // The commands that a call or a phase ran; temporary names are made equal.
    static Words commands(const Call &call);
    static Words commands(const Phase &phase);
    // Block paths of a host's mounts below /data and /copy, with mount point and type.
    std::string mounts();
    // The pairs of the objects' disks.
    void expect_pairs(const Objects &objects, int state);
    // Nothing of a snapshot is left on the current host but its own groups' volumes.
    void expect_no_copy_here();
    // Nor on the array, where all pairs are synchronised again.
    void expect_released(const Objects &objects);
};

class VolumesOnTwoHosts : public VolumesInTheLab {
  protected:
    VolumesOnTwoHosts() : VolumesInTheLab({"client1", "backup1"}) {}
    static constexpr char with_import[] = "alternate_backup_client=backup1";
    // The entry of the host configuration that asks for the import.
    void ask_for_import() { host("echo dgimport=1 >/usr/quill/tessera/tq.conf"); }
    // On the backup host, which is the current one then: as bring_up() and thaw().
    Phase bring_up_there(const Objects &objects);
    Phase thaw_there(const Objects &objects);
    // On the primary host again, from its own texts: as thaw() with the commit.
    Phase release_here(const Objects &objects);
};

void expect_all_succeed(const Phase &phase);

}  // namespace test
