// What the scenarios share: files that can be told apart, and whole snapshots of them.
#pragma once

#include <string>

#include "tests/support/world.h"

namespace test {

// A file system on a standard device, and where its copy comes up.
struct Source {
    std::string type, device;  // ext4 or xfs, block device
    std::string folder, copy;  // mounted on, and the copy's mount point
};

class Scenario : public World {
  protected:
    using World::World;

    // Makes the file system, mounts it and fills it.
    void make(const Source &source);
    // Files of many sizes, each with content of its own. What is told apart is the seed.
    void fill(const std::string &folder, const std::string &seed);
    // Overwrites some files, cuts, moves and removes one and makes new ones, each time others.
    void change(const std::string &folder);
    // The checksum of every file below a folder of the host that on() named.
    std::string sums(const std::string &folder);
    std::string sum_of_device(const std::string &device);
    // The file system of a device that is not mounted has no fault; nothing is repaired.
    void expect_sound(const std::string &type, const std::string &device);
    // The same as a step of a phase.
    static std::string sound(const std::string &type, const std::string &device);

    // What a step saved in the exchange folder.
    std::string saved(const std::string &name) const;
    static std::string save_array(const std::string &name) {
        return "tfarray show --json >/exchange/" + name;
    }
    // A number of a pair in what save_array saved.
    int64_t saved_number(const std::string &name, const std::string &key,
                         const std::string &primary, const std::string &bcv) const;
    // The value of a key in a checkpoint text, its first occurrence.
    std::string in_text(const std::string &name, const std::string &key) const;
    // Virtual time in seconds.
    double clock_seconds();

    // One snapshot in one process: freeze, control code 4, commit while the source is quiesced;
    // then the source changes; the copy comes up, is exactly what the source was, and has no fault;
    // its pair is established again, and the source is what it became. Saved: "frozen", "joined",
    // "committed" (the array after that step) and "text".
    Phase expect_a_whole_snapshot(const Source &source, const std::string &mirror,
                                  const std::string &config = "-");
    // Nothing is left on the host: no lock, temporary file or mount of a copy.
    void expect_nothing_left(const std::string &copy);

  private:
    int changes_ = 0;
};

void expect_all_succeed(const Phase &phase);

}  // namespace test
