// The array library at run time: opened with dlopen, its functions looked up into one table of
// slots.
//
// Nothing calls a slot directly but the wrappers of symapi_wrappers.h.
#pragma once

#include <cstdint>

#include "include/symapi.h"

// One function of the library.
struct SymapiSymbol {
    uint32_t mask;     // load groups that want it, one bit each; 0: never loaded
    const char *name;  // its symbol
    void *slot;        // the address of its slot in symapi_wrappers.h
};
// All of them in ascending order of name; a row with a null name ends the table.
extern const SymapiSymbol emc_tf_symapi_symbols[];

// The handle from dlopen; keeps its old value after a close.
extern void *emc_tf_symapi_base_h;

// The group in which the method loads.
inline constexpr uint32_t symapi_load_group = 2;

// Opens the library: 0, or 4 with the reason in dlerror.
int32_t emc_tf_openSymapiLibrary(const char *path);
// Looks up every function whose group mask shares a bit with mask: 0, or 13 when one is missing.
int32_t emc_tf_resolveSymapiSymbols(uint32_t mask);
// Closes the library and empties every slot. Called once more when the method is unloaded; a
// library that is closed already is not touched.
void emc_tf_closeSymapiLibrary();
