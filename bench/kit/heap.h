// What the program has on the heap, counted in the allocator's own sizes. Programs that use it are
// linked with --wrap for malloc, calloc, realloc and free (tf_bench(... HEAP)).
#pragma once

#include <cstddef>

namespace bench {

// Bytes that are allocated now.
size_t heap_now();
// The most that were allocated at one time since the last call of heap_mark(), beyond what was
// allocated then.
void heap_mark();
size_t heap_peak_since_mark();

}  // namespace bench
