// Allocations that fail, and the blocks that the shipped libraries hold.
//
// Kind "alloc": malloc, calloc and realloc, those included that the C library makes on behalf of
// the shipped code: the record of a stream, the copy of a name. "fail" is no block and ENOMEM.
#include "proof/agent/allocations.h"

#include <dlfcn.h>
#include <link.h>

#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <iterator>

#include "proof/agent/sites.h"

extern "C" {
// The C library's allocator, whoever stands in front of it.
void *__libc_malloc(size_t size);
void *__libc_calloc(size_t count, size_t size);
void *__libc_realloc(void *block, size_t size);
void __libc_free(void *block);
}

namespace {

constexpr char method_name[] = "libtimefinder_fim.so";
constexpr char host_name[] = "libtessera_host.so";

const char *file_name(const char *path) {
    const char *const slash = strrchr(path, '/');
    return slash != nullptr ? slash + 1 : path;
}

// The object that an address lies in; null when there is none. No lock, no memory.
const link_map *object_of(const void *address) {
    dl_find_object found = {};
    if (_dl_find_object(const_cast<void *>(address), &found) != 0) return nullptr;
    return found.dlfo_link_map;
}

bool is_shipped(const link_map *object) {
    if (object == nullptr || object->l_name == nullptr) return false;
    const char *const name = file_name(object->l_name);
    return strcmp(name, method_name) == 0 || strcmp(name, host_name) == 0;
}

// Where a block was asked for, in words that outlive the library.
struct Place {
    const char *library;
    uintptr_t offset;
};

struct Held {
    void *block;
    Place place;
};

// The blocks by their addresses. The process that the agent is in has one thread.
class HeldBlocks {
  public:
    void add(void *block, const Place &place) {
        if (count_ == most) {
            lost_ = true;
            return;
        }
        size_t slot = slot_of(block);
        while (slots_[slot].block != nullptr && slots_[slot].block != removed()) slot = after(slot);
        slots_[slot] = {block, place};
        ++count_;
    }
    // Forgets a block. Returns whether it was known, and where it was asked for.
    bool remove(void *block, Place *place) {
        if (count_ == 0) return false;
        for (size_t slot = slot_of(block); slots_[slot].block != nullptr; slot = after(slot)) {
            if (slots_[slot].block != block) continue;
            *place = slots_[slot].place;
            slots_[slot].block = removed();
            --count_;
            return true;
        }
        return false;
    }
    void tell() const {
        for (const Held &held : slots_) {
            if (held.block == nullptr || held.block == removed()) continue;
            agent::note("held %s+%zx", held.place.library, static_cast<size_t>(held.place.offset));
        }
        if (lost_) agent::note("held more than could be counted");
    }

  private:
    static constexpr size_t size = 1 << 16;
    static constexpr size_t most = size / 2;

    static void *removed() { return reinterpret_cast<void *>(uintptr_t{1}); }
    static size_t slot_of(const void *block) {
        return (reinterpret_cast<uintptr_t>(block) >> 4) * 0x9e3779b1U % size;
    }
    static size_t after(size_t slot) { return (slot + 1) % size; }

    Held slots_[size] = {};
    size_t count_ = 0;
    bool lost_ = false;
};

HeldBlocks blocks;

bool refused(const char *function) {
    if (!agent::watches("alloc")) return false;
    if (agent::at("alloc", function).fate != agent::Fate::fail) return false;
    errno = ENOMEM;
    return true;
}

}  // namespace

namespace agent {

bool in_shipped(const void *address) {
    return is_shipped(object_of(address));
}

bool is_method(const char *path) {
    return path != nullptr && strcmp(file_name(path), method_name) == 0;
}

void *held(void *block, const void *caller) {
    if (block == nullptr) return nullptr;
    const link_map *const object = object_of(caller);
    if (!is_shipped(object)) return block;
    blocks.add(block, {is_method(object->l_name) ? method_name : host_name,
                       reinterpret_cast<uintptr_t>(caller) - object->l_addr});
    return block;
}

void tell_held() {
    for (const link_map *object = object_of(reinterpret_cast<void *>(&tell_held));
         object != nullptr; object = object->l_next) {
        if (is_shipped(object)) return;
    }
    note("unloaded");
    blocks.tell();
}

}  // namespace agent

extern "C" {

__attribute__((visibility("default"))) void *malloc(size_t size) {
    if (refused("malloc")) return nullptr;
    return agent::held(__libc_malloc(size), __builtin_return_address(0));
}

__attribute__((visibility("default"))) void *calloc(size_t count, size_t size) {
    if (refused("calloc")) return nullptr;
    return agent::held(__libc_calloc(count, size), __builtin_return_address(0));
}

// A block that could not grow is held as before.
__attribute__((visibility("default"))) void *realloc(void *block, size_t size) {
    if (refused("realloc")) return nullptr;
    Place place = {};
    const bool known = blocks.remove(block, &place);
    void *const grown = __libc_realloc(block, size);
    if (known) {
        blocks.add(grown != nullptr ? grown : block, place);
        return grown;
    }
    return agent::held(grown, __builtin_return_address(0));
}

__attribute__((visibility("default"))) void free(void *block) {
    Place place = {};
    blocks.remove(block, &place);
    __libc_free(block);
}

}  // extern "C"
