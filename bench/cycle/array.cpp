// An array that answers at once: pairs by number, states in a table.
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "bench/cycle/calls.h"
#include "bench/cycle/pairs.h"
#include "method/text.h"
#include "symapi/symapi_session.h"
#include "symapi/symapi_wrappers.h"

namespace bench {
namespace {

constexpr long split = 5, synchronised = 2, restored = 8;
constexpr int cut = 2, restore = 5;  // every other action establishes

long states[most_pairs];

// A primary's number; BCVs have those behind all primaries.
int number_of(const char *name) {
    return static_cast<int>(strtol(name, nullptr, 16));
}

void fill(SymDevice *device, int number) {
    static const SymDevice empty = {};
    *device = empty;
    tf::put(device->vendor_id, "EMC");
    tf::put(device->product_id, "SYMMETRIX");
    tf::put(device->symid, array_id);
    tf::put(device->dgname, "DG");
    tf::put_format(device->sym_devname, "%04X", static_cast<unsigned>(number));
    const bool is_bcv = number >= most_pairs;
    if (is_bcv) {
        tf::put(device->ldevname, "TSR-BCV");
        tf::put_format(device->pdevname, "/dev/rdsk/c1t%dd%d", number / 64, number % 64);
        return;
    }
    tf::put_format(device->pdevname, raw_device_format, number);
    device->bcv_count = 1;
    SymBcvInfo &info = device->bcvs[0];
    tf::put(info.dev_serial_id, array_id);
    tf::put(info.dev_sym_devname, device->sym_devname);
    tf::put(info.dev_dgname, "DG");
    tf::put(info.bcvdev_serial_id, array_id);
    tf::put_format(info.bcvdev_sym_devname, "%04X", static_cast<unsigned>(number + most_pairs));
    tf::put(info.bcvdev_dgname, "DG");
    info.bcv_pair_state = states[number];
}

int init(const char *, int, int32_t *session, SymInitOptions *, uint32_t) {
    record_array_call(Kind::SymInitV);
    *session = 7;
    return 0;
}
int leave(int32_t, int) {
    record_array_call(Kind::SymExit);
    return 0;
}
int version(uint32_t *number, const char **text) {
    record_array_call(Kind::other_array_call);
    *number = 0x05000000;
    *text = "V5.0.0.0";
    return 0;
}
int prefs(int32_t, int, int) {
    record_array_call(Kind::other_array_call);
    return 0;
}
int discover(int32_t, int) {
    record_array_call(Kind::other_array_call);
    return 0;
}
int pdev_sync(int32_t, const char *, int) {
    record_array_call(Kind::SymPdevSync);
    return 0;
}
int pdev_show(int32_t, const char *path, SymDevice *device) {
    record_array_call(Kind::SymPdevShow, path);
    const char *digits = path + strcspn(path, "0123456789");
    fill(device, atoi(digits));
    return 0;
}
int dev_sync(int32_t, const char *, const char *, int, int) {
    record_array_call(Kind::SymDevSync);
    return 0;
}
int dev_show(int32_t, const char *, const char *name, SymDevice *device) {
    record_array_call(Kind::SymDevShow, name);
    fill(device, number_of(name));
    return 0;
}
void control(const char *name, int action) {
    const long after = action == cut ? split : action == restore ? restored : synchronised;
    states[number_of(name)] = after;
}
int list_control(int32_t, const char *, int count, const char *const *names, const char *const *,
                 int action, int, int) {
    record_array_call(Kind::SymDevListBcvControl, "", "", count);
    for (int i = 0; i < count; ++i) control(names[i], action);
    return 0;
}
int dev_control(int32_t, const char *, const char *name, const char *, int action, int) {
    record_array_call(Kind::SymDevBcvControl, name, "", action);
    control(name, action);
    return 0;
}

}  // namespace

void bind_array() {
    p_emc_tf_SymInitV = init;
    p_emc_tf_SymExit = leave;
    p_emc_tf_SymApiVersion = version;
    p_emc_tf_SymPrefsSet = prefs;
    p_emc_tf_SymDiscover = discover;
    p_emc_tf_SymPdevSync = pdev_sync;
    p_emc_tf_SymPdevShow = pdev_show;
    p_emc_tf_SymDevSync = dev_sync;
    p_emc_tf_SymDevShow = dev_show;
    p_emc_tf_SymDevListBcvControl = list_control;
    p_emc_tf_SymDevBcvControl = dev_control;
    sH = 7;
    emc_tf_DSO_open = 1;
    emc_tf_SymVersion = 0x0500;
}

void set_pair_states(long state) {
    for (long &one : states) one = state;
}

void repeat_array_call(Kind kind, const char *first, const char *, int64_t number) {
    static SymDevice device;
    switch (kind) {
    case Kind::SymPdevShow:
        pdev_show(sH, first, &device);
        return;
    case Kind::SymDevShow:
        dev_show(sH, array_id, first, &device);
        return;
    case Kind::SymDevBcvControl:
        dev_control(sH, array_id, first, "", static_cast<int>(number), 0);
        return;
    case Kind::SymDevListBcvControl:
        for (int64_t i = 0; i < number; ++i) control("0", cut);
        return;
    default:
        return;
    }
}

}  // namespace bench
