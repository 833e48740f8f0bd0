#include "proof/checkpoint_texts/leaks.h"

#include <atomic>
#include <cerrno>
#include <cstddef>

extern "C" {
// The C library's allocator, whoever stands in front of it.
void *__libc_malloc(size_t size);
void *__libc_calloc(size_t count, size_t size);
void *__libc_realloc(void *block, size_t size);
void *__libc_memalign(size_t alignment, size_t size);
void __libc_free(void *block);
}

namespace {

constexpr int growths_of_a_leak = 5;

std::atomic<long> held{0};

void *counted(void *block) {
    if (block != nullptr) ++held;
    return block;
}

}  // namespace

namespace proof {

long blocks_held() {
    return held;
}

long leaked_blocks(const std::function<void()> &action) {
    action();
    long growth = 0;
    for (int time = 0; time < growths_of_a_leak; ++time) {
        const long before = blocks_held();
        action();
        growth = blocks_held() - before;
        if (growth <= 0) return 0;
    }
    return growth;
}

}  // namespace proof

extern "C" {

void *malloc(size_t size) {
    return counted(__libc_malloc(size));
}

void *calloc(size_t count, size_t size) {
    return counted(__libc_calloc(count, size));
}

// A block that grows stays one; one that is given nothing is gone.
void *realloc(void *block, size_t size) {
    void *const grown = __libc_realloc(block, size);
    if (block == nullptr) return counted(grown);
    if (grown == nullptr && size == 0) --held;
    return grown;
}

void *memalign(size_t alignment, size_t size) {
    return counted(__libc_memalign(alignment, size));
}

void *aligned_alloc(size_t alignment, size_t size) {
    return counted(__libc_memalign(alignment, size));
}

int posix_memalign(void **block, size_t alignment, size_t size) {
    *block = counted(__libc_memalign(alignment, size));
    return *block != nullptr ? 0 : ENOMEM;
}

void free(void *block) {
    if (block != nullptr) --held;
    __libc_free(block);
}

}  // extern "C"
