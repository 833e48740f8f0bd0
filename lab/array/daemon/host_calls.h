// What a host asks of the array through its library.
#pragma once

#include <string>
#include <vector>

#include "lab/array/daemon/engine.h"
#include "lab/array/transport/wire.h"

namespace lab {

struct HostCall {
    uint32_t function = 0;
    int32_t session = 0;
    int32_t numbers[4] = {};
    std::vector<std::string> texts;
};

struct HostAnswer {
    int code = 0;
    int32_t session = 0;
    uint32_t number = 0;
    std::string payload;
    int delay_ms = 0;  // send it so much later
};

// `connection` identifies the connection for as long as it lives.
HostAnswer answer_host(Engine *engine, const std::string &host, int connection,
                       const HostCall &call);

// The name of a function, or null for a number that is none.
const char *name_of_function(uint32_t function);

}  // namespace lab
