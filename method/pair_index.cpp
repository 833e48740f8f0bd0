#include "method/pair_index.h"

#include <cstring>

namespace tf {
namespace {

uint32_t hash(const char *text) {
    uint32_t value = 2166136261U;
    for (; *text != '\0'; ++text) {
        value = (value ^ static_cast<unsigned char>(*text)) * 16777619U;
    }
    return value ^ (value >> 15);
}

}  // namespace

void PairIndex::clear() {
    memset(buckets_, 0, sizeof buckets_);
    indexed_ = 0;
}

uint32_t PairIndex::find(const char *dev_sym_devname) const {
    uint32_t bucket = hash(dev_sym_devname) % bucket_count;
    while (buckets_[bucket] != 0) {
        const prim_mir_info *held = primmirlist[buckets_[bucket] - 1];
        if (held != nullptr && strcmp(held->dev_sym_devname, dev_sym_devname) == 0) break;
        bucket = (bucket + 1) % bucket_count;
    }
    return bucket;
}

bool PairIndex::contains(const char *dev_sym_devname, int32_t count) {
    if (count > TF_PRIMMIRLIST_SIZE) count = TF_PRIMMIRLIST_SIZE;
    if (count < indexed_) clear();
    for (; indexed_ < count; ++indexed_) {
        const prim_mir_info *pm = primmirlist[indexed_];
        if (pm == nullptr) continue;
        const uint32_t bucket = find(pm->dev_sym_devname);
        if (buckets_[bucket] == 0) buckets_[bucket] = static_cast<int16_t>(indexed_ + 1);
    }
    return buckets_[find(dev_sym_devname)] != 0;
}

int32_t append_pair(prim_mir_info *pm, int32_t count) {
    if (count >= 0 && count < TF_PRIMMIRLIST_SIZE) primmirlist[count] = pm;
    return count + 1;
}

void clear_pairs() {
    memset(primmirlist, 0, sizeof primmirlist);
    prim_mir_info_size = 0;
}

}  // namespace tf
