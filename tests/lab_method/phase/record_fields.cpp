#include "tests/lab_method/phase/record_fields.h"

namespace {

class Fields {
  public:
    void add(const char *name, int32_t value) { add(name, std::to_string(value).c_str()); }
    void add(const char *name, const char *value) {
        lines_.push_back(name + (std::string("=") + (value == nullptr ? "(null)" : value)));
    }
    std::vector<std::string> lines() { return std::move(lines_); }

  private:
    std::vector<std::string> lines_;
};

void add_device(Fields &fields, const prim_mir_info &pm) {
    fields.add("pm.symid", pm.symid);
    fields.add("pm.dev_sym_devname", pm.dev_sym_devname);
    fields.add("pm.dev_raw_device", pm.dev_raw_device);
    fields.add("pm.dev_block_device", pm.dev_block_device);
    fields.add("pm.p_dev_raw_device", pm.p_dev_raw_device);
    fields.add("pm.bcv_raw_device", pm.bcv_raw_device);
    fields.add("pm.bcv_block_device", pm.bcv_block_device);
    fields.add("pm.bcv_pdevname", pm.bcv_pdevname);
    fields.add("pm.bcvdev_sym_devname", pm.bcvdev_sym_devname);
    fields.add("pm.dev_raw_uid", pm.dev_raw_uid);
    fields.add("pm.dev_raw_gid", pm.dev_raw_gid);
    fields.add("pm.dev_blk_uid", pm.dev_blk_uid);
    fields.add("pm.dev_blk_gid", pm.dev_blk_gid);
    fields.add("pm.lock_file", pm.lock_file);
    fields.add("pm.issplit", pm.issplit);
    fields.add("pm.sync_at_end", pm.sync_at_end);
    fields.add("pm.lock_set", pm.lock_set);
}

}  // namespace

std::vector<std::string> fields_of(const hdef &h) {
    Fields fields;
    fields.add("sync_at_start", h.sync_at_start);
    fields.add("async_resync", h.async_resync);
    fields.add("backup_copy", h.backup_copy);
    fields.add("is_vol", h.is_vol);
    fields.add("is_mount", h.is_mount);
    fields.add("object_type", h.object_type);
    fields.add("mount_point", h.mount_point);
    fields.add("out_file", h.out_file);
    fields.add("err_file", h.err_file);
    fields.add("vol_group", h.vol_group);
    fields.add("vol_name", h.vol_name);
    fields.add("clone_group", h.clone_group);
    fields.add("primary_host", h.primary_host);
    fields.add("fstype", h.fstype);
    fields.add("transfer_file", h.transfer_file);
    fields.add("is_rebuilt", h.is_rebuilt);
    fields.add("is_tgt", h.is_tgt);
    fields.add("restore", h.restore);
    fields.add("max_snapshots", h.max_snapshots);
    fields.add("reserved", h.reserved);
    fields.add("dgimport", h.dgimport);
    fields.add("keep_fi", h.keep_fi);
    fields.add("fs_path", h.fs_path);
    fields.add("dev_block_device", h.dev_block_device);
    fields.add("dev_raw_device", h.dev_raw_device);
    int32_t devices = 0;
    for (const prim_mir_info *pm = h.pminfo_list; pm != nullptr; pm = pm->next, ++devices)
        add_device(fields, *pm);
    fields.add("devices", devices);
    return fields.lines();
}
