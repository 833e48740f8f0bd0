// The duplicate test of the batch table primmirlist in constant time.
#pragma once

#include <cstdint>

#include "include/records.h"

namespace tf {

// An index over the names (dev_sym_devname) of the first entries of primmirlist. It needs no memory
// beyond itself and keeps itself up to date: entries appended since the last question are taken in,
// and a table that was emptied and filled anew is noticed as long as a question was asked while it
// held fewer entries than before (every append is preceded by one).
class PairIndex {
  public:
    // Whether one of the first count entries of primmirlist has this name. Empty slots are passed
    // over. Only the device name counts, not the array it is on.
    bool contains(const char *dev_sym_devname, int32_t count);

  private:
    static constexpr uint32_t bucket_count = 2 * TF_PRIMMIRLIST_SIZE;

    void clear();
    // The bucket that holds the name, or the free one where it would go.
    uint32_t find(const char *dev_sym_devname) const;

    int16_t buckets_[bucket_count] = {};  // 1 + position in primmirlist; 0 is free
    int32_t indexed_ = 0;                 // entries taken in so far
};

// Appends a record to primmirlist and returns the raised count. A table that is full to its last
// slot is not written; the count rises all the same, so that the caller's limit test trips.
int32_t append_pair(prim_mir_info *pm, int32_t count);
// Empties all slots and sets prim_mir_info_size to 0.
void clear_pairs();

}  // namespace tf
