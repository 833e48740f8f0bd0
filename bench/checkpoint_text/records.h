// The records that every variant writes and reads, and the variants beside the method: the same
// fields under the same names, out of the records into a text and back into new records.
#pragma once

#include <string>

#include "include/records.h"

namespace bench {

// One object with its devices; owns them.
struct Records {
    // Filled as a freeze leaves them.
    explicit Records(int pairs);
    // Empty ones, to read into.
    enum class Devices { kept, passed_over };
    explicit Records(Devices devices = Devices::kept) : keeps_(devices == Devices::kept) {}
    ~Records();
    Records(const Records &) = delete;
    Records &operator=(const Records &) = delete;

    // The record that the next device is read into. Where devices are kept it is a new one at the
    // end of the chain, else always the same.
    prim_mir_info *next_device();

    hdef h{};

  private:
    bool keeps_ = true;
    prim_mir_info **tail_ = &h.pminfo_list;
};

// Whether two sets of records hold the same in all fields that a text carries.
bool same(const hdef &one, const hdef &other);

// f(name, field) for each text and each integer of an object or a device that a text carries.
template <class Object, class Fields>
void for_object(Object &h, Fields &&f) {
    f("sync_at_start", h.sync_at_start);
    f("async_resync", h.async_resync);
    f("is_vol", h.is_vol);
    f("is_mount", h.is_mount);
    f("object_type", h.object_type);
    f("mount_point", h.mount_point);
    f("vol_group", h.vol_group);
    f("vol_name", h.vol_name);
    f("clone_group", h.clone_group);
    f("primary_host", h.primary_host);
    f("fstype", h.fstype);
    f("keep_fi", h.keep_fi);
    f("dgimport", h.dgimport);
    f("fs_path", h.fs_path);
    f("dev_raw_device", h.dev_raw_device);
    f("dev_block_device", h.dev_block_device);
    f("is_tgt", h.is_tgt);
}
template <class Device, class Fields>
void for_owners(Device &pm, Fields &&f) {
    f("dev_raw_uid", pm.dev_raw_uid);
    f("dev_raw_gid", pm.dev_raw_gid);
    f("dev_blk_uid", pm.dev_blk_uid);
    f("dev_blk_gid", pm.dev_blk_gid);
}
template <class Device, class Fields>
void for_device(Device &pm, Fields &&f) {
    f("symid", pm.symid);
    f("dev_sym_devname", pm.dev_sym_devname);
    f("dev_raw_device", pm.dev_raw_device);
    f("p_dev_raw_device", pm.p_dev_raw_device);
    f("bcv_raw_device", pm.bcv_raw_device);
    f("bcvdev_sym_devname", pm.bcvdev_sym_devname);
    f("issplit", pm.issplit);
    f("sync_at_end", pm.sync_at_end);
    f("lock_set", pm.lock_set);
}

// A way of writing and reading; both free what they made.
std::string glib_out(const Records &records);
void glib_in(const std::string &text, Records &records);
std::string json_out(const Records &records);
void json_in(const std::string &text, Records &records);
std::string boost_out(const Records &records);
void boost_in(const std::string &text, Records &records);

}  // namespace bench
