#include "proof/hostile_names/array.h"

#include <cstring>

#include "method/text.h"
#include "symapi/symapi_session.h"
#include "symapi/symapi_wrappers.h"

namespace hostile {
namespace {

ArrayNames names;

void describe(SymDevice *device) {
    *device = {};
    tf::put(device->vendor_id, "EMC");
    tf::put(device->product_id, "SYMMETRIX");
    tf::put(device->symid, names.symid.c_str());
    tf::put(device->dgname, names.group.c_str());
}

void describe_primary(const char *path, SymDevice *device) {
    describe(device);
    tf::put(device->sym_devname, names.primary.c_str());
    tf::put(device->pdevname, path);
    tf::put(device->ldevname, "DEV001");
    device->bcv_count = 1;
    SymBcvInfo &pair = device->bcvs[0];
    tf::put(pair.dev_serial_id, names.symid.c_str());
    tf::put(pair.dev_sym_devname, names.primary.c_str());
    tf::put(pair.dev_dgname, names.group.c_str());
    tf::put(pair.bcvdev_serial_id, names.symid.c_str());
    tf::put(pair.bcvdev_sym_devname, names.bcv.c_str());
    tf::put(pair.bcvdev_dgname, names.group.c_str());
    pair.bcv_pair_state = names.state;
}

void describe_bcv(SymDevice *device) {
    describe(device);
    tf::put(device->sym_devname, names.bcv.c_str());
    tf::put(device->pdevname, names.bcv_path.c_str());
    tf::put(device->ldevname, "TSR-BCV");
    if (names.port.empty()) return;
    device->port_count = 1;
    tf::put(device->ports[0], names.port.c_str());
}

void control(int action) {
    names.state = action == 2 ? 5 : action == 5 ? 8 : 2;
}

}  // namespace

void bind_array(const ArrayNames &given) {
    names = given;
    p_emc_tf_SymInitV = [](const char *, int, int32_t *session, SymInitOptions *, uint32_t) {
        *session = 7;
        return 0;
    };
    p_emc_tf_SymExit = [](int32_t, int) { return 0; };
    p_emc_tf_SymDiscover = [](int32_t, int) { return 0; };
    p_emc_tf_SymApiVersion = [](uint32_t *number, const char **text) {
        *number = 0x05000000;
        *text = "V5.0.0.0";
        return 0;
    };
    p_emc_tf_SymApiPatch = [](const char **text) {
        *text = "12";
        return 0;
    };
    p_emc_tf_SymPerror = [](int32_t, int) { return "no text"; };
    p_emc_tf_SymErrorSymbol = [](int) { return "SYMAPI"; };
    p_emc_tf_SymPrefsSet = [](int32_t, int, int) { return 0; };
    p_emc_tf_SymPdevSync = [](int32_t, const char *, int) { return 0; };
    p_emc_tf_SymDevSync = [](int32_t, const char *, const char *, int, int) { return 0; };
    p_emc_tf_SymPdevShow = [](int32_t, const char *path, SymDevice *device) {
        describe_primary(path, device);
        return 0;
    };
    p_emc_tf_SymDevShow = [](int32_t, const char *, const char *name, SymDevice *device) {
        if (strcmp(name, "00A1") == 0) {
            if (!names.shows_primary) return 28;
            describe_primary("/dev/qz/rdmp/p0", device);
        } else {
            describe_bcv(device);
        }
        return 0;
    };
    p_emc_tf_SymLdevBcvControl = [](int32_t, const char *, const char *, int action, int) {
        control(action);
        return 0;
    };
    p_emc_tf_SymDevBcvControl = [](int32_t, const char *, const char *, const char *, int action,
                                   int) {
        control(action);
        return 0;
    };
    p_emc_tf_SymDevListBcvControl = [](int32_t, const char *, int, const char *const *,
                                       const char *const *, int action, int, int) {
        control(action);
        return 0;
    };
    sH = 7;
    emc_tf_DSO_open = 1;
    emc_tf_SymVersion = 0x0500;
}

}  // namespace hostile
