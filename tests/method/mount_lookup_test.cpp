#include "method/mount_lookup.h"

#include <malloc.h>
#include <sys/epoll.h>
#include <sys/mount.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include "method/descriptor.h"
#include "method/text.h"
#include "tests/support/allocation_faults.h"
#include "tests/support/method_fixture.h"
#include "tests/support/private_root.h"

namespace {

// Runs behind the destructors of all static objects: in the child of one test the exit status says
// whether the cache was empty by then.
constexpr int cache_was_freed = 42;
bool looks_at_the_cache_at_the_end = false;
[[gnu::destructor]] void look_at_the_cache() {
    if (looks_at_the_cache_at_the_end && mnttab_cached_list == nullptr) _exit(cache_was_freed);
}

uint64_t device_of(const std::string &path) {
    struct stat status = {};
    EXPECT_EQ(stat(path.c_str(), &status), 0) << path;
    return status.st_dev;
}

class MountLookup : public test::Method {
  protected:
    MountLookup() {
        test::make_folders("/tmp/sub");
        // Every test begins like a fresh process: a table that is read anew and, since the cache
        // knows no refresh, one whose devices it has not met yet.
        if (mnttab_cached_list != nullptr) fresh = false;
    }
    ~MountLookup() override { rmdir("/tmp/sub"); }

    void SetUp() override {
        if (!fresh) GTEST_SKIP() << "the mount table of this process has been read; run by ctest";
    }

    // "STATUS DEVICE TYPE DIRECTORY" of a path.
    std::string lookup(const std::string &path, size_t device_size = 1024) {
        char type[64] = "", dir[64] = "";
        std::string device(device_size + 1, '~');
        const int32_t result = emc_tf__find_mount_device(path.c_str(), device.data(), device_size,
                                                         type, sizeof type, dir, sizeof dir);
        EXPECT_EQ(device.back(), '~') << "written behind the buffer";
        if (result != 0) return std::to_string(result);
        return "0 " + std::string(device.c_str()) + " " + type + " " + dir;
    }
    std::string by_device(uint64_t dev) {
        char dir[64] = "", name[64] = "", type[64] = "";
        const int32_t result =
            emc_tf__devtomp(dev, dir, sizeof dir, name, sizeof name, type, sizeof type);
        if (result != 0) return std::to_string(result);
        return "0 " + std::string(name) + " " + type + " " + dir;
    }

    bool fresh = true;
};

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

TEST_F(MountLookup, the_cache_lists_each_device_once_newest_first) {
    test::write_mount_table(
        "/dev/one /tmp ext4 rw 0 0\n/dev/two /dev qzfs rw 0 0\n/dev/three /tmp/sub xfs rw 0 0\n");
    lookup("/tmp");
    ASSERT_NE(mnttab_cached_list, nullptr);
    EXPECT_STREQ(mnttab_cached_list->name, "/dev/two");
    EXPECT_EQ(mnttab_cached_list->dev, device_of("/dev"));
    ASSERT_NE(mnttab_cached_list->next, nullptr);
    EXPECT_STREQ(mnttab_cached_list->next->name, "/dev/one");
    EXPECT_STREQ(mnttab_cached_list->next->dir, "/tmp");
    EXPECT_STREQ(mnttab_cached_list->next->type, "ext4");
    EXPECT_EQ(mnttab_cached_list->next->next, nullptr);
}

TEST_F(MountLookup, without_memory_for_an_entry_the_table_is_read_again_next_time) {
    test::write_mount_table("/dev/one /tmp ext4 rw 0 0\n/dev/two /dev qzfs rw 0 0\n");
    test::fail_allocation(1);
    // The answer is there all the same; the entry is not cached, the next one is.
    EXPECT_EQ(lookup("/tmp"), "0 /dev/one ext4 /tmp");
    expect_no_failure();
    EXPECT_EQ(mnttab_cached, 0);
    ASSERT_NE(mnttab_cached_list, nullptr);
    EXPECT_STREQ(mnttab_cached_list->name, "/dev/two");
    EXPECT_EQ(mnttab_cached_list->next, nullptr);
    test::write_mount_table("/dev/new /tmp ext4 rw 0 0\n/dev/changed /dev qzfs rw 0 0\n");
    EXPECT_EQ(lookup("/tmp"), "0 /dev/new ext4 /tmp");
    EXPECT_EQ(mnttab_cached, 1);
    EXPECT_EQ(lookup("/dev"), "0 /dev/two qzfs /dev");
}

TEST_F(MountLookup, a_table_that_breaks_off_is_read_again_next_time) {
    unlink("/etc/mtab");
    test::make_folders("/etc/mtab");
    EXPECT_EQ(lookup("/tmp"), "11");
    EXPECT_EQ(mnttab_cached, 0);
    ASSERT_EQ(rmdir("/etc/mtab"), 0);
    test::write_mount_table("/dev/one /tmp ext4 rw 0 0\n");
    EXPECT_EQ(lookup("/tmp"), "0 /dev/one ext4 /tmp");
    EXPECT_EQ(mnttab_cached, 1);
}

TEST_F(MountLookup, the_cache_is_freed_when_the_library_is_unloaded) {
    test::write_mount_table("/dev/one /tmp ext4 rw 0 0\n/dev/two /dev qzfs rw 0 0\n");
    EXPECT_EQ(lookup("/tmp"), "0 /dev/one ext4 /tmp");
    fflush(nullptr);
    const pid_t child = fork();
    if (child == 0) {
        looks_at_the_cache_at_the_end = true;
        exit(0);
    }
    int status = 0;
    ASSERT_EQ(waitpid(child, &status, 0), child);
    ASSERT_TRUE(WIFEXITED(status));
    EXPECT_EQ(WEXITSTATUS(status), cache_was_freed);
}

TEST_F(MountLookup, a_cache_that_was_given_back_is_read_anew) {
    test::write_mount_table("/dev/one /tmp ext4 rw 0 0\n");
    EXPECT_EQ(lookup("/tmp"), "0 /dev/one ext4 /tmp");
    test::write_mount_table("/dev/two /tmp ext4 rw 0 0\n");
    EXPECT_EQ(lookup("/tmp"), "0 /dev/one ext4 /tmp");
    tf::clear_mount_cache();
    EXPECT_EQ(mnttab_cached, 0);
    EXPECT_EQ(mnttab_cached_list, nullptr);
    EXPECT_EQ(lookup("/tmp"), "0 /dev/two ext4 /tmp");
}

// Devices of their own, as many as a test wants: enough for the index.
class ManyMounts : public MountLookup {
  protected:
    void mount_devices(int count) {
        std::string table;
        for (; mounted < count; ++mounted) {
            const std::string dir = "/tmp/m" + std::to_string(mounted);
            test::make_folders(dir);
            ASSERT_EQ(mount("tmpfs", dir.c_str(), "tmpfs", 0, "size=4k"), 0);
            table += "/dev/d" + std::to_string(mounted) + " " + dir + " ext4 rw 0 0\n";
        }
        test::write_mount_table(table);
    }
    ~ManyMounts() override {
        for (int i = 0; i < mounted; ++i) {
            const std::string dir = "/tmp/m" + std::to_string(i);
            umount(dir.c_str());
            rmdir(dir.c_str());
        }
    }
    void expect_all_found() {
        for (int i = 0; i < mounted; ++i) {
            const std::string dir = "/tmp/m" + std::to_string(i);
            EXPECT_EQ(lookup(dir), "0 /dev/d" + std::to_string(i) + " ext4 " + dir);
        }
        EXPECT_EQ(lookup("/tmp"), "11");
    }
    int mounted = 0;
};

TEST_F(ManyMounts, every_device_of_a_long_table_is_found) {
    // The index is made twice: for the thirty-third entry and, larger, for the hundred and
    // twenty-ninth.
    mount_devices(140);
    test::no_more_faults();
    lookup("/tmp/m0");
    EXPECT_EQ(test::allocations_seen(), 140 + 2);
    expect_all_found();
    test::no_more_faults();
    expect_all_found();
    EXPECT_EQ(test::allocations_seen(), 0);
}

TEST_F(ManyMounts, a_cache_that_is_given_back_gives_its_index_back) {
    mount_devices(33);
    const auto read_and_give_back = [this] {
        lookup("/tmp/m0");
        tf::clear_mount_cache();
    };
    // What the C library keeps for later it has after the first times.
    for (int i = 0; i < 8; ++i) read_and_give_back();
    const size_t before = mallinfo2().uordblks;
    constexpr size_t rounds = 16, smallest_index = 128 * sizeof(void *);
    for (size_t i = 0; i < rounds; ++i) read_and_give_back();
    EXPECT_LT(mallinfo2().uordblks, before + rounds / 2 * smallest_index);
}

TEST_F(ManyMounts, without_memory_for_the_index_the_list_is_searched) {
    mount_devices(33);
    // The thirty-third entry is the first that asks for an index.
    test::fail_allocation(34);
    lookup("/tmp/m0");
    EXPECT_EQ(test::allocations_seen(), 34);
    test::no_more_faults();
    EXPECT_EQ(mnttab_cached, 1);
    expect_all_found();
    EXPECT_EQ(test::allocations_seen(), 0);
}

TEST_F(ManyMounts, an_index_that_could_not_be_made_is_made_with_a_later_entry) {
    mount_devices(40);
    test::fail_allocation(34);
    lookup("/tmp/m0");
    expect_all_found();
    // Forty entries, the index that failed and the one that did not.
    EXPECT_EQ(test::allocations_seen(), 42);
}

}  // namespace
