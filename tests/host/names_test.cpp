// The host's own name and its locality.
#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <ifaddrs.h>
#include <netinet/in.h>
#include <sched.h>
#include <unistd.h>

#include <cstring>
#include <string>

#include "tessera_host.h"
#include "tests/host/replaced_calls.h"
#include "tests/support/allocation_faults.h"
#include "tests/support/private_root.h"

namespace {

struct Names : testing::Test {
    Names() {
        // Only the files decide, so that no case waits for a name server.
        unlink("/etc/nsswitch.conf");
        test::write_file("/etc/nsswitch.conf", "hosts: files\n");
        write_hosts("127.0.0.1 localhost\n");
    }
    ~Names() override { test::replaced() = {}; }
    static void write_hosts(const std::string &text) {
        unlink("/etc/hosts");
        test::write_file("/etc/hosts", text);
    }
    // A host name of this process's own; false without the right to have one.
    static bool rename_host(const char *name) {
        return unshare(CLONE_NEWUTS) == 0 && sethostname(name, strlen(name)) == 0;
    }
    // An address of this machine that is not a loopback one; "" when it has none.
    static std::string own_address() {
        ifaddrs *all = nullptr;
        std::string found;
        if (getifaddrs(&all) != 0) return found;
        for (const ifaddrs *i = all; i != nullptr; i = i->ifa_next) {
            if (i->ifa_addr == nullptr || i->ifa_addr->sa_family != AF_INET) continue;
            sockaddr_in address;
            memcpy(&address, i->ifa_addr, sizeof address);
            char text[INET_ADDRSTRLEN];
            inet_ntop(AF_INET, &address.sin_addr, text, sizeof text);
            if (strncmp(text, "127.", 4) != 0) found = text;
        }
        freeifaddrs(all);
        return found;
    }
};

TEST_F(Names, own_name_is_the_kernel_s) {
    char expected[256], name[256];
    ASSERT_EQ(gethostname(expected, sizeof expected), 0);
    EXPECT_EQ(tq_gethostname(name, sizeof name), 0);
    EXPECT_STREQ(name, expected);
}

TEST_F(Names, own_name_that_does_not_fit_fails) {
    ASSERT_TRUE(rename_host("client1"));
    char name[7];
    EXPECT_NE(tq_gethostname(name, sizeof name), 0);
    char enough[8];
    EXPECT_EQ(tq_gethostname(enough, sizeof enough), 0);
    EXPECT_STREQ(enough, "client1");
}

TEST_F(Names, own_name_is_local_even_when_nothing_resolves_it) {
    ASSERT_TRUE(rename_host("client1"));
    write_hosts("");
    EXPECT_NE(qnet_is_local_host("client1"), 0);
    EXPECT_NE(qnet_is_local_host("CLIENT1"), 0);
    EXPECT_EQ(qnet_is_local_host("client10"), 0);
}

TEST_F(Names, name_of_the_loopback_is_local) {
    write_hosts("127.0.1.1 alias\n::1 alias6\n");
    EXPECT_NE(qnet_is_local_host("alias"), 0);
    EXPECT_NE(qnet_is_local_host("alias6"), 0);
    EXPECT_NE(qnet_is_local_host("127.0.0.1"), 0);
}

TEST_F(Names, name_of_an_interface_s_address_is_local) {
    const std::string address = own_address();
    if (address.empty()) GTEST_SKIP() << "this machine has no address but the loopback's";
    write_hosts(address + " alias\n");
    EXPECT_NE(qnet_is_local_host("alias"), 0);
    EXPECT_NE(qnet_is_local_host(address.c_str()), 0);
    EXPECT_NE(qnet_is_local_host(("::ffff:" + address).c_str()), 0);
}

TEST_F(Names, name_of_another_address_is_not_local) {
    write_hosts("192.0.2.77 backup1\n2001:db8::77 backup6\n");
    EXPECT_EQ(qnet_is_local_host("backup1"), 0);
    EXPECT_EQ(qnet_is_local_host("backup6"), 0);
    EXPECT_EQ(qnet_is_local_host("192.0.2.77"), 0);
}

TEST_F(Names, one_local_address_of_several_is_enough) {
    write_hosts("192.0.2.77 both\n127.0.0.1 both\n");
    EXPECT_NE(qnet_is_local_host("both"), 0);
}

// The name service would end the process.
TEST_F(Names, nothing_is_resolved_without_memory) {
    test::fail_allocation(1);
    EXPECT_EQ(qnet_is_local_host("127.0.0.1"), 0);
    test::no_more_faults();
    EXPECT_NE(qnet_is_local_host("127.0.0.1"), 0);
}

TEST_F(Names, unknown_empty_and_missing_names_are_not_local) {
    EXPECT_EQ(qnet_is_local_host("no-such-host"), 0);
    EXPECT_EQ(qnet_is_local_host(""), 0);
    EXPECT_EQ(qnet_is_local_host(nullptr), 0);
}

TEST_F(Names, every_interface_is_compared_also_behind_one_without_an_address) {
    test::replaced().interfaces = {"198.51.100.7", "", "192.0.2.77", ""};
    EXPECT_NE(qnet_is_local_host("192.0.2.77"), 0);
    EXPECT_NE(qnet_is_local_host("198.51.100.7"), 0);
    EXPECT_NE(qnet_is_local_host("::ffff:192.0.2.77"), 0);
    EXPECT_EQ(qnet_is_local_host("192.0.2.78"), 0);
}

TEST_F(Names, addresses_that_only_look_like_the_loopback_are_not_local) {
    test::replaced().interfaces = {};
    test::replaced().interfaces.emplace();
    for (const char *address :
         {"::", "::2", "::1:0:0:1", "0:0:1::1", "1::1", "::ffff:128.0.0.1", "::fffe:7f00:1",
          "0:0:1::ffff:127.0.0.1", "1::ffff:127.0.0.1", "126.255.255.255"}) {
        EXPECT_EQ(qnet_is_local_host(address), 0) << address;
    }
    for (const char *address : {"::1", "::ffff:127.0.0.1", "127.255.255.255"}) {
        EXPECT_NE(qnet_is_local_host(address), 0) << address;
    }
}

TEST_F(Names, without_the_interfaces_the_loopback_alone_is_local) {
    test::replaced().failing = "getifaddrs";
    EXPECT_EQ(qnet_is_local_host("192.0.2.77"), 0);
    test::replaced().failing_call = 1;
    EXPECT_NE(qnet_is_local_host("127.0.0.1"), 0);
}

TEST_F(Names, without_an_own_name_the_addresses_decide) {
    ASSERT_TRUE(rename_host("client1"));
    char name[256] = "before";
    test::replaced().failing = "gethostname";
    EXPECT_NE(tq_gethostname(name, sizeof name), 0);
    EXPECT_STREQ(name, "before");
    test::replaced().failing_call = 1;
    EXPECT_EQ(qnet_is_local_host("client1"), 0);
    test::replaced().failing_call = 1;
    EXPECT_NE(qnet_is_local_host("localhost"), 0);
}

TEST_F(Names, addresses_of_a_family_that_is_not_known_are_not_local) {
    test::replaced().strange_addresses = true;
    EXPECT_EQ(qnet_is_local_host("127.0.0.1"), 0);
}

}  // namespace
