#include "symapi/symapi_wrappers.h"

#include <algorithm>
#include <type_traits>

#define TF_SYMAPI_FUNCTION(mask, name) decltype(&name) p_emc_tf_##name;
#define TF_SYMAPI_UNBOUND(mask, name) void (*p_emc_tf_##name)();
#include "symapi/symapi_functions.def"
#undef TF_SYMAPI_FUNCTION
#undef TF_SYMAPI_UNBOUND

namespace {

constexpr char text_not_loaded[] = "unknown";

// The arguments' types are the function's own, so a wrapper cannot change what it passes on.
template <class... Parameters>
int call(int (*function)(Parameters...), std::type_identity_t<Parameters>... arguments) {
    return function != nullptr ? function(arguments...) : symapi_not_loaded;
}

template <size_t N>
void terminate(char (&text)[N]) {
    text[N - 1] = '\0';
}

void bound(SymBcvInfo &entry) {
    terminate(entry.dev_serial_id);
    terminate(entry.dev_sym_devname);
    terminate(entry.dev_dgname);
    terminate(entry.bcvdev_serial_id);
    terminate(entry.bcvdev_sym_devname);
    terminate(entry.bcvdev_dgname);
}

// A record is believed as far as its own bounds reach: every text of it gets an end, and no list is
// longer than it can be. Whoever reads a record need not think of it, then.
int bounded(int code, SymDevice *device) {
    if (code != 0 || device == nullptr) return code;
    terminate(device->vendor_id);
    terminate(device->product_id);
    terminate(device->product_rev);
    terminate(device->symid);
    terminate(device->device_serial_id);
    terminate(device->sym_devname);
    terminate(device->pdevname);
    terminate(device->dgname);
    terminate(device->ldevname);
    device->bcv_count = std::clamp<int32_t>(device->bcv_count, 0, SYM_MAX_BCVS);
    for (SymBcvInfo &entry : device->bcvs) bound(entry);
    device->port_count = std::clamp<int32_t>(device->port_count, 0, SYM_MAX_PORTS);
    for (auto &port : device->ports) terminate(port);
    return code;
}

}  // namespace

int emc_tf_SymInitV(const char *db_file, int mode, int32_t *session, SymInitOptions *options,
                    uint32_t api_version) {
    return call(p_emc_tf_SymInitV, db_file, mode, session, options, api_version);
}

int emc_tf_SymExit(int32_t session, int flags) {
    return call(p_emc_tf_SymExit, session, flags);
}

int emc_tf_SymDiscover(int32_t session, int flags) {
    return call(p_emc_tf_SymDiscover, session, flags);
}

int emc_tf_SymApiVersion(uint32_t *number, const char **text) {
    return call(p_emc_tf_SymApiVersion, number, text);
}

int emc_tf_SymApiPatch(const char **text) {
    return call(p_emc_tf_SymApiPatch, text);
}

const char *emc_tf_SymPerror(int32_t session, int code) {
    return p_emc_tf_SymPerror != nullptr ? p_emc_tf_SymPerror(session, code) : text_not_loaded;
}

const char *emc_tf_SymErrorSymbol(int code) {
    return p_emc_tf_SymErrorSymbol != nullptr ? p_emc_tf_SymErrorSymbol(code) : text_not_loaded;
}

int emc_tf_SymPrefsSet(int32_t session, int preference, int value) {
    return call(p_emc_tf_SymPrefsSet, session, preference, value);
}

int emc_tf_SymPdevShow(int32_t session, const char *pdevname, SymDevice *device) {
    return bounded(call(p_emc_tf_SymPdevShow, session, pdevname, device), device);
}

int emc_tf_SymDevShow(int32_t session, const char *symid, const char *sym_devname,
                      SymDevice *device) {
    return bounded(call(p_emc_tf_SymDevShow, session, symid, sym_devname, device), device);
}

int emc_tf_SymDevSync(int32_t session, const char *symid, const char *sym_devname, int scope,
                      int flags) {
    return call(p_emc_tf_SymDevSync, session, symid, sym_devname, scope, flags);
}

int emc_tf_SymPdevSync(int32_t session, const char *pdevname, int scope) {
    return call(p_emc_tf_SymPdevSync, session, pdevname, scope);
}

int emc_tf_SymLdevBcvControl(int32_t session, const char *dgname, const char *ldevname, int action,
                             int options) {
    return call(p_emc_tf_SymLdevBcvControl, session, dgname, ldevname, action, options);
}

int emc_tf_SymDevBcvControl(int32_t session, const char *symid, const char *sym_devname,
                            const char *bcv_sym_devname, int action, int options) {
    return call(p_emc_tf_SymDevBcvControl, session, symid, sym_devname, bcv_sym_devname, action,
                options);
}

int emc_tf_SymDevListBcvControl(int32_t session, const char *symid, int count,
                                const char *const *devnames, const char *const *bcv_devnames,
                                int action, int options, int flags) {
    return call(p_emc_tf_SymDevListBcvControl, session, symid, count, devnames, bcv_devnames,
                action, options, flags);
}

int emc_tf_SymDgBcvControl(int32_t session, const char *dgname, int action, int options) {
    return call(p_emc_tf_SymDgBcvControl, session, dgname, action, options);
}

int emc_tf_SymDgShow(int32_t session, const char *dgname, void *group) {
    return call(p_emc_tf_SymDgShow, session, dgname, group);
}

int emc_tf_SymSync(int32_t session, int scope) {
    return call(p_emc_tf_SymSync, session, scope);
}

int emc_tf_SymFree(void *block) {
    return call(p_emc_tf_SymFree, block);
}

int emc_tf_SymList(int32_t session, void **list) {
    return call(p_emc_tf_SymList, session, list);
}

int emc_tf_SymPdevList(int32_t session, void **list) {
    return call(p_emc_tf_SymPdevList, session, list);
}

int emc_tf_SymBcvPdevList(int32_t session, void **list) {
    return call(p_emc_tf_SymBcvPdevList, session, list);
}
