// Multipath names of a freeze, and the owners of the nodes.
#include "method/text.h"
#include "tests/method/freeze_fixture.h"

namespace {

using namespace test;

// A volume on multipath disks: "/dev/emcpowera" is the array's device 0010 and so on. Native paths
// work when their node exists.
class FreezePaths : public FreezeTest {
  protected:
    FreezePaths() { mount_device("/dev/qz/dsk/datadg/vol1"); }

    SymDevice &multipath(const std::string &name, const std::string &letter,
                         const std::string &own_path, const std::vector<std::string> &ports) {
        SymDevice &device = add_pair(name, own_path).record;
        for (const std::string &port : ports) {
            tf::put(device.ports[device.port_count++], port.c_str());
        }
        // The last "port" is the name by which the array finds the device.
        tf::put(device.ports[device.port_count++], ("/dev/emcpower" + letter).c_str());
        return device;
    }
    static void bring_up(const std::string &path) { write_file(path, ""); }
    static constexpr const char *no_device = "TimeFinder_freeze: No device available for use";
};

TEST_F(FreezePaths, an_active_alternate_port_replaces_the_raw_device) {
    multipath("0010", "a", "/dev/sdb", {"", "/dev/sdc", "/dev/sdd", "/dev/sde"});
    bring_up("/dev/sdd");
    bring_up("/dev/sde");
    clone_tool_answers("/dev/emcpowera\n");
    ASSERT_EQ(freeze(), 0) << errmsg;
    const prim_mir_info *pm = handle->pminfo_list;
    EXPECT_STREQ(pm->dev_raw_device, "/dev/sdd");
    EXPECT_STREQ(pm->p_dev_raw_device, "/dev/emcpowera");
    EXPECT_STREQ(pm->dev_block_device, "/dev/emcpowera");
    EXPECT_TRUE(logged("TimeFinder_freeze: block: /dev/emcpowera, raw: /dev/emcpowera"));
    EXPECT_TRUE(logged("\talternate port=/dev/sdc"));
    EXPECT_TRUE(logged("\talternate port=/dev/sdd"));
    EXPECT_FALSE(logged("\talternate port=/dev/sde"));
    EXPECT_FALSE(logged("\talternate port="));
    EXPECT_EQ(array.calls.front(), "SymPdevShow /dev/emcpowera");
}

TEST_F(FreezePaths, the_own_path_serves_when_no_alternate_port_does) {
    multipath("0010", "a", "/dev/sdb", {"/dev/sdc"});
    bring_up("/dev/sdb");
    clone_tool_answers("/dev/emcpowera\n");
    ASSERT_EQ(freeze(), 0) << errmsg;
    EXPECT_STREQ(handle->pminfo_list->dev_raw_device, "/dev/sdb");
    EXPECT_STREQ(handle->pminfo_list->p_dev_raw_device, "/dev/emcpowera");
}

TEST_F(FreezePaths, an_alternate_port_goes_before_an_active_own_path) {
    multipath("0010", "a", "/dev/sdb", {"/dev/sdc"});
    bring_up("/dev/sdb");
    bring_up("/dev/sdc");
    clone_tool_answers("/dev/emcpowera\n");
    ASSERT_EQ(freeze(), 0) << errmsg;
    EXPECT_STREQ(handle->pminfo_list->dev_raw_device, "/dev/sdc");
}

TEST_F(FreezePaths, a_working_port_of_another_kind_does_not_count) {
    multipath("0010", "a", "/dev/other/own", {"/dev/other/port"});
    bring_up("/dev/other/own");
    bring_up("/dev/other/port");
    clone_tool_answers("/dev/emcpowera\n");
    EXPECT_EQ(freeze(), 11);
    expect_given_up(7, no_device);
}

TEST_F(FreezePaths, without_any_working_path_it_gives_up_with_the_client_counted) {
    multipath("0010", "a", "/dev/sdb", {"/dev/sdc"});
    clone_tool_answers("/dev/emcpowera\n");
    EXPECT_EQ(freeze(), 11);
    expect_given_up(7, no_device);
    EXPECT_EQ(client_count, 1);
    EXPECT_EQ(total_freeze_volumes, 0);
    EXPECT_TRUE(array.calls_of("SymExit").empty());
}

TEST_F(FreezePaths, an_earlier_working_device_lets_a_dead_one_through_with_its_own_path) {
    multipath("0010", "a", "/dev/sdb", {});
    multipath("0011", "b", "/dev/sdh", {"/dev/sdi"});
    bring_up("/dev/sdb");
    clone_tool_answers("/dev/emcpowera\n/dev/emcpowerb\n");
    ASSERT_EQ(freeze(), 0) << errmsg;
    EXPECT_EQ(raw_devices(handle), (std::vector<std::string>{"/dev/sdb", "/dev/sdh"}));
}

TEST_F(FreezePaths, an_earlier_device_with_a_working_port_lets_a_dead_one_through) {
    multipath("0010", "a", "/dev/sdb", {"/dev/sdc"});
    multipath("0011", "b", "/dev/sdh", {});
    bring_up("/dev/sdc");
    clone_tool_answers("/dev/emcpowera\n/dev/emcpowerb\n");
    ASSERT_EQ(freeze(), 0) << errmsg;
    EXPECT_EQ(raw_devices(handle), (std::vector<std::string>{"/dev/sdc", "/dev/sdh"}));
}

TEST_F(FreezePaths, a_later_working_device_does_not_help_an_earlier_dead_one) {
    multipath("0010", "a", "/dev/sdb", {});
    multipath("0011", "b", "/dev/sdh", {});
    bring_up("/dev/sdh");
    clone_tool_answers("/dev/emcpowera\n/dev/emcpowerb\n");
    EXPECT_EQ(freeze(), 11);
    expect_given_up(7, no_device);
}

TEST_F(FreezePaths, the_flag_does_not_outlive_the_call) {
    multipath("0010", "a", "/dev/sdb", {});
    multipath("0011", "b", "/dev/sdh", {});
    bring_up("/dev/sdb");
    clone_tool_answers("/dev/emcpowera\n");
    ASSERT_EQ(freeze(), 0) << errmsg;
    clone_tool_answers("/dev/emcpowerb\n");
    EXPECT_EQ(freeze(), 11);
    expect_failure(7, no_device);
}

TEST_F(FreezePaths, a_failing_show_call_has_number_8) {
    multipath("0010", "a", "/dev/sdb", {});
    clone_tool_answers("/dev/emcpowera\n");
    array.script("SymPdevShow", {21});
    EXPECT_EQ(freeze(), 11);
    expect_given_up(8,
                    "TimeFinder_freeze: SymAPI call to SymPdevShow on device /dev/emcpowera failed "
                    "with code 21 (array error 21)");
}

TEST_F(FreezePaths, a_native_device_is_its_own_path_before_and_behind_a_multipath_one) {
    multipath("0010", "a", "/dev/sdb", {});
    bring_up("/dev/sdb");
    add_pair("0011", "/dev/native_1");
    add_pair("0012", "/dev/native_2");
    clone_tool_answers("/dev/native_1\n/dev/emcpowera\n/dev/native_2\n");
    ASSERT_EQ(freeze(), 0) << errmsg;
    std::vector<std::string> paths;
    for (const prim_mir_info *pm = handle->pminfo_list; pm != nullptr; pm = pm->next) {
        paths.emplace_back(pm->p_dev_raw_device);
    }
    EXPECT_EQ(paths,
              (std::vector<std::string>{"/dev/native_1", "/dev/emcpowera", "/dev/native_2"}));
    EXPECT_TRUE(logged("TimeFinder_freeze: block: /dev/native_2, raw: /dev/native_2"));
}

TEST_F(FreezePaths, the_walk_is_logged_at_level_2) {
    multipath("0010", "a", "/dev/sdb", {"/dev/sdc"});
    bring_up("/dev/sdb");
    clone_tool_answers("/dev/emcpowera\n");
    set_level(1);
    ASSERT_EQ(freeze(), 0);
    EXPECT_FALSE(logged("TimeFinder_freeze: block: /dev/emcpowera, raw: /dev/emcpowera"));
    EXPECT_FALSE(logged("\talternate port=/dev/sdc"));
}

class FreezeOwners : public FreezeTest {};

TEST_F(FreezeOwners, a_raw_device_without_a_node_is_named_by_the_owner_step) {
    unlink(raw_disk);
    EXPECT_EQ(freeze(), 11);
    expect_given_up(3, std::string("get_owner_ids: Cannot stat() file ") + raw_disk +
                           ": No such file or directory");
    EXPECT_EQ(client_count, 1);
    EXPECT_TRUE(array.calls.empty());
}

TEST_F(FreezeOwners, a_block_device_without_a_node_is_named_by_the_owner_step) {
    unlink(block_disk);
    EXPECT_EQ(freeze(), 11);
    expect_given_up(3, std::string("get_owner_ids: Cannot stat() file ") + block_disk +
                           ": No such file or directory");
}

// Outside the volume manager's folders both names of a device are one, and both are looked at.
TEST_F(FreezeOwners, a_device_without_a_node_under_both_names_is_named_twice_and_given_up_once) {
    hdef *const h = tf::make_zeroed<hdef>();
    h->pminfo_list = make_pm(array_id, "0001", "0101", "/dev/missing_disk");
    tf::put(h->pminfo_list->dev_block_device, "/dev/missing_disk");
    tf::Freeze f{nullptr, "", "", false, nullptr};
    f.h = h;
    EXPECT_EQ(tf::store_owners(f), 11);
    const std::string text =
        "get_owner_ids: Cannot stat() file /dev/missing_disk: No such file or directory";
    expect_failure(3, text);
    EXPECT_EQ(times_logged(text), 2);
    tf::free_hdef(h);
}

TEST_F(FreezeOwners, the_ids_of_a_missing_node_are_0_and_those_of_the_other_are_stored_needs_root) {
    if (!test::is_real_root()) GTEST_SKIP() << "chown needs the machine's root";
    hdef *const h = static_cast<hdef *>(calloc(1, sizeof(hdef)));
    h->pminfo_list = make_pm(array_id, "0001", "0101", "/dev/missing_disk");
    tf::put(h->pminfo_list->dev_block_device, block_disk);
    h->pminfo_list->dev_raw_uid = h->pminfo_list->dev_raw_gid = 77;
    ASSERT_EQ(chown(block_disk, 13, 14), 0);
    tf::Freeze f{nullptr, "", "", false, nullptr};
    f.h = h;
    EXPECT_EQ(tf::store_owners(f), 11);
    EXPECT_EQ(h->pminfo_list->dev_raw_uid, 0);
    EXPECT_EQ(h->pminfo_list->dev_raw_gid, 0);
    EXPECT_EQ(h->pminfo_list->dev_blk_uid, 13);
    EXPECT_EQ(h->pminfo_list->dev_blk_gid, 14);
    expect_failure(3,
                   "get_owner_ids: Cannot stat() file /dev/missing_disk: No such file or "
                   "directory");
    tf::free_hdef(h);
}

TEST_F(FreezePaths, a_multipath_name_that_is_no_volume_stays_the_array_s_name_too) {
    mount_device("/dev/emcpowera");
    write_file("/dev/emcpowera", "");
    multipath("0010", "a", "/dev/sdb", {"/dev/sdc"});
    bring_up("/dev/sdc");
    ASSERT_EQ(freeze(), 0) << errmsg;
    EXPECT_STREQ(handle->pminfo_list->dev_raw_device, "/dev/sdc");
    EXPECT_STREQ(handle->pminfo_list->p_dev_raw_device, "/dev/emcpowera");
    EXPECT_STREQ(handle->dev_raw_device, "/dev/emcpowera");
}

TEST_F(FreezePaths, a_port_beyond_the_array_s_count_is_not_looked_at) {
    SymDevice &device = multipath("0010", "a", "/dev/sdb", {});
    tf::put(device.ports[1], "/dev/sdd");
    bring_up("/dev/sdb");
    bring_up("/dev/sdd");
    clone_tool_answers("/dev/emcpowera\n");
    ASSERT_EQ(freeze(), 0) << errmsg;
    EXPECT_STREQ(handle->pminfo_list->dev_raw_device, "/dev/sdb");
}

}  // namespace
