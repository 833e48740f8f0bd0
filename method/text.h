// Bounded text: the one door through which text enters a fixed buffer.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdlib>

#include "tessera_host.h"

namespace tf {

// Copies text into a fixed array, truncating; the array's own size is the bound. A null text is the
// empty text.
template <size_t N>
inline void put(char (&field)[N], const char *text) {
    Q_strlcpy(field, text != nullptr ? text : "", N);
}

// Formats into a fixed array, truncating.
template <size_t N, class... Args>
[[gnu::always_inline]] inline int put_format(char (&field)[N], const char *format, Args... args) {
    return Q_snprintf(field, N, format, args...);
}

// A zeroed record from malloc's heap, or null.
template <class T>
inline T *make_zeroed() {
    return static_cast<T *>(calloc(1, sizeof(T)));
}

// Gives a block back to malloc at the end of its scope, unless it was released.
template <class T>
class HeapOwner {
  public:
    explicit HeapOwner(T *block = nullptr) : block_(block) {}
    ~HeapOwner() { free(block_); }
    HeapOwner(const HeapOwner &) = delete;
    HeapOwner &operator=(const HeapOwner &) = delete;

    T *get() const { return block_; }
    T *operator->() const { return block_; }
    explicit operator bool() const { return block_ != nullptr; }
    T **out() { return &block_; }  // for functions that hand a block out through a pointer
    T *release() {
        T *block = block_;
        block_ = nullptr;
        return block;
    }
    void reset(T *block = nullptr) {
        free(block_);
        block_ = block;
    }

  private:
    T *block_;
};

}  // namespace tf
