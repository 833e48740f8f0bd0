// The list of file systems to be locked.
#include <gtest/gtest.h>

#include <cerrno>
#include <string>

#include "tests/snap/snap_fixture.h"
#include "tests/support/allocation_faults.h"

namespace {

using test::Snap;

class LockList : public Snap {
  protected:
    int add(const char *name, const char *type) {
        return add_to_lock_list(name, type, &first, &count);
    }

    FS_LOCK_REC before = {};
    FS_LOCK_REC *first = &before;
    int32_t count = -5;
};

TEST_F(LockList, begins_empty) {
    EXPECT_EQ(first_fs_locklist_rec, nullptr);
    EXPECT_EQ(last_fs_locklist_rec, nullptr);
    EXPECT_EQ(fs_locklist_rec, nullptr);
    EXPECT_EQ(num_fs_lock_entries, 0);
    EXPECT_EQ(check_lock_list("/data"), 0);
}

TEST_F(LockList, the_first_record_is_both_ends) {
    EXPECT_EQ(add("/data", "ufs"), 0);
    EXPECT_EQ(count, 1);
    EXPECT_EQ(num_fs_lock_entries, 1);
    EXPECT_EQ(first, first_fs_locklist_rec);
    EXPECT_EQ(first, last_fs_locklist_rec);
    EXPECT_EQ(first, fs_locklist_rec);
    EXPECT_STREQ(first->name, "/data");
    EXPECT_STREQ(first->type, "ufs");
    EXPECT_EQ(first->state, 0);
    EXPECT_EQ(first->fd, -1);
    EXPECT_EQ(first->next, nullptr);
}

TEST_F(LockList, further_records_are_appended) {
    add("/one", "ufs");
    EXPECT_EQ(add("/two", "qzfs"), 0);
    EXPECT_EQ(count, 2);
    EXPECT_STREQ(first->name, "/one");
    EXPECT_STREQ(first->next->name, "/two");
    EXPECT_EQ(first->next, last_fs_locklist_rec);
    EXPECT_EQ(first->next, fs_locklist_rec);
}

TEST_F(LockList, a_name_may_stand_in_the_list_twice) {
    add("/one", "ufs");
    EXPECT_EQ(add("/one", "ufs"), 0);
    EXPECT_EQ(count, 2);
}

TEST_F(LockList, only_the_whole_name_is_in_the_list) {
    add("/one", "ufs");
    add("/two", "ufs");
    EXPECT_EQ(check_lock_list("/one"), 1);
    EXPECT_EQ(check_lock_list("/two"), 1);
    EXPECT_EQ(check_lock_list("/tw"), 0);
    EXPECT_EQ(check_lock_list("/two2"), 0);
    EXPECT_EQ(check_lock_list(""), 0);
    EXPECT_EQ(happened(), "");
}

TEST_F(LockList, a_null_name_is_not_in_the_list) {
    EXPECT_EQ(check_lock_list(nullptr), 0);
    EXPECT_EQ(happened(), "Invalid filesystem name\n");
}

TEST_F(LockList, a_null_name_or_type_gives_1_and_changes_nothing) {
    EXPECT_EQ(add(nullptr, "ufs"), 1);
    EXPECT_EQ(add("/one", nullptr), 1);
    EXPECT_EQ(happened(), "Invalid filesystem name\nInvalid filesystem name\n");
    EXPECT_EQ(first, &before);
    EXPECT_EQ(count, -5);
    EXPECT_EQ(num_fs_lock_entries, 0);
}

TEST_F(LockList, another_type_gives_1_and_leaves_list_and_count_unchanged) {
    add("/one", "ufs");
    for (const char *type : {"ext4", "ufs2", "qzf", ""}) {
        test::events().clear();
        EXPECT_EQ(add("/two", type), 1);
        EXPECT_EQ(happened(), std::string("Invalid filesystem type ") + type + "\n");
    }
    EXPECT_EQ(num_fs_lock_entries, 1);
    EXPECT_EQ(count, 1);
    EXPECT_EQ(first_fs_locklist_rec->next, nullptr);
}

TEST_F(LockList, a_record_without_memory_gives_12_and_changes_nothing) {
    test::fail_allocation(1);
    EXPECT_EQ(add("/one", "ufs"), 12);
    EXPECT_EQ(happened(), "FS_LOCK_REC malloc failed, errno = " + std::to_string(ENOMEM) + "\n");
    EXPECT_EQ(first, &before);
    EXPECT_EQ(num_fs_lock_entries, 0);
}

TEST_F(LockList, a_name_is_cut_to_1023_characters) {
    const std::string name(2000, 'n');
    add(name.c_str(), "ufs");
    EXPECT_EQ(first->name, name.substr(0, 1023));
    EXPECT_EQ(check_lock_list(name.substr(0, 1023).c_str()), 1);
    EXPECT_EQ(check_lock_list(name.c_str()), 0);
}

}  // namespace
