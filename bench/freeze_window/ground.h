// A world of the lab with file systems to copy: some on devices of the array, as many of the same
// kind on plain images beside the array's data, which whoever has no array would copy.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace bench {

struct Size {
    int pairs = 1;
    uint64_t device = 0;   // bytes of each
    uint64_t changed = 0;  // bytes written to each before a copy
};

// The file systems of one kind.
struct FileSystems {
    std::vector<std::string> paths;  // where their users see them
    std::vector<std::string> seen;   // the same directories, as this process sees them
    std::vector<std::string> nodes;  // the block devices, in the same order
    std::vector<std::string> files;  // the images; empty for those of the array
};

constexpr char bench_host[] = "client1";

// Makes both kinds, in the world of the calling process, and takes down those beside the array: a
// world itself ends only what is of its hosts.
struct Ground {
    explicit Ground(const Size &size);
    Ground(const Ground &) = delete;
    Ground &operator=(const Ground &) = delete;
    ~Ground();
    const Size size;
    FileSystems on_array, plain;

  private:
    void make_array();
    void make_plain();
};

// Writes the changed bytes of a round to a file in each directory, and does not flush them.
void change_data(const Size &size, const std::vector<std::string> &directories, int round);

// Runs a program to its end; throws with its output when it fails.
void must_run(const std::vector<std::string> &command);

}  // namespace bench
