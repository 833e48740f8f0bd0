// The array library's functions as the method calls them: each wrapper passes its arguments to the
// function of the same name and returns its result. Where the library or the function is missing it
// answers 14, or the text "unknown", without a message: an installation that lacks a function
// degrades into an ordinary failed call.
//
// The slots behind them are the seam at which tests put their fakes.
#pragma once

#include <cstdint>

#include "include/symapi.h"

extern "C" {

extern decltype(&SymInitV) p_emc_tf_SymInitV;
extern decltype(&SymExit) p_emc_tf_SymExit;
extern decltype(&SymDiscover) p_emc_tf_SymDiscover;
extern decltype(&SymApiVersion) p_emc_tf_SymApiVersion;
extern decltype(&SymApiPatch) p_emc_tf_SymApiPatch;
extern decltype(&SymPerror) p_emc_tf_SymPerror;
extern decltype(&SymErrorSymbol) p_emc_tf_SymErrorSymbol;
extern decltype(&SymPrefsSet) p_emc_tf_SymPrefsSet;
extern decltype(&SymPdevShow) p_emc_tf_SymPdevShow;
extern decltype(&SymDevShow) p_emc_tf_SymDevShow;
extern decltype(&SymDevSync) p_emc_tf_SymDevSync;
extern decltype(&SymPdevSync) p_emc_tf_SymPdevSync;
extern decltype(&SymLdevBcvControl) p_emc_tf_SymLdevBcvControl;
extern decltype(&SymDevBcvControl) p_emc_tf_SymDevBcvControl;
extern decltype(&SymDevListBcvControl) p_emc_tf_SymDevListBcvControl;
extern decltype(&SymDgBcvControl) p_emc_tf_SymDgBcvControl;
extern decltype(&SymDgShow) p_emc_tf_SymDgShow;
extern decltype(&SymSync) p_emc_tf_SymSync;
extern decltype(&SymFree) p_emc_tf_SymFree;
extern decltype(&SymList) p_emc_tf_SymList;
extern decltype(&SymPdevList) p_emc_tf_SymPdevList;
extern decltype(&SymBcvPdevList) p_emc_tf_SymBcvPdevList;

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
