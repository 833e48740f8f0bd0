// The method in a library that a test loads and unloads: what it holds must go with it.
#include "method/records.h"
#include "method/text.h"
#include "symapi/symapi_loader.h"

#pragma GCC visibility push(default)
extern "C" int32_t reloaded_open(const char *path);
extern "C" int32_t reloaded_freeze(const char *group);
#pragma GCC visibility pop

int32_t reloaded_open(const char *path) {
    const int32_t result = emc_tf_openSymapiLibrary(path);
    emc_tf_resolveSymapiSymbols(symapi_load_group);
    return result;
}

// Leaves an object with two devices behind, entered twice.
int32_t reloaded_freeze(const char *group) {
    hdef *const h = tf::make_zeroed<hdef>();
    tf::put(h->vol_group, group);
    h->out_file = static_cast<char *>(malloc(100));
    h->err_file = static_cast<char *>(malloc(100));
    h->pminfo_list = tf::make_zeroed<prim_mir_info>();
    h->pminfo_list->next = tf::make_zeroed<prim_mir_info>();
    return dg_insert(h) + dg_insert(h);
}
