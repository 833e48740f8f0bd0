// Calls of the host library that answer what no machine shows on demand.
#pragma once

#include <ifaddrs.h>
#include <netdb.h>

#include <cstddef>
#include <functional>
#include <optional>
#include <string>
#include <vector>

namespace test {

struct ReplacedCalls {
    // What the kernel's mount table holds; the real one when there is none.
    std::optional<std::string> mount_table;
    // The call of this name that fails: the n-th from now on (1 is the next one).
    std::string failing;
    int failing_call = 1;
    // What happens before a program is waited for.
    std::function<void()> before_waiting;
    // The text of every system error; the real one when there is none.
    std::optional<std::string> error_text;
    // The addresses of the interfaces, in version 4's dotted form; "" is an interface without one.
    std::optional<std::vector<std::string>> interfaces;
    // What the resolver, the kernel's list of interfaces and its host name answer instead.
    std::function<int(const char *name, addrinfo **answer)> resolver;
    std::function<int(ifaddrs **answer)> interface_list;
    std::function<int(char *name, size_t size)> host_name;
    // Every address that a name has is of a family that nobody knows.
    bool strange_addresses = false;
};

// The one set of this process; tests put it back to ReplacedCalls().
ReplacedCalls &replaced();

}  // namespace test
