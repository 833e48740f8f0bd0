// Stands in the place of the method: holds a block from its loading to the end of the process.
#include <cstdlib>

namespace {

void *volatile kept;

__attribute__((constructor)) void begin() {
    kept = malloc(100);
}

}  // namespace
