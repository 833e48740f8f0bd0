// The array's functions, kind "array": the method asks dlsym for them, and gets these instead.
//
// What a plan may say here: "fail" and "fail_after" answer VALUE (a function that answers a text:
// the null text); after a call whose answer is lost the caller's record is what it was before.
// "lie" with WORD, of an answer that says success:
//   unterminated   texts without an end
//   counts         more entries than the lists hold
//   negative       fewer than none
//   empty          a record of zeros
//   state:N        every pair is in this state
//   text           nothing is done, success is answered: no text, no number, no handle
// A lie that keeps the method asking for ever is ended after VALUE calls of the site: the process
// is ended, after the note "waits".
#include <dlfcn.h>

#include <cstdlib>
#include <cstring>
#include <type_traits>

#include "include/symapi.h"
#include "proof/agent/sites.h"

namespace {

constexpr char kind[] = "array";

using Lookup = void *(void *, const char *);

Lookup *real_lookup() {
    static Lookup *const found = [] {
        void *address = dlvsym(RTLD_NEXT, "dlsym", "GLIBC_2.34");
        if (address == nullptr) address = dlvsym(RTLD_NEXT, "dlsym", "GLIBC_2.2.5");
        return reinterpret_cast<Lookup *>(address);
    }();
    return found;
}

// The record that a function fills; others fill none.
template <class... Arguments>
SymDevice *record_of(Arguments... arguments) {
    SymDevice *record = nullptr;
    const auto take = [&record](auto argument) {
        if constexpr (std::is_same_v<decltype(argument), SymDevice *>) record = argument;
    };
    (take(arguments), ...);
    return record;
}

template <size_t Size>
void without_end(char (&text)[Size]) {
    for (size_t i = strnlen(text, Size); i < Size; ++i) text[i] = 'x';
}

void without_end(SymBcvInfo *entry) {
    without_end(entry->dev_serial_id);
    without_end(entry->dev_sym_devname);
    without_end(entry->dev_dgname);
    without_end(entry->bcvdev_serial_id);
    without_end(entry->bcvdev_sym_devname);
    without_end(entry->bcvdev_dgname);
}

void without_end(SymDevice *device) {
    without_end(device->vendor_id);
    without_end(device->product_id);
    without_end(device->product_rev);
    without_end(device->symid);
    without_end(device->device_serial_id);
    without_end(device->sym_devname);
    without_end(device->pdevname);
    without_end(device->dgname);
    without_end(device->ldevname);
    for (SymBcvInfo &entry : device->bcvs) without_end(&entry);
    for (auto &port : device->ports) without_end(port);
}

void tell_lie(const char *word, SymDevice *device) {
    if (strcmp(word, "empty") == 0) memset(device, 0, sizeof *device);
    if (strcmp(word, "unterminated") == 0) without_end(device);
    if (strcmp(word, "counts") == 0) device->bcv_count = device->port_count = INT32_MAX;
    if (strcmp(word, "negative") == 0) device->bcv_count = device->port_count = -1;
    if (strncmp(word, "state:", 6) == 0) {
        for (SymBcvInfo &entry : device->bcvs) entry.bcv_pair_state = atol(word + 6);
    }
}

template <class Result>
Result answer(long value) {
    if constexpr (std::is_pointer_v<Result>)
        return nullptr;
    else
        return static_cast<Result>(value);
}

constexpr size_t more_than_bounded = 300;

void end_when_it_waits(size_t met) {
    if (met < more_than_bounded) return;
    agent::note("waits");
    agent::end();
}

bool mute;  // the array has no texts for its codes

// What stands in front of one function.
template <class Function>
struct Front;

template <class Result, class... Arguments>
struct Front<Result(Arguments...)> {
    template <auto *Real, const char *Name>
    static Result call(Arguments... arguments) {
        static size_t met;
        const agent::Order order = agent::at(kind, Name);
        if (order.fate != agent::Fate::go_on) end_when_it_waits(++met);
        if (strcmp(order.word, "mute") == 0) mute = true;
        if constexpr (std::is_pointer_v<Result>) {
            if (mute) return nullptr;
        }
        switch (order.fate) {
        case agent::Fate::fail:
            return answer<Result>(order.value);
        case agent::Fate::fail_after: {
            SymDevice *record = record_of(arguments...);
            SymDevice before = {};
            if (record != nullptr) before = *record;
            (*Real)(arguments...);
            if (record != nullptr) *record = before;
            return answer<Result>(order.value);
        }
        case agent::Fate::kill_after:
            (*Real)(arguments...);
            agent::end();
        case agent::Fate::lie: {
            if (strcmp(order.word, "nothing") == 0) return answer<Result>(0);
            const Result result = (*Real)(arguments...);
            if (SymDevice *record = record_of(arguments...); record != nullptr) {
                tell_lie(order.word, record);
            }
            return result;
        }
        default:
            return (*Real)(arguments...);
        }
    }
};

struct Entry {
    const char *name;
    void *front;
    void (*keep)(void *real);
};

#define TF_SYMAPI_UNBOUND(mask, name)
#define TF_SYMAPI_FUNCTION(mask, name)       \
    constexpr char name_of_##name[] = #name; \
    decltype(&name) real_##name;
#include "symapi/symapi_functions.def"
#undef TF_SYMAPI_FUNCTION

const Entry entries[] = {
#define TF_SYMAPI_FUNCTION(mask, name)                                                            \
    {#name, reinterpret_cast<void *>(&Front<decltype(name)>::call<&real_##name, name_of_##name>), \
     [](void *real) { real_##name = reinterpret_cast<decltype(&name)>(real); }},
#include "symapi/symapi_functions.def"
#undef TF_SYMAPI_FUNCTION
};
#undef TF_SYMAPI_UNBOUND

}  // namespace

extern "C" __attribute__((visibility("default"))) void *dlsym(void *handle, const char *name) {
    // What asks relative to itself has to be asked for from its own place in the line, which a jump
    // keeps; this library is the last one preloaded, so that the next one is the same for both.
    if (strncmp(name, "Sym", 3) != 0 || !agent::watches(kind) ||
        !agent::in_library(__builtin_return_address(0))) {
        return real_lookup()(handle, name);
    }
    void *real = real_lookup()(handle, name);
    for (const Entry &entry : entries) {
        if (real == nullptr || strcmp(entry.name, name) != 0) continue;
        entry.keep(real);
        return entry.front;
    }
    return real;
}
