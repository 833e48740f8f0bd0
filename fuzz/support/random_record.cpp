#include "fuzz/support/random_record.h"

#include <cstdlib>
#include <cstring>
#include <random>
#include <string>

#include "fuzz/support/checkpoint.h"
#include "fuzz/support/finding.h"
#include "fuzz/support/framework.h"
#include "fuzz/support/machine.h"
#include "include/records.h"
#include "method/records.h"
#include "method/text.h"

namespace fuzz {
namespace {

class Generator {
  public:
    explicit Generator(uint64_t seed) : random_(seed) {}

    int32_t flag() { return pick(2); }
    int32_t integer() { return pick(3) == 0 ? static_cast<int32_t>(random_()) : pick(4); }
    int32_t pick(int n) { return static_cast<int32_t>(random_() % static_cast<unsigned>(n)); }
    // Any text that a line can carry, often a long one, never of a size that is refused.
    template <size_t N>
    void fill(char (&field)[N]) {
        static constexpr char characters[] =
            "abcXYZ0123456789/_-.,:;=#$&|<>()'\"\\ \t*?[]{}~!%\r\x01\x7f\xc3\xa9\xff";
        const size_t length = pick(5) == 0 ? N - 1 : static_cast<size_t>(pick(40)) % N;
        for (size_t i = 0; i < length; ++i) {
            field[i] = characters[static_cast<size_t>(pick(sizeof characters - 1))];
        }
        field[length] = '\0';
    }
    // The name of a device: what makes the array refuse or hide it is left out.
    template <size_t N>
    void name(char (&field)[N]) {
        for (size_t i = 0; i + 1 < N; ++i) field[i] = "0123456789ABCDEF"[pick(16)];
        field[N - 1] = '\0';
    }

  private:
    std::mt19937_64 random_;
};

void fill_object(Generator &g, hdef *h) {
    h->sync_at_start = g.integer();
    h->async_resync = g.integer();
    h->is_vol = g.integer();
    h->is_mount = g.integer();
    h->object_type = g.integer();
    h->keep_fi = g.integer();
    h->dgimport = g.flag();
    h->is_rebuilt = 1;  // no clone step: there is no tool that it could run
    g.fill(h->mount_point);
    g.fill(h->vol_group);
    g.fill(h->vol_name);
    g.fill(h->clone_group);
    g.fill(h->primary_host);
    g.fill(h->fstype);
    g.fill(h->fs_path);
    g.fill(h->dev_raw_device);
    g.fill(h->dev_block_device);
}

void fill_device(Generator &g, prim_mir_info *pm, bool first) {
    g.name(pm->symid);
    g.name(pm->dev_sym_devname);
    g.name(pm->bcvdev_sym_devname);
    g.fill(pm->dev_raw_device);
    // What this host derives anew is not carried over, so it is what this host derives.
    tf::put(pm->p_dev_raw_device, pm->dev_raw_device);
    g.fill(pm->bcv_raw_device);
    pm->sync_at_end = g.integer();
    pm->issplit = g.integer();
    if (!first) return;
    pm->dev_raw_uid = g.integer();
    pm->dev_raw_gid = g.integer();
    pm->dev_blk_uid = g.integer();
    pm->dev_blk_gid = g.integer();
}

// The checkpoint of a random record.
std::string random_text(Generator &g) {
    const Machine machine;
    const Framework framework;
    tf::HeapOwner<hdef> h(tf::make_zeroed<hdef>());
    fill_object(g, h.get());
    prim_mir_info **tail = &h->pminfo_list;
    const int32_t devices = (h->is_vol == 0 ? 1 : 0) + g.pick(4);
    for (int32_t i = 0; i < devices; ++i) {
        *tail = tf::make_zeroed<prim_mir_info>();
        fill_device(g, *tail, i == 0);
        tail = &(*tail)->next;
    }
    char *text = nullptr;
    if (TimeFinder_ckpt(h.get(), &text) != 0) finding("a record has no checkpoint");
    std::string written = text;
    free(text);
    tf::free_devices(h->pminfo_list);
    return written;
}

// Lines whose values come from the array of the rebuilding host.
bool is_derived(const std::string &line) {
    return line.starts_with("PMINFO-bcv_raw_device=");
}

std::string without_derived(const std::string &text) {
    std::string kept;
    for (size_t at = 0; at < text.size();) {
        const size_t end = text.find('\n', at) + 1;
        const std::string line = text.substr(at, end - at);
        if (!is_derived(line)) kept += line;
        at = end;
    }
    return kept;
}

}  // namespace

void round_trip(uint64_t seed) {
    Generator g(seed);
    const std::string text = random_text(g);
    const Rebuilt again = rebuild_and_write(text);
    if (again.status != 0) finding("cannot be rebuilt:\n%s", text.c_str());
    if (without_derived(text) != without_derived(again.text)) {
        finding("changed on the way:\n%s\ninto\n%s", text.c_str(), again.text.c_str());
    }
}

}  // namespace fuzz
