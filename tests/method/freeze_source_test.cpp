// What the source of a freeze is, and the disk group it is entered in.
#include "method/mount_lookup.h"
#include "tests/method/freeze_fixture.h"
#include "tests/method/name_mapping.h"

namespace {

using namespace test;

class FreezeSource : public FreezeTest {
  protected:
    // A block device as source, with its raw twin.
    int32_t freeze_block(const std::string &path) {
        make_node(path, S_IFBLK);
        return freeze(nullptr, path.c_str());
    }
    static std::string cannot_tell(const std::string &device) {
        return "TimeFinder_freeze: Cannot determine if device " + device + " is a volume";
    }
};

#define NEEDS_NODES() \
    if (!is_real_root()) GTEST_SKIP() << "needs root to make device nodes"

TEST_F(FreezeSource, a_missing_source_is_reported_with_the_systems_reason) {
    EXPECT_EQ(freeze(nullptr, "/missing"), 11);
    expect_given_up(3, "TimeFinder_freeze: Cannot stat() file /missing: No such file or directory");
    EXPECT_EQ(client_count, 0);
    EXPECT_EQ(total_freeze_volumes, 0);
    EXPECT_EQ(emc_clients, 1);
}

TEST_F(FreezeSource, a_null_source_is_the_empty_path) {
    EXPECT_EQ(freeze(nullptr, nullptr), 11);
    expect_given_up(3, "TimeFinder_freeze: Cannot stat() file : No such file or directory");
}

TEST_F(FreezeSource, a_character_device_is_the_raw_device_as_root) {
    NEEDS_NODES();
    make_node(raw_disk, S_IFCHR);
    ASSERT_EQ(freeze(nullptr, raw_disk), 0) << errmsg;
    EXPECT_EQ(handle->object_type, 1);
    EXPECT_STREQ(handle->dev_raw_device, raw_disk);
    EXPECT_STREQ(handle->dev_block_device, block_disk);
    EXPECT_STREQ(handle->fstype, "");
    EXPECT_STREQ(handle->fs_path, raw_disk);
}

TEST_F(FreezeSource, a_raw_device_that_cannot_be_mapped_is_named_as_root) {
    NEEDS_NODES();
    make_node(raw_disk, S_IFCHR);
    fail_allocation(3);  // behind the object's and the device's record
    EXPECT_EQ(freeze(nullptr, raw_disk), 11);
    no_more_faults();
    expect_given_up(3,
                    "TimeFinder_freeze: Cannot map raw device /dev/qz/rdmp/disk_0 to block device");
}

TEST_F(FreezeSource, a_block_device_is_the_block_device_as_root) {
    NEEDS_NODES();
    ASSERT_EQ(freeze_block(block_disk), 0) << errmsg;
    EXPECT_EQ(handle->object_type, 2);
    EXPECT_STREQ(handle->dev_raw_device, raw_disk);
    EXPECT_STREQ(handle->dev_block_device, block_disk);
    EXPECT_STREQ(handle->fstype, "");
}

TEST_F(FreezeSource, a_link_to_a_device_is_followed_but_keeps_its_name_as_root) {
    NEEDS_NODES();
    make_node(block_disk, S_IFBLK);
    ASSERT_EQ(symlink(block_disk, "/dev/link_to_disk"), 0);
    add_pair("0002", "/dev/link_to_disk");
    ASSERT_EQ(freeze(nullptr, "/dev/link_to_disk"), 0) << errmsg;
    EXPECT_EQ(handle->object_type, 2);
    EXPECT_STREQ(handle->dev_block_device, "/dev/link_to_disk");
}

TEST_F(FreezeSource, a_path_whose_mount_is_unknown_is_named_behind_the_lookups_report) {
    write_mount_table("");
    EXPECT_EQ(freeze(), 11);
    expect_given_up(3, "TimeFinder_freeze: Cannot find block device for /data");
    EXPECT_TRUE(logged("emc_tf__find_mount_device: Cannot find device for /data"));
}

TEST_F(FreezeSource, a_plain_disk_path_fails_the_volume_test_as_root) {
    NEEDS_NODES();
    EXPECT_EQ(freeze_block("/dev/sdb"), 11);
    expect_given_up(3, cannot_tell("/dev/sdb"));
}

TEST_F(FreezeSource, a_device_name_of_12_characters_fails_the_volume_test) {
    mount_device("/dev/abcdefg");
    EXPECT_EQ(freeze(), 11);
    expect_given_up(3, cannot_tell("/dev/abcdefg"));
}

TEST_F(FreezeSource, a_device_name_of_13_characters_passes_the_volume_test) {
    mount_device("/dev/abcdefgh");
    write_file("/dev/abcdefgh", "");
    add_pair("0002", "/dev/abcdefgh");
    ASSERT_EQ(freeze(), 0) << errmsg;
    EXPECT_STREQ(handle->vol_group, "__NOT_VOL__GRP__");
}

TEST_F(FreezeSource, a_volume_prefix_without_its_slash_is_no_volume) {
    mount_device("/dev/qz/dskX/group/vol");
    write_file("/dev/qz/dskX/group/vol", "");
    write_file("/dev/qz/rdskX/group/vol", "");
    add_pair("0002", "/dev/qz/rdskX/group/vol");
    ASSERT_EQ(freeze(), 0) << errmsg;
    EXPECT_EQ(handle->is_vol, 0);
    EXPECT_STREQ(handle->vol_group, "__NOT_VOL__GRP__");
}

TEST_F(FreezeSource, without_memory_for_the_group_nothing_stays_listed) {
    // Records, then the group and the member: the path is looked up through the mount cache, whose
    // node is one allocation as well.
    for (int n = 4; n <= 5; ++n) {
        log_lines().clear();
        mnttab_cached = 0;
        fail_allocation(n);
        EXPECT_EQ(freeze(), 11);
        no_more_faults();
        expect_given_up(1, std::string("dg_insert: Memory allocation failure at line ") +
                               (n == 4 ? "319" : "334"));
        // From now on the cache has its node already.
        if (n == 4) {
            log_lines().clear();
            fail_allocation(4);
            EXPECT_EQ(freeze(), 11);
            no_more_faults();
            expect_given_up(1, "dg_insert: Memory allocation failure at line 334");
            break;
        }
    }
}

TEST_F(FreezeSource, without_memory_for_a_volumes_group_no_tool_is_run) {
    mount_device("/dev/qz/dsk/datadg/vol1");
    clone_tool_answers(std::string(raw_disk) + "\n");
    fail_allocation(4);
    EXPECT_EQ(freeze(), 11);
    no_more_faults();
    expect_given_up(1, "dg_insert: Memory allocation failure at line 319");
    EXPECT_EQ(clone_tool_runs(), "");
}

TEST_F(FreezeSource, a_volume_without_a_name_fails_the_volume_test) {
    mount_device("/dev/qz/dsk/datadg");
    EXPECT_EQ(freeze(), 11);
    expect_given_up(3, cannot_tell("/dev/qz/dsk/datadg"));
}

TEST_F(FreezeSource, a_volume_without_a_group_fails_the_volume_test) {
    mount_device("/dev/qz/dsk//");
    // The lookup makes one slash of two, and what is left is too short for a volume.
    EXPECT_EQ(freeze(), 11);
    expect_given_up(3, cannot_tell("/dev/qz/dsk/"));
}

TEST_F(FreezeSource, a_block_device_that_cannot_be_mapped_is_named) {
    fail_block_mapping();
    EXPECT_EQ(freeze(), 11);
    expect_given_up(3,
                    "TimeFinder_freeze: Cannot map block device /dev/qz/dmp/disk_0 to raw device");
}

TEST_F(FreezeSource, without_memory_for_a_volumes_group_nothing_stays_listed) {
    mount_device("/dev/qz/dsk/datadg/vol1");
    clone_tool_answers(std::string(raw_disk) + "\n");
    // Records, the node of the mount cache, then the group and its member.
    for (const int n : {4, 5}) {
        log_lines().clear();
        mnttab_cached = 0;
        tf::clear_mount_cache();
        fail_allocation(n);
        EXPECT_EQ(freeze(), 11);
        no_more_faults();
        expect_given_up(1, std::string("dg_insert: Memory allocation failure at line ") +
                               (n == 4 ? "319" : "334"));
        EXPECT_FALSE(exists("/tool/arguments")) << "the tool was asked";
    }
}

TEST_F(FreezeSource, a_volume_with_an_empty_name_fails_the_volume_test) {
    mount_device("/dev/qz/dsk/datadg/");
    EXPECT_EQ(freeze(), 11);
    expect_given_up(3, cannot_tell("/dev/qz/dsk/datadg/"));
}

TEST_F(FreezeSource, group_and_volume_are_the_first_two_components) {
    mount_device("/dev/qz/dsk/datadg/vol1/more");
    clone_tool_answers(std::string(raw_disk) + "\n");
    ASSERT_EQ(freeze(), 0) << errmsg;
    EXPECT_STREQ(handle->vol_group, "datadg");
    EXPECT_STREQ(handle->vol_name, "vol1");
    EXPECT_EQ(handle->is_vol, 1);
    ASSERT_NE(dg_find("datadg"), nullptr);
    EXPECT_EQ(dg_find("datadg")->vol_count, 1);
}

TEST_F(FreezeSource, empty_components_of_a_volume_name_are_passed_over_as_root) {
    NEEDS_NODES();
    make_node("/dev/qz/dsk/datadg/vol1", S_IFBLK);
    clone_tool_answers(std::string(raw_disk) + "\n");
    ASSERT_EQ(freeze(nullptr, "/dev/qz/dsk///datadg//vol1"), 0) << errmsg;
    EXPECT_STREQ(handle->vol_group, "datadg");
    EXPECT_STREQ(handle->vol_name, "vol1");
    EXPECT_STREQ(handle->dev_block_device, "/dev/qz/dsk///datadg//vol1");
    EXPECT_STREQ(handle->dev_raw_device, "/dev/qz/rdsk///datadg//vol1");
}

}  // namespace
