#include "method/mount_lookup.h"

#include <sys/epoll.h>
#include <sys/socket.h>
#include <sys/sysmacros.h>
#include <sys/un.h>

#include <cstring>

#include "method/descriptor.h"
#include "method/text.h"
#include "tests/method/mount_fixture.h"

namespace {

using test::MountLookup;

TEST_F(MountLookup, a_file_a_folder_and_the_mount_point_find_the_device_that_holds_them) {
    test::write_mount_table("/dev/one /tmp ext4 rw 0 0\n/dev/two /dev qzfs rw 0 0\n");
    test::write_file("/tmp/file", "");
    EXPECT_EQ(lookup("/tmp/file"), "0 /dev/one ext4 /tmp");
    EXPECT_EQ(lookup("/tmp/sub"), "0 /dev/one ext4 /tmp");
    EXPECT_EQ(lookup("/tmp"), "0 /dev/one ext4 /tmp");
    EXPECT_EQ(lookup("/dev"), "0 /dev/two qzfs /dev");
    unlink("/tmp/file");
    expect_no_failure();
}

TEST_F(MountLookup, a_pipe_and_a_socket_are_looked_up_by_the_device_that_holds_them) {
    test::write_mount_table("/dev/one /tmp ext4 rw 0 0\n");
    ASSERT_EQ(mkfifo("/tmp/pipe", 0600), 0);
    EXPECT_EQ(lookup("/tmp/pipe"), "0 /dev/one ext4 /tmp");
    const tf::DescriptorOwner end(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    tf::put(address.sun_path, "/tmp/socket");
    ASSERT_EQ(bind(end.get(), reinterpret_cast<sockaddr *>(&address), sizeof address), 0);
    EXPECT_EQ(lookup("/tmp/socket"), "0 /dev/one ext4 /tmp");
    unlink("/tmp/pipe");
    unlink("/tmp/socket");
}

TEST_F(MountLookup, a_link_leads_to_what_it_names) {
    test::write_mount_table("/dev/one /tmp ext4 rw 0 0\n/dev/two /dev qzfs rw 0 0\n");
    ASSERT_EQ(symlink("/dev", "/tmp/link"), 0);
    EXPECT_EQ(lookup("/tmp/link"), "0 /dev/two qzfs /dev");
    unlink("/tmp/link");
}

TEST_F(MountLookup, a_character_device_is_looked_up_by_the_device_that_it_is) {
    test::write_mount_table("/dev/two /dev qzfs rw 0 0\n");
    // The node lies on a mounted device, but is none.
    EXPECT_EQ(lookup("/dev/null"), "11");
    expect_failure(3, "emc_tf__find_mount_device: Cannot find device for /dev/null");
    EXPECT_TRUE(logged("emc_tf__devtomp: Cannot find mount point for device " +
                       std::to_string(makedev(1, 3))));
}

TEST_F(MountLookup, device_nodes_find_their_own_mount_needs_root) {
    if (!test::is_real_root()) GTEST_SKIP() << "mknod needs the machine's root";
    test::write_mount_table("/dev/one /tmp ext4 rw 0 0\n");
    ASSERT_EQ(mknod("/dev/blk", S_IFBLK | 0600, device_of("/tmp")), 0);
    ASSERT_EQ(mknod("/dev/chr", S_IFCHR | 0600, device_of("/tmp")), 0);
    EXPECT_EQ(lookup("/dev/blk"), "0 /dev/one ext4 /tmp");
    EXPECT_EQ(lookup("/dev/chr"), "0 /dev/one ext4 /tmp");
    unlink("/dev/blk");
    unlink("/dev/chr");
}

TEST_F(MountLookup, a_path_that_is_not_there_is_named_with_the_system_error) {
    test::write_mount_table("/dev/one /tmp ext4 rw 0 0\n");
    EXPECT_EQ(lookup("/tmp/none"), "11");
    expect_failure(3,
                   "emc_tf__find_mount_device: Cannot stat() file /tmp/none: "
                   "No such file or directory");
    EXPECT_EQ(mnttab_cached, 0);
}

TEST_F(MountLookup, a_file_of_no_known_type_is_refused) {
    const tf::DescriptorOwner poll(epoll_create1(EPOLL_CLOEXEC));
    const std::string path = "/proc/self/fd/" + std::to_string(poll.get());
    EXPECT_EQ(lookup(path), "11");
    expect_failure(
        3, "emc_tf__find_mount_device: stat() returned unknown device type (0) for " + path);
}

TEST_F(MountLookup, a_missing_mount_table_is_error_4_and_then_the_device_is_not_found) {
    unlink("/etc/mtab");
    EXPECT_EQ(by_device(device_of("/tmp")), "11");
    expect_failure(4, "emc_tf__devtomp: Cannot open mount table: No such file or directory");
    EXPECT_EQ(mnttab_cached, 0);
    EXPECT_EQ(lookup("/tmp"), "11");
    expect_failure(3, "emc_tf__find_mount_device: Cannot find device for /tmp");
    EXPECT_EQ(times_logged("emc_tf__devtomp: Cannot open mount table: No such file or directory"),
              2);
    // A table that appears later is read.
    test::write_mount_table("/dev/one /tmp ext4 rw 0 0\n");
    EXPECT_EQ(lookup("/tmp"), "0 /dev/one ext4 /tmp");
}

TEST_F(MountLookup, a_path_on_an_nfs_mount_is_not_found) {
    test::write_mount_table("server:/x /tmp nfs rw 0 0\n");
    EXPECT_EQ(lookup("/tmp/sub"), "11");
    expect_failure(3, "emc_tf__find_mount_device: Cannot find device for /tmp/sub");
}

TEST_F(MountLookup, autofs_and_lofs_are_passed_over_too) {
    test::write_mount_table("a /tmp autofs rw 0 0\nl /dev lofs rw 0 0\n");
    EXPECT_EQ(lookup("/tmp"), "11");
    EXPECT_EQ(lookup("/dev"), "11");
}

TEST_F(MountLookup, types_are_compared_as_whole_names) {
    test::write_mount_table("server:/x /tmp nfs4 rw 0 0\nx /dev lofs2 rw 0 0\n");
    EXPECT_EQ(lookup("/tmp"), "0 server:/x nfs4 /tmp");
    EXPECT_EQ(lookup("/dev"), "0 x lofs2 /dev");
}

TEST_F(MountLookup, a_device_listed_twice_answers_first_with_the_later_line_then_with_the_earlier) {
    test::write_mount_table(
        "/dev/first /tmp ext4 rw 0 0\n/dev/two /dev qzfs rw 0 0\n"
        "/dev/second /tmp/sub xfs rw 0 0\n");
    EXPECT_EQ(lookup("/tmp"), "0 /dev/second xfs /tmp/sub");
    EXPECT_EQ(lookup("/tmp"), "0 /dev/first ext4 /tmp");
    EXPECT_EQ(lookup("/tmp/sub"), "0 /dev/first ext4 /tmp");
}

TEST_F(MountLookup, the_cache_is_not_refreshed) {
    test::write_mount_table("/dev/one /tmp ext4 rw 0 0\n");
    EXPECT_EQ(lookup("/tmp"), "0 /dev/one ext4 /tmp");
    test::write_mount_table("/dev/other /tmp ext4 rw 0 0\n/dev/two /dev qzfs rw 0 0\n");
    EXPECT_EQ(lookup("/tmp"), "0 /dev/one ext4 /tmp");
    EXPECT_EQ(lookup("/dev"), "11");
    unlink("/etc/mtab");
    EXPECT_EQ(lookup("/tmp"), "0 /dev/one ext4 /tmp");
}

TEST_F(MountLookup, a_device_that_the_cache_lacks_is_7_without_a_message) {
    test::write_mount_table("/dev/one /tmp ext4 rw 0 0\n");
    EXPECT_EQ(by_device(device_of("/tmp")), "0 /dev/one ext4 /tmp");
    test::log_lines().clear();
    EXPECT_EQ(by_device(device_of("/dev")), "7");
    EXPECT_EQ(whole_log(), "");
    expect_no_failure();
    EXPECT_EQ(lookup("/dev"), "11");
    expect_failure(3, "emc_tf__find_mount_device: Cannot find device for /dev");
}

TEST_F(MountLookup, the_first_look_up_of_an_unmounted_device_is_reported) {
    test::write_mount_table("/dev/one /tmp ext4 rw 0 0\n");
    EXPECT_EQ(by_device(123456), "11");
    expect_failure(3, "emc_tf__devtomp: Cannot find mount point for device 123456");
    EXPECT_EQ(mnttab_cached, 1);
    EXPECT_EQ(by_device(123456), "7");
}

TEST_F(MountLookup, a_folder_that_cannot_be_looked_at_is_a_trace_and_the_scan_goes_on) {
    test::write_mount_table("/dev/gone /tmp/gone ext4 rw 0 0\n/dev/one /tmp ext4 rw 0 0\n");
    EXPECT_EQ(lookup("/tmp"), "0 /dev/one ext4 /tmp");
    EXPECT_EQ(whole_log(), "emc_tf__devtomp: Cannot stat() file /tmp/gone\n");
}

TEST_F(MountLookup, the_trace_needs_level_2) {
    set_level(1);
    test::write_mount_table("/dev/gone /tmp/gone ext4 rw 0 0\n/dev/one /tmp ext4 rw 0 0\n");
    lookup("/tmp");
    EXPECT_EQ(whole_log(), "");
}

TEST_F(MountLookup, runs_of_slashes_in_a_device_name_collapse) {
    test::write_mount_table("/dev/qz/dsk//dg////vol/ /tmp ext4 rw 0 0\n");
    EXPECT_EQ(lookup("/tmp"), "0 /dev/qz/dsk/dg/vol/ ext4 /tmp");
    EXPECT_EQ(lookup("/tmp"), "0 /dev/qz/dsk/dg/vol/ ext4 /tmp");
}

TEST_F(MountLookup, a_device_name_one_shorter_than_the_buffer_fits) {
    test::write_mount_table("/dev/abc /tmp ext4 rw 0 0\n");
    EXPECT_EQ(lookup("/tmp", 9), "0 /dev/abc ext4 /tmp");
}

TEST_F(MountLookup, a_device_name_as_long_as_the_buffer_quotes_line_1181) {
    test::write_mount_table("/dev/abc /tmp ext4 rw 0 0\n");
    EXPECT_EQ(lookup("/tmp", 8), "11");
    expect_failure(1, "emc_tf__find_mount_device: Memory allocation failure at line 1181");
}

TEST_F(MountLookup, the_length_that_counts_is_the_one_before_slashes_collapse) {
    test::write_mount_table("/dev//abc /tmp ext4 rw 0 0\n");
    EXPECT_EQ(lookup("/tmp", 9), "11");
    EXPECT_EQ(lookup("/tmp", 10), "0 /dev/abc ext4 /tmp");
}

TEST_F(MountLookup, a_buffer_without_room_for_anything_is_not_written) {
    test::write_mount_table("/dev/abc /tmp ext4 rw 0 0\n");
    EXPECT_EQ(lookup("/tmp", 0), "11");
    expect_failure(1, "emc_tf__find_mount_device: Memory allocation failure at line 1181");
}

// The cut comes before the test of the length, so that no name is too long for a buffer of 1024.
TEST_F(MountLookup, a_device_name_of_1024_characters_or_more_is_cut_rather_than_refused) {
    for (const size_t length : {1023U, 1024U, 2000U}) {
        tf::clear_mount_cache();
        const std::string name = "/dev/" + std::string(length - 5, 'n');
        const std::string kept = name.substr(0, 1023);
        test::write_mount_table(name + " /tmp ext4 rw 0 0\n");
        EXPECT_EQ(lookup("/tmp"), "0 " + kept + " ext4 /tmp") << length;
        ASSERT_NE(mnttab_cached_list, nullptr);
        EXPECT_EQ(mnttab_cached_list->name, kept);
        EXPECT_EQ(lookup("/tmp"), "0 " + kept + " ext4 /tmp") << length << " from the cache";
        expect_no_failure();
        EXPECT_EQ(lookup("/tmp", 1023), "11");
        expect_failure(1, "emc_tf__find_mount_device: Memory allocation failure at line 1181");
        errnum = 0;
        tf::put(errmsg, "no message");
    }
}

TEST_F(MountLookup, texts_are_cut_to_the_callers_buffers) {
    test::write_mount_table("/dev/one /tmp ext4 rw 0 0\n");
    char dir[3], name[5], type[2];
    for (int i = 0; i < 2; ++i) {
        memset(dir, '~', sizeof dir);
        memset(name, '~', sizeof name);
        memset(type, '~', sizeof type);
        EXPECT_EQ(emc_tf__devtomp(device_of("/tmp"), dir, sizeof dir, name, sizeof name, type,
                                  sizeof type),
                  0);
        EXPECT_STREQ(dir, "/t");
        EXPECT_STREQ(name, "/dev");
        EXPECT_STREQ(type, "e");
    }
}

TEST_F(MountLookup, the_cache_alone_answers_1_or_0) {
    test::write_mount_table("/dev/one /tmp ext4 rw 0 0\n");
    char dir[64] = "", name[64] = "", type[64] = "";
    const auto find = [&](uint64_t dev) {
        return ol_devtomp_find(dev, dir, sizeof dir, name, sizeof name, type, sizeof type);
    };
    EXPECT_EQ(find(device_of("/tmp")), 0);
    EXPECT_STREQ(dir, "");
    lookup("/tmp");
    EXPECT_EQ(find(device_of("/tmp")), 1);
    EXPECT_EQ(find(device_of("/dev")), 0);
    EXPECT_STREQ(name, "/dev/one");
}

}  // namespace
