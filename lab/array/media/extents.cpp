#include "lab/array/media/extents.h"

#include <linux/fiemap.h>
#include <linux/fs.h>
#include <sys/ioctl.h>

#include <algorithm>

namespace lab {
namespace {

constexpr uint32_t extents_per_call = 512;

// Cuts an extent to the window and counts it from the window's beginning.
void append(std::vector<Extent> *all, const struct fiemap_extent &found, uint64_t offset,
            uint64_t size) {
    if ((found.fe_flags & FIEMAP_EXTENT_UNWRITTEN) != 0) return;  // reads as a hole does
    const uint64_t begin = std::max<uint64_t>(found.fe_logical, offset);
    const uint64_t end = std::min<uint64_t>(found.fe_logical + found.fe_length, offset + size);
    if (begin >= end) return;
    constexpr uint32_t unsettled =
        FIEMAP_EXTENT_UNKNOWN | FIEMAP_EXTENT_DELALLOC | FIEMAP_EXTENT_DATA_INLINE;
    all->push_back({begin - offset, found.fe_physical + (begin - found.fe_logical), end - begin,
                    (found.fe_flags & unsettled) == 0});
}

// A walk over extents and holes by position.
class Cursor {
  public:
    explicit Cursor(const std::vector<Extent> &all) : all_(all) {}

    // The extent at `position`, or null in a hole. Positions only rise.
    const Extent *at(uint64_t position) {
        while (next_ < all_.size() && end_of(all_[next_]) <= position) ++next_;
        if (next_ == all_.size() || all_[next_].logical > position) return nullptr;
        return &all_[next_];
    }
    // Where what is at `position` ends; to be asked after `at`.
    uint64_t end_at(uint64_t position, uint64_t size) const {
        if (next_ == all_.size()) return size;
        const Extent &extent = all_[next_];
        return extent.logical > position ? extent.logical : end_of(extent);
    }

  private:
    static uint64_t end_of(const Extent &extent) { return extent.logical + extent.length; }
    const std::vector<Extent> &all_;
    size_t next_ = 0;
};

bool same(const Extent *one, const Extent *other, uint64_t position) {
    if (one == nullptr || other == nullptr) return one == other;
    return one->settled && other->settled &&
           one->physical + (position - one->logical) ==
               other->physical + (position - other->logical);
}

}  // namespace

std::vector<Extent> extents_of(const Fd &file, uint64_t offset, uint64_t size) {
    std::vector<Extent> all;
    std::vector<char> room(sizeof(struct fiemap) + extents_per_call * sizeof(struct fiemap_extent));
    auto *map = reinterpret_cast<struct fiemap *>(room.data());
    uint64_t position = offset;
    while (position < offset + size) {
        std::fill(room.begin(), room.end(), '\0');
        map->fm_start = position;
        map->fm_length = offset + size - position;
        map->fm_flags = FIEMAP_FLAG_SYNC;
        map->fm_extent_count = extents_per_call;
        if (ioctl(file.get(), FS_IOC_FIEMAP, map) != 0) media_fails("map a file's extents");
        if (map->fm_mapped_extents == 0) break;
        for (uint32_t i = 0; i < map->fm_mapped_extents; ++i) {
            append(&all, map->fm_extents[i], offset, size);
        }
        const struct fiemap_extent &last = map->fm_extents[map->fm_mapped_extents - 1];
        if ((last.fe_flags & FIEMAP_EXTENT_LAST) != 0) break;
        position = last.fe_logical + last.fe_length;
    }
    return all;
}

uint64_t differing_tracks(const std::vector<Extent> &one, const std::vector<Extent> &other,
                          uint64_t size) {
    Cursor first(one), second(other);
    uint64_t tracks = 0, next_track = 0;  // tracks below next_track have been counted
    for (uint64_t position = 0; position < size;) {
        const bool equal = same(first.at(position), second.at(position), position);
        const uint64_t end =
            std::min({first.end_at(position, size), second.end_at(position, size), size});
        if (!equal) {
            const uint64_t from = std::max(position / track_size, next_track);
            const uint64_t to = (end + track_size - 1) / track_size;
            if (to > from) tracks += to - from;
            next_track = std::max(next_track, to);
        }
        position = end;
    }
    return tracks;
}

}  // namespace lab
