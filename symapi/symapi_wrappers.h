// The array library's functions as the method calls them: each wrapper passes its arguments to the
// function of the same name and returns its result. Where the library or the function is missing it
// answers 14, or the text "unknown", without a message: an installation that lacks a function
// degrades into an ordinary failed call.
//
// The record of a show call that succeeded is bounded on its way: texts without an end get one,
// counts beyond their lists are cut. The library's word is taken for everything else.
//
// The slots behind them are the seam at which tests put their fakes.
#pragma once

#include <cstdint>

#include "include/symapi.h"

// What a wrapper answers without its function; one that gives a text answers "unknown".
inline constexpr int symapi_not_loaded = 14;

extern "C" {

// The slots, one per function; null while the library is not loaded.
#define TF_SYMAPI_FUNCTION(mask, name) extern decltype(&name) p_emc_tf_##name;
#define TF_SYMAPI_UNBOUND(mask, name) extern void (*p_emc_tf_##name)();
#include "symapi/symapi_functions.def"
#undef TF_SYMAPI_FUNCTION
#undef TF_SYMAPI_UNBOUND

#pragma GCC visibility push(default)
int emc_tf_SymInitV(const char *db_file, int mode, int32_t *session, SymInitOptions *options,
                    uint32_t api_version);
int emc_tf_SymExit(int32_t session, int flags);
int emc_tf_SymDiscover(int32_t session, int flags);
int emc_tf_SymApiVersion(uint32_t *number, const char **text);
int emc_tf_SymApiPatch(const char **text);
const char *emc_tf_SymPerror(int32_t session, int code);
const char *emc_tf_SymErrorSymbol(int code);
int emc_tf_SymPrefsSet(int32_t session, int preference, int value);
int emc_tf_SymPdevShow(int32_t session, const char *pdevname, SymDevice *device);
int emc_tf_SymDevShow(int32_t session, const char *symid, const char *sym_devname,
                      SymDevice *device);
int emc_tf_SymDevSync(int32_t session, const char *symid, const char *sym_devname, int scope,
                      int flags);
int emc_tf_SymPdevSync(int32_t session, const char *pdevname, int scope);
int emc_tf_SymLdevBcvControl(int32_t session, const char *dgname, const char *ldevname, int action,
                             int options);
int emc_tf_SymDevBcvControl(int32_t session, const char *symid, const char *sym_devname,
                            const char *bcv_sym_devname, int action, int options);
int emc_tf_SymDevListBcvControl(int32_t session, const char *symid, int count,
                                const char *const *devnames, const char *const *bcv_devnames,
                                int action, int options, int flags);
int emc_tf_SymDgBcvControl(int32_t session, const char *dgname, int action, int options);
int emc_tf_SymDgShow(int32_t session, const char *dgname, void *group);
int emc_tf_SymSync(int32_t session, int scope);
int emc_tf_SymFree(void *block);
int emc_tf_SymList(int32_t session, void **list);
int emc_tf_SymPdevList(int32_t session, void **list);
int emc_tf_SymBcvPdevList(int32_t session, void **list);
#pragma GCC visibility pop

}  // extern "C"
