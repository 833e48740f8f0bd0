// Locality with answers of the resolver and of the kernel that a machine seldom gives.
#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <netpacket/packet.h>

#include <cerrno>
#include <climits>
#include <cstring>
#include <string>

#include "tessera_host.h"
#include "tests/host/replaced_calls.h"

namespace {

// A socket address with the node that carries it in the resolver's answer.
struct Address {
    explicit Address(const char *text) {
        sockaddr_in v4 = {};
        sockaddr_in6 v6 = {};
        if (inet_pton(AF_INET, text, &v4.sin_addr) == 1) {
            v4.sin_family = AF_INET;
            memcpy(&bytes, &v4, sizeof v4);
        } else {
            EXPECT_EQ(inet_pton(AF_INET6, text, &v6.sin6_addr), 1) << text;
            v6.sin6_family = AF_INET6;
            memcpy(&bytes, &v6, sizeof v6);
        }
        node.ai_addr = socket_address();
    }
    Address(const Address &) = delete;
    // The node goes on naming this record's own bytes, not those of one that is soon gone.
    Address &operator=(const Address &other) {
        bytes = other.bytes;
        return *this;
    }
    sockaddr *socket_address() { return reinterpret_cast<sockaddr *>(&bytes); }

    sockaddr_storage bytes = {};
    addrinfo node = {};
};

struct ResolverAnswers : testing::Test {
    ResolverAnswers() {
        test::replaced().resolver = [this](const char *name, addrinfo **answer) {
            asked = name;
            *answer = &address.node;
            return result;
        };
        test::replaced().interface_list = [this](ifaddrs **answer) {
            *answer = &interface;
            return interfaces_result;
        };
        test::replaced().host_name = [](char *name, size_t size) {
            Q_strlcpy(name, "client1", size);
            return 0;
        };
    }
    ~ResolverAnswers() override { test::replaced() = {}; }

    Address address{"192.0.2.7"};
    Address own{"192.0.2.9"};
    ifaddrs interface = {};
    int result = 0, interfaces_result = 0;
    std::string asked = "nothing";
};

TEST_F(ResolverAnswers, name_of_an_interface_s_address_is_local) {
    interface.ifa_addr = own.socket_address();
    EXPECT_EQ(qnet_is_local_host("other"), 0);
    own = Address("192.0.2.7");
    interface.ifa_addr = own.socket_address();
    EXPECT_EQ(qnet_is_local_host("other"), 1);
    EXPECT_EQ(asked, "other");
}

TEST_F(ResolverAnswers, empty_name_and_own_name_are_not_asked) {
    address = Address("127.0.0.1");
    EXPECT_EQ(qnet_is_local_host(""), 0);
    EXPECT_EQ(qnet_is_local_host("client1"), 1);
    EXPECT_EQ(asked, "nothing");
}

TEST_F(ResolverAnswers, interface_without_an_address_is_passed_over) {
    ifaddrs second = {};
    second.ifa_addr = own.socket_address();
    interface.ifa_next = &second;
    EXPECT_EQ(qnet_is_local_host("other"), 0);
    own = Address("192.0.2.7");
    second.ifa_addr = own.socket_address();
    EXPECT_EQ(qnet_is_local_host("other"), 1);
}

TEST_F(ResolverAnswers, interface_s_hardware_address_is_no_internet_address) {
    // Its interface number stands where the other kind has its address.
    sockaddr_ll hardware = {};
    hardware.sll_family = AF_PACKET;
    hardware.sll_ifindex = 1;
    memcpy(&own.bytes, &hardware, sizeof hardware);
    interface.ifa_addr = own.socket_address();
    address = Address("1.0.0.0");
    EXPECT_EQ(qnet_is_local_host("other"), 0);
}

TEST_F(ResolverAnswers, interfaces_that_cannot_be_listed_leave_the_loopback) {
    interface.ifa_addr = address.socket_address();
    interfaces_result = -1;
    EXPECT_EQ(qnet_is_local_host("other"), 0);
    address = Address("127.1.2.3");
    EXPECT_EQ(qnet_is_local_host("other"), 1);
}

TEST_F(ResolverAnswers, loopback_is_local_though_no_interface_carries_it) {
    for (const char *text : {"::1", "127.0.0.1", "127.255.255.254", "::ffff:127.0.0.1"}) {
        address = Address(text);
        EXPECT_EQ(qnet_is_local_host("other"), 1) << text;
    }
    // One that only looks like it.
    for (const char *text : {"2001:db8::7f00:1", "::127.0.0.1", "128.0.0.1", "::2"}) {
        address = Address(text);
        EXPECT_EQ(qnet_is_local_host("other"), 0) << text;
    }
}

TEST_F(ResolverAnswers, own_name_that_the_kernel_keeps_back_fails) {
    test::replaced().host_name = [](char *name, size_t size) {
        Q_strlcpy(name, "stale", size);
        return -1;
    };
    char name[HOST_NAME_MAX + 1] = "untouched";
    EXPECT_EQ(tq_gethostname(name, sizeof name), -1);
    EXPECT_STREQ(name, "untouched");
    address = Address("127.0.0.1");
    EXPECT_EQ(qnet_is_local_host("other"), 1);
}

TEST_F(ResolverAnswers, own_name_without_an_end_gets_one) {
    test::replaced().host_name = [](char *name, size_t size) {
        memset(name, 'x', size);
        return 0;
    };
    char name[2 * HOST_NAME_MAX];
    EXPECT_EQ(tq_gethostname(name, sizeof name), 0);
    EXPECT_EQ(std::string(name), std::string(HOST_NAME_MAX, 'x'));
}

TEST_F(ResolverAnswers, own_name_that_does_not_fit_says_so_in_errno) {
    char name[7];
    errno = 0;
    EXPECT_EQ(tq_gethostname(name, sizeof name), -1);
    EXPECT_EQ(errno, ENAMETOOLONG);
}

}  // namespace
