// The client library's one connection to the array. No exceptions leave it and it allocates only
// what it says; it may be used by several threads, across fork, and be unloaded at any time.
#pragma once

#include "lab/array/transport/wire.h"

namespace lab {

// A request under construction: the head and its texts.
struct Request {
    RequestHead head;
    char *texts;  // malloc; freed by transact
    size_t capacity;
    bool complete;  // false once there was no memory for a text
};

Request make_request(Function function, int32_t session);
// A null text counts as an empty one.
void add_text(Request *request, const char *text);

// Sends a request and waits for the reply. The payload goes into `payload`, which is cut at
// `size` bytes and filled up with zeros; where `all` is given it goes into a block from malloc
// instead, closed by a NUL. Answers the array's code, or one of the client's own: not_connected,
// answer_lost, bad_request, no_memory.
int transact(Request *request, ReplyHead *reply, void *payload, size_t size, char **all);

}  // namespace lab
