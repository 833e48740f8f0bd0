// What the mount look-up keeps: its cache, how it is filled, and when it goes.
#include <malloc.h>
#include <sys/mount.h>
#include <sys/wait.h>

#include "tests/method/mount_fixture.h"
#include "tests/support/allocation_faults.h"

namespace {

// Runs behind the destructors of all static objects: in the child of one test the exit status says
// whether the cache was empty by then.
constexpr int cache_was_freed = 42;
bool looks_at_the_cache_at_the_end = false;
[[gnu::destructor]] void look_at_the_cache() {
    if (looks_at_the_cache_at_the_end && mnttab_cached_list == nullptr) _exit(cache_was_freed);
}

class MountCache : public test::MountLookup {};

TEST_F(MountCache, the_cache_lists_each_device_once_newest_first) {
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

TEST_F(MountCache, without_memory_for_an_entry_the_table_is_read_again_next_time) {
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

TEST_F(MountCache, without_memory_for_a_devices_first_line_its_second_one_is_kept) {
    test::write_mount_table("/dev/first /tmp ext4 rw 0 0\n/dev/second /tmp/sub xfs rw 0 0\n");
    test::fail_allocation(1);
    EXPECT_EQ(lookup("/tmp"), "0 /dev/second xfs /tmp/sub");
    EXPECT_EQ(mnttab_cached, 0);
    ASSERT_NE(mnttab_cached_list, nullptr);
    EXPECT_STREQ(mnttab_cached_list->name, "/dev/second");
    EXPECT_EQ(mnttab_cached_list->next, nullptr);
    // The table is read once more, which finds the device in the cache, and then no more.
    EXPECT_EQ(lookup("/tmp"), "0 /dev/second xfs /tmp/sub");
    EXPECT_EQ(mnttab_cached, 1);
    EXPECT_EQ(lookup("/tmp"), "0 /dev/second xfs /tmp/sub");
    EXPECT_EQ(mnttab_cached_list->next, nullptr);
    expect_no_failure();
}

TEST_F(MountCache, a_table_that_breaks_off_is_read_again_next_time) {
    unlink("/etc/mtab");
    test::make_folders("/etc/mtab");
    EXPECT_EQ(lookup("/tmp"), "11");
    EXPECT_EQ(mnttab_cached, 0);
    ASSERT_EQ(rmdir("/etc/mtab"), 0);
    test::write_mount_table("/dev/one /tmp ext4 rw 0 0\n");
    EXPECT_EQ(lookup("/tmp"), "0 /dev/one ext4 /tmp");
    EXPECT_EQ(mnttab_cached, 1);
}

TEST_F(MountCache, the_cache_is_freed_when_the_library_is_unloaded) {
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

TEST_F(MountCache, a_cache_that_was_given_back_is_read_anew) {
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
class ManyMounts : public test::MountLookup {
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
