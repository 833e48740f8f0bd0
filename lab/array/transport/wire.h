// What passes between a host and the array: a head and a payload in each direction, in the memory
// layout of the machine that both run on.
//
// A request's payload is a row of texts, each closed by a NUL. A reply's payload depends on the
// function: a SymDevice for the show calls, texts for the others. Shared by the daemon and the
// client library: no exceptions, no allocation.
#pragma once

#include <stddef.h>
#include <stdint.h>
#include <sys/uio.h>

namespace lab {

enum Function : uint32_t {
#define LAB_FUNCTION(name) function_##name,
#include "lab/array/transport/functions.def"
#undef LAB_FUNCTION
    function_count
};

struct RequestHead {
    uint32_t magic, size;  // bytes of payload
    uint32_t function;
    int32_t session;
    int32_t numbers[4];
};

struct ReplyHead {
    uint32_t magic, size;  // bytes of payload
    int32_t code;
    int32_t session;  // SymInitV
    uint32_t number;  // SymApiVersion
};

// Changes with the layout of anything above, so that a host with an old library is turned away.
constexpr uint32_t wire_magic = 0x54464132;
constexpr uint32_t max_payload = 1u << 20;

// Where a host finds the array.
constexpr char host_socket[] = "/run/tfarray.sock";

// A connected socket, or -1. Closed on exec.
int connect_to(const char *path);
// All of it or false. A peer that is gone is no signal.
bool send_all(int fd, const void *data, size_t size);
// The same for several pieces, one after the other, which may be sent together. Changes them.
bool send_pieces(int fd, struct iovec *pieces, size_t count);
bool receive_all(int fd, void *data, size_t size);

}  // namespace lab
