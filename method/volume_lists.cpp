#include "method/volume_lists.h"

#include <cstring>

#include "method/report.h"
#include "method/text.h"

namespace {

// The volume manager's limit for names of groups leaves this much before the suffix.
constexpr size_t clone_group_kept = 25;

// The lines of the source that these messages have always quoted.
constexpr int volumes_allocation_line = 372;
constexpr int devices_allocation_line = 1444;

constexpr size_t first_list_size = 2051;
constexpr size_t pair_scratch_size = 1024;
constexpr int longest_further_pair = 514;

// The device list while it grows. Its end is known, so a piece is put behind it without a search.
class DeviceList {
  public:
    bool start() {
        text_.reset(static_cast<char *>(malloc(size_)));
        if (!text_) return false;
        text_.get()[0] = '\0';
        return true;
    }
    bool empty() const { return length_ == 0; }
    char *release() { return text_.release(); }

    int32_t add(const prim_mir_info *pm) {
        if (empty()) return add_first(pm);
        return lists(pm->p_dev_raw_device) ? tf::success : add_further(pm);
    }

  private:
    // A path that is only a part of a listed longer one counts as listed, too. Group listings have
    // always been made so; a path left out here is one that the clone tool never got.
    bool lists(const char *path) const { return strstr(text_.get(), path) != nullptr; }

    static int32_t too_long() {
        return tf::fail(tf::ErrorNumber::operation, tf::msg::device_list_too_long,
                        "get_device_list");
    }

    int32_t add_first(const prim_mir_info *pm) {
        const int length =
            Q_snprintf(text_.get(), size_, "%s,%s", pm->p_dev_raw_device, pm->bcv_pdevname);
        if (length < 0 || static_cast<size_t>(length) >= size_) return too_long();
        length_ = static_cast<size_t>(length);
        return tf::success;
    }

    int32_t add_further(const prim_mir_info *pm) {
        char piece[pair_scratch_size];
        const int length = tf::put_format(piece, ":%s,%s", pm->p_dev_raw_device, pm->bcv_pdevname);
        if (length < 0 || length > longest_further_pair) return too_long();
        if (!make_room(static_cast<size_t>(length))) {
            return tf::fail(tf::ErrorNumber::operation, tf::msg::out_of_memory, "get_device_list");
        }
        memcpy(text_.get() + length_, piece, static_cast<size_t>(length) + 1);
        length_ += static_cast<size_t>(length);
        return tf::success;
    }

    bool make_room(size_t length) {
        size_t wanted = size_;
        while (wanted <= length_ + length) wanted *= 2;
        if (wanted == size_) return true;
        char *const held = text_.release();
        auto *const grown = static_cast<char *>(realloc(held, wanted));
        text_.reset(grown != nullptr ? grown : held);
        if (grown == nullptr) return false;
        size_ = wanted;
        return true;
    }

    tf::HeapOwner<char> text_;
    size_t size_ = first_list_size;
    size_t length_ = 0;
};

// Room for every member's volume name and the character behind it.
size_t volume_list_size(const dg_entry *dg) {
    size_t size = 0;
    for (const dg_member *member = dg->members; member != nullptr; member = member->next) {
        size += strlen(member->h->vol_name) + 1;
    }
    return size;
}

}  // namespace

// A clone group's name has at most 31 characters whatever the names of host and group are; two
// groups that agree in the part that is kept share a name, and existing clones are found under it.
void create_clone_group_name(hdef *h, int32_t with_host) {
    if (with_host != 0) {
        tf::put_format(h->clone_group, "%s_%s", h->primary_host, h->vol_group);
    } else {
        tf::put_format(h->clone_group, "%s", h->vol_group);
    }
    h->clone_group[clone_group_kept] = '\0';
    Q_strlcat(h->clone_group, "_clone", sizeof h->clone_group);
}

int32_t get_dg_vols(const dg_entry *dg, char **out) {
    *out = nullptr;
    if (dg->members == nullptr) {
        return tf::fail(tf::ErrorNumber::disk_group, tf::msg::group_has_no_volumes, "get_dg_vols",
                        dg->dg_name);
    }
    const size_t size = volume_list_size(dg);
    auto *const volumes = static_cast<char *>(calloc(size, 1));
    if (volumes == nullptr) {
        return tf::fail(tf::ErrorNumber::memory, tf::msg::no_memory, "get_dg_vols",
                        volumes_allocation_line);
    }
    size_t length = 0;
    for (const dg_member *member = dg->members; member != nullptr; member = member->next) {
        if (member != dg->members) volumes[length++] = ',';
        length += Q_strlcpy(volumes + length, member->h->vol_name, size - length);
    }
    *out = volumes;
    return tf::success;
}

int32_t form_device_list(const dg_entry *dg, char **out) {
    *out = nullptr;
    DeviceList list;
    if (!list.start()) {
        return tf::fail(tf::ErrorNumber::memory, tf::msg::no_memory, "get_device_list",
                        devices_allocation_line);
    }
    for (const dg_member *member = dg->members; member != nullptr; member = member->next) {
        for (const prim_mir_info *pm = member->h->pminfo_list; pm != nullptr; pm = pm->next) {
            const int32_t result = list.add(pm);
            if (result != tf::success) return result;
        }
    }
    *out = list.release();
    return tf::success;
}
