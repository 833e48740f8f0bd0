// From loading to the first call: the method against a library with nothing in it.
#include <dlfcn.h>

#include <cstdlib>

#include "bench/kit/comparison.h"
#include "include/timefinder.h"

namespace {

// Load, call, unload.
template <class Call>
void use(const char *path, const char *symbol, Call call) {
    void *library = dlopen(path, RTLD_NOW | RTLD_LOCAL);
    if (library == nullptr) abort();
    void *found = dlsym(library, symbol);
    if (found == nullptr) abort();
    call(found);
    dlclose(library);
}

void use_method() {
    use(TF_BINARY_DIR "/lib/libtimefinder_fim.so", "TimeFinder_set_locale", [](void *found) {
        if (reinterpret_cast<decltype(TimeFinder_set_locale) *>(found)("C", "C") != 0) abort();
    });
}
void use_empty() {
    use(TF_BINARY_DIR "/lib/libbench_empty.so", "empty_call", [](void *found) {
        if (reinterpret_cast<int (*)()>(found)() != 0) abort();
    });
}

}  // namespace

int main(int argc, char **argv) {
    // The host product's library is in the framework before any method is.
    if (dlopen(TF_BINARY_DIR "/lib/libtessera_host.so", RTLD_NOW | RTLD_GLOBAL) == nullptr) abort();
    bench::Comparisons all("start-up", argc, argv);
    all.within("load to first call", {"the method", use_method}, {{"an empty library", use_empty}},
               std::nullopt);
    return all.run();
}
