#include "symapi/symapi_loader.h"

#include <dlfcn.h>

#include <cstring>
#include <iterator>
#include <string_view>

#include "method/log.h"
#include "method/numbers.h"
#include "symapi/symapi_wrappers.h"

const SymapiSymbol emc_tf_symapi_symbols[] = {
#define TF_SYMAPI_FUNCTION(mask, name) {mask, #name, &p_emc_tf_##name},
#define TF_SYMAPI_UNBOUND(mask, name) {mask, #name, &p_emc_tf_##name},
#include "symapi/symapi_functions.def"
#undef TF_SYMAPI_FUNCTION
#undef TF_SYMAPI_UNBOUND
    {0, nullptr, nullptr},
};

void *emc_tf_symapi_base_h;

namespace {

constexpr int32_t cannot_open = 4;
constexpr int32_t symbol_missing = 13;

consteval bool names_ascend() {
    constexpr std::string_view names[] = {
#define TF_SYMAPI_FUNCTION(mask, name) #name,
#define TF_SYMAPI_UNBOUND(mask, name) #name,
#include "symapi/symapi_functions.def"
#undef TF_SYMAPI_FUNCTION
#undef TF_SYMAPI_UNBOUND
    };
    for (size_t i = 1; i < std::size(names); ++i) {
        if (names[i - 1] >= names[i]) return false;
    }
    return true;
}
static_assert(names_ascend(), "symapi_functions.def is kept in ascending order of name");

// The handle variable keeps its value after a close, so what was closed is remembered here: a stale
// handle must reach neither dlsym nor a second dlclose.
void *closed_handle;

bool is_open() {
    return emc_tf_symapi_base_h != nullptr && emc_tf_symapi_base_h != closed_handle;
}

// Without a library nothing is found; dlsym itself would take the null handle for "anywhere in this
// process".
void *find_symbol(const char *name) {
    return is_open() ? dlsym(emc_tf_symapi_base_h, name) : nullptr;
}

// The slots have as many types as there are functions; all are pointers of one size.
void store(const SymapiSymbol &symbol, void *address) {
    static_assert(sizeof address == sizeof p_emc_tf_SymExit);
    memcpy(symbol.slot, &address, sizeof address);
}

// A framework may load and unload the method many times in one process.
__attribute__((destructor)) void close_at_unload() {
    emc_tf_closeSymapiLibrary();
}

}  // namespace

int32_t emc_tf_openSymapiLibrary(const char *path) {
    emc_tf_symapi_base_h = dlopen(path, RTLD_LAZY);
    if (emc_tf_symapi_base_h == nullptr) return cannot_open;
    closed_handle = nullptr;
    return tf::success;
}

int32_t emc_tf_resolveSymapiSymbols(uint32_t mask) {
    int32_t result = tf::success;
    for (int index = 0; emc_tf_symapi_symbols[index].name != nullptr; ++index) {
        const SymapiSymbol &symbol = emc_tf_symapi_symbols[index];
        if ((symbol.mask & mask) == 0) continue;
        void *const address = find_symbol(symbol.name);
        store(symbol, address);
        if (address != nullptr) continue;
        tf::log_trace("NULL location at index %d, symbol='%s' mask=%d", index, symbol.name,
                      static_cast<int>(symbol.mask));
        result = symbol_missing;
    }
    return result;
}

void emc_tf_closeSymapiLibrary() {
    if (is_open()) dlclose(emc_tf_symapi_base_h);
    closed_handle = emc_tf_symapi_base_h;
    for (const SymapiSymbol *symbol = emc_tf_symapi_symbols; symbol->name != nullptr; ++symbol) {
        store(*symbol, nullptr);
    }
}
