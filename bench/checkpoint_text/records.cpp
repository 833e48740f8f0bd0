#include "bench/checkpoint_text/records.h"

#include <cstdlib>
#include <cstring>
#include <new>

#include "method/records.h"
#include "method/text.h"

namespace bench {

prim_mir_info *Records::next_device() {
    if (!keeps_ && h.pminfo_list != nullptr) return h.pminfo_list;
    auto *device = static_cast<prim_mir_info *>(calloc(1, sizeof(prim_mir_info)));
    if (device == nullptr) throw std::bad_alloc();
    *tail_ = device;
    tail_ = &device->next;
    return device;
}

Records::Records(int pairs) {
    h.is_rebuilt = 1;
    // On the backup host: no locks, nothing but the text and the array's answers.
    h.is_tgt = 1;
    h.sync_at_start = 2;
    h.object_type = TF_OBJECT_FILE_SYSTEM;
    tf::put(h.mount_point, "/data/oracle/instance1");
    tf::put(h.primary_host, "client1");
    tf::put(h.fstype, "ext4");
    tf::put(h.fs_path, "/data/oracle/instance1");
    tf::put(h.dev_raw_device, "/dev/qz/rdmp/emc0_0001");
    tf::put(h.dev_block_device, "/dev/qz/dmp/emc0_0001");
    for (int i = 0; i < pairs; ++i) {
        prim_mir_info *pm = next_device();
        tf::put(pm->symid, "000184500123");
        tf::put_format(pm->dev_sym_devname, "%04X", static_cast<unsigned>(i));
        tf::put_format(pm->dev_raw_device, "/dev/qz/rdmp/emc0_%04x", static_cast<unsigned>(i));
        tf::put(pm->p_dev_raw_device, pm->dev_raw_device);
        // The one path that the array shows for every mirror: reading puts it there.
        tf::put(pm->bcv_raw_device, "/dev/rdsk/c1t0d0");
        tf::put_format(pm->bcvdev_sym_devname, "%04X", static_cast<unsigned>(i + 0x1000));
        pm->sync_at_end = 1;
        pm->lock_set = 1;
    }
}

Records::~Records() {
    tf::free_devices(h.pminfo_list);
}

bool same(const hdef &one, const hdef &other) {
    std::string first, second;
    const auto put_into = [](std::string &out) {
        return [&out](const char *, const auto &field) {
            if constexpr (std::is_same_v<decltype(field), const int32_t &>)
                out += std::to_string(field) + "\n";
            else
                out += std::string(field) + "\n";
        };
    };
    const auto all = [&](const hdef &h, std::string &out) {
        for_object(h, put_into(out));
        for (const prim_mir_info *pm = h.pminfo_list; pm != nullptr; pm = pm->next) {
            for_device(*pm, put_into(out));
        }
    };
    all(one, first);
    all(other, second);
    return first == second;
}

}  // namespace bench
