#include "lab/array/model/describe.h"

#include <algorithm>

namespace lab {
namespace {

// The names have been checked when they were entered; a longer one would be cut, never written over
// its end.
template <size_t size>
void put(char (&field)[size], const std::string &text) {
    const size_t length = std::min(text.size(), size - 1);
    std::copy_n(text.data(), length, field);
    std::fill(field + length, field + size, '\0');
}

SymBcvInfo describe_pair(const World &world, const Pair &pair) {
    const Device &primary = world.device(pair.primary), &bcv = world.device(pair.bcv);
    SymBcvInfo info = {};
    put(info.dev_serial_id, primary.symid);
    put(info.dev_sym_devname, primary.name);
    put(info.dev_dgname, primary.group);
    put(info.bcvdev_serial_id, bcv.symid);
    put(info.bcvdev_sym_devname, bcv.name);
    put(info.bcvdev_dgname, bcv.group);
    info.bcv_pair_state = static_cast<long>(pair.state);
    return info;
}

void describe_paths(const View &view, SymDevice *record) {
    for (const Path &one : view.paths) {
        if (one.port) {
            put(record->ports[record->port_count++], one.path);
        } else if (record->pdevname[0] == '\0') {
            put(record->pdevname, one.path);
        }
    }
}

}  // namespace

SymDevice describe(const World &world, const Device &device, const std::string &host) {
    SymDevice record = {};
    put(record.vendor_id, "EMC");
    put(record.product_id, "SYMMETRIX");
    put(record.product_rev, "5568");
    put(record.symid, device.symid);
    put(record.device_serial_id, device.name);
    put(record.sym_devname, device.name);
    put(record.dgname, device.group);
    put(record.ldevname, device.ldev);
    for (const int64_t id : device.pairs) {
        record.bcvs[record.bcv_count++] = describe_pair(world, world.pair(id));
    }
    if (const View *view = world.view(host, device.id)) describe_paths(*view, &record);
    return record;
}

std::string version_text(uint32_t version) {
    return "V" + std::to_string(version >> 24) + "." + std::to_string(version >> 16 & 0xff) + "-" +
           std::to_string(version & 0xffff);
}

}  // namespace lab
