// The host's own name, and whether another name is this host's too.
#include <arpa/inet.h>
#include <ifaddrs.h>
#include <netdb.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstdint>
#include <cstdlib>
#include <cstring>

#include "tessera_host.h"

namespace {

struct AddressList {
    AddressList() = default;
    ~AddressList() {
        if (first != nullptr) freeaddrinfo(first);
    }
    AddressList(const AddressList &) = delete;
    AddressList &operator=(const AddressList &) = delete;
    addrinfo *first = nullptr;
};

struct InterfaceList {
    InterfaceList() = default;
    ~InterfaceList() {
        if (first != nullptr) freeifaddrs(first);
    }
    InterfaceList(const InterfaceList &) = delete;
    InterfaceList &operator=(const InterfaceList &) = delete;
    ifaddrs *first = nullptr;
};

// An address in one form: version 4 in the version 6 form that is defined for it.
bool take_address(const sockaddr *from, in6_addr *address) {
    if (from == nullptr) return false;
    if (from->sa_family == AF_INET6) {
        sockaddr_in6 v6 = {};
        memcpy(&v6, from, sizeof v6);
        *address = v6.sin6_addr;
        return true;
    }
    if (from->sa_family != AF_INET) return false;
    sockaddr_in v4 = {};
    memcpy(&v4, from, sizeof v4);
    *address = {};
    address->s6_addr[10] = address->s6_addr[11] = 0xff;
    memcpy(&address->s6_addr[12], &v4.sin_addr, sizeof v4.sin_addr);
    return true;
}

// 127.0.0.0/8 and ::1 are this host's whether or not an interface carries them.
bool is_loopback(const in6_addr &address) {
    return IN6_IS_ADDR_LOOPBACK(&address) ||
           (IN6_IS_ADDR_V4MAPPED(&address) && address.s6_addr[12] == 127);
}

bool is_on_an_interface(const in6_addr &address, const ifaddrs *interfaces) {
    for (const ifaddrs *i = interfaces; i != nullptr; i = i->ifa_next) {
        in6_addr own;
        if (take_address(i->ifa_addr, &own) && memcmp(&own, &address, sizeof own) == 0) return true;
    }
    return false;
}

// The C library's name service ends the process where its own beginnings find no memory, so it is
// asked only while there is more than enough.
bool has_memory_to_resolve() {
    constexpr size_t more_than_enough = 1 << 20;
    void *const volatile reserve = malloc(more_than_enough);
    free(reserve);
    return reserve != nullptr;
}

}  // namespace

int tq_gethostname(char *name, size_t size) {
    char whole[HOST_NAME_MAX + 1];
    if (gethostname(whole, sizeof whole) != 0) return -1;
    whole[HOST_NAME_MAX] = '\0';
    // A cut name would be another host's.
    if (Q_strlcpy(name, whole, size) < size) return 0;
    errno = ENAMETOOLONG;
    return -1;
}

int qnet_is_local_host(const char *name) {
    if (name == nullptr || name[0] == '\0') return 0;
    // The own name needs no resolver, which may not know it or not be there.
    char own[HOST_NAME_MAX + 1];
    if (tq_gethostname(own, sizeof own) == 0 && strcasecmp(own, name) == 0) return 1;

    addrinfo hints = {};
    hints.ai_family = AF_UNSPEC;
    hints.ai_socktype = SOCK_STREAM;  // one answer an address, not one a protocol
    AddressList addresses;
    InterfaceList interfaces;
    if (!has_memory_to_resolve()) return 0;
    if (getaddrinfo(name, nullptr, &hints, &addresses.first) != 0) return 0;
    if (getifaddrs(&interfaces.first) != 0) interfaces.first = nullptr;
    for (const addrinfo *a = addresses.first; a != nullptr; a = a->ai_next) {
        in6_addr address;
        if (!take_address(a->ai_addr, &address)) continue;
        if (is_loopback(address) || is_on_an_interface(address, interfaces.first)) return 1;
    }
    return 0;
}
