// Where a file's bytes lie on the disk below it. Two files that share a block there have the same
// bytes in it, so what a pair would have to move is known without reading it.
#pragma once

#include <cstdint>
#include <vector>

#include "lab/array/media/files.h"

namespace lab {

struct Extent {
    uint64_t logical = 0;  // from the beginning of the window
    uint64_t physical = 0;
    uint64_t length = 0;
    bool settled = true;  // false: not yet on the disk, equal to nothing
};

// The extents of a window of a file, in order; what lies between them are holes.
std::vector<Extent> extents_of(const Fd &file, uint64_t offset, uint64_t size);
// Tracks of a window of `size` bytes in which the two differ.
uint64_t differing_tracks(const std::vector<Extent> &one, const std::vector<Extent> &other,
                          uint64_t size);

}  // namespace lab
