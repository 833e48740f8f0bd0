#include "bench/kit/heap.h"

#include <malloc.h>

extern "C" {
void *__real_malloc(size_t size);
void *__real_calloc(size_t count, size_t size);
void *__real_realloc(void *block, size_t size);
void __real_free(void *block);
void *__wrap_malloc(size_t size);
void *__wrap_calloc(size_t count, size_t size);
void *__wrap_realloc(void *block, size_t size);
void __wrap_free(void *block);
}

namespace {

size_t now, marked, peak;

// A block may come from within libc and be freed here, or the other way; below nothing there is
// nothing.
void gone(size_t size) {
    now -= size < now ? size : now;
}
void come(size_t size) {
    now += size;
    if (now > peak) peak = now;
}

}  // namespace

void *__wrap_malloc(size_t size) {
    void *block = __real_malloc(size);
    come(malloc_usable_size(block));
    return block;
}
void *__wrap_calloc(size_t count, size_t size) {
    void *block = __real_calloc(count, size);
    come(malloc_usable_size(block));
    return block;
}
void *__wrap_realloc(void *block, size_t size) {
    const size_t before = malloc_usable_size(block);
    void *grown = __real_realloc(block, size);
    if (grown != nullptr || size == 0) gone(before);
    come(malloc_usable_size(grown));
    return grown;
}
void __wrap_free(void *block) {
    gone(malloc_usable_size(block));
    __real_free(block);
}

namespace bench {

size_t heap_now() {
    return now;
}
void heap_mark() {
    marked = peak = now;
}
size_t heap_peak_since_mark() {
    return peak - marked;
}

}  // namespace bench
