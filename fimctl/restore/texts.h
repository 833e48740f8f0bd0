// The checkpoint texts of a snapshot as a restore reads and changes them.
#pragma once

#include <string>
#include <vector>

#include "fimctl/checkpoint_text.h"

namespace fimctl {

// One device record of a text.
struct PairLines {
    Pair pair;
    std::string primary, mirror;  // host names at the freeze
    bool wanted = false;          // whether the end of the snapshot works on this pair
};
std::vector<PairLines> pair_lines(const std::string &text);

// The text for a restore. directory: where the object's file system is mounted, "" for a device:
// the method unmounts and mounts at the directory in its record, which is the copy's until a later
// line says otherwise. done: the pairs that were restored before; their records are told not to
// work on them again, since the array refuses a whole call for the sake of one restored pair.
std::string text_for_restore(const std::string &text, const std::string &directory,
                             const std::vector<Pair> &done);

}  // namespace fimctl
