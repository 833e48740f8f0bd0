// In which order objects are rebuilt and ended: the last call's object is checked, mounted and
// mounted again for every file system, so it has to be the right one.
#include "fimctl/restore/order.h"

#include <gtest/gtest.h>

namespace {

using fimctl::RestoreObject;
using fimctl::RestorePlan;

RestoreObject file_system(const std::string &directory, const std::string &fstype,
                          const std::string &group = "datadg") {
    RestoreObject object;
    object.type = fimctl::file_system_object;
    object.directory = directory;
    object.fstype = fstype;
    object.group = group;
    object.source = directory;
    return object;
}

RestoreObject device(const std::string &source, const std::string &group = "datadg") {
    RestoreObject object;
    object.type = 2;
    object.source = source;
    object.group = group;
    return object;
}

RestorePlan ordered(const std::vector<RestoreObject> &objects) {
    RestorePlan plan;
    plan.objects = objects;
    fimctl::order_objects(plan);
    return plan;
}

std::string ends(const RestorePlan &plan) {
    std::string text;
    for (const RestoreObject &object : plan.objects) text += object.source + " ";
    return text;
}

std::string rebuilds(const RestorePlan &plan) {
    std::string text;
    for (const size_t i : plan.rebuild_order) text += plan.objects[i].source + " ";
    return text;
}

TEST(RestoreOrder, a_device_is_never_last_where_there_is_a_file_system) {
    const auto plan = ordered({file_system("/a", "ext4"), device("/dev/v"), device("/dev/w")});
    EXPECT_EQ(ends(plan), "/dev/v /dev/w /a ");
    EXPECT_TRUE(plan.obstacles.empty());
}

TEST(RestoreOrder, devices_alone_need_no_order) {
    const auto plan = ordered({device("/dev/v"), device("/dev/w")});
    EXPECT_EQ(ends(plan), "/dev/v /dev/w ");
    EXPECT_EQ(rebuilds(plan), "/dev/v /dev/w ");
}

TEST(RestoreOrder, one_type_keeps_the_order_of_the_snapshot) {
    const auto plan = ordered({file_system("/a", "ext4"), file_system("/b", "ext4")});
    EXPECT_EQ(ends(plan), "/a /b ");
    EXPECT_EQ(rebuilds(plan), "/a /b ");
}

TEST(RestoreOrder, an_xfs_is_last_beside_ext4_since_only_its_check_takes_both) {
    const auto plan = ordered({file_system("/x", "xfs"), file_system("/a", "ext4")});
    EXPECT_EQ(ends(plan), "/a /x ");
    EXPECT_TRUE(plan.obstacles.empty());
}

TEST(RestoreOrder, extended_file_systems_are_checked_by_one_program) {
    const auto plan = ordered({file_system("/a", "ext4"), file_system("/b", "ext3")});
    EXPECT_TRUE(plan.obstacles.empty());
    EXPECT_TRUE(fimctl::is_checked_as("ext3", "ext4"));
    EXPECT_FALSE(fimctl::is_checked_as("ext4", "xfs"));
    EXPECT_FALSE(fimctl::is_checked_as("xfs", "ext4"));
}

TEST(RestoreOrder, types_that_no_single_check_fits_are_refused) {
    const auto plan = ordered({file_system("/a", "ext4"), file_system("/b", "vfat")});
    ASSERT_EQ(plan.obstacles.size(), 1U);
    EXPECT_NE(plan.obstacles[0].what.find("no single check"), std::string::npos);
}

TEST(RestoreOrder, what_is_mounted_on_another_one_ends_before_it) {
    const auto plan = ordered(
        {file_system("/a", "ext4"), file_system("/a/b/c", "ext4"), file_system("/a/b", "ext4")});
    EXPECT_EQ(ends(plan), "/a/b/c /a/b /a ");
}

TEST(RestoreOrder, an_xfs_that_lies_on_an_ext4_cannot_be_last) {
    const auto plan = ordered({file_system("/a", "ext4"), file_system("/a/x", "xfs")});
    EXPECT_EQ(plan.obstacles.size(), 1U);
}

TEST(RestoreOrder, the_group_of_the_last_object_is_rebuilt_last) {
    // The method walks groups newest first: were the other group newer, its file system would be
    // checked, and the last one mounted, before the last one itself is checked - while mounted.
    const auto plan =
        ordered({file_system("/x", "xfs", "onedg"), file_system("/a", "ext4", "twodg"),
                 file_system("/b", "ext4", "onedg")});
    EXPECT_EQ(ends(plan), "/a /b /x ");
    EXPECT_EQ(rebuilds(plan), "/a /b /x ");
    const auto mixed =
        ordered({file_system("/c/d", "ext4", "onedg"), file_system("/a/b", "ext4", "twodg"),
                 file_system("/e", "ext4", "onedg")});
    EXPECT_EQ(ends(mixed), "/c/d /a/b /e ");
    EXPECT_EQ(rebuilds(mixed), "/a/b /c/d /e ");
}

}  // namespace
