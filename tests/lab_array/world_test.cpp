// Building arrays: what is accepted, what is refused, what is found again.
#include <gtest/gtest.h>

#include "include/symapi.h"
#include "lab/array/model/describe.h"
#include "tests/lab_array/small_world.h"

namespace {

using lab::Path;
using lab::Refused;
using lab::World;
using test::symid;

class AWorld : public testing::Test {
  protected:
    AWorld() {
        test::build_small_array(&world);
        world.changes = {};
    }
    World world;
};

TEST_F(AWorld, an_array_has_12_digits_and_exists_once) {
    EXPECT_THROW(world.add_array("00018450012", 0), Refused);
    EXPECT_THROW(world.add_array("0001845001234", 0), Refused);
    EXPECT_THROW(world.add_array("00018450012X", 0), Refused);
    EXPECT_THROW(world.add_array(symid, 0), Refused);
    EXPECT_FALSE(world.changes.any());
}

TEST_F(AWorld, a_device_has_4_hexadecimal_characters_and_a_size_in_mebibytes) {
    EXPECT_THROW(world.add_device(symid, "A1", test::device_size, false), Refused);
    EXPECT_THROW(world.add_device(symid, "00g1", test::device_size, false), Refused);
    EXPECT_THROW(world.add_device(symid, "00A1", test::device_size, false), Refused);
    EXPECT_THROW(world.add_device(symid, "00B1", 0, false), Refused);
    EXPECT_THROW(world.add_device(symid, "00B1", 4096, false), Refused);
    EXPECT_THROW(world.add_device("000000000000", "00B1", test::device_size, false), Refused);
    EXPECT_FALSE(world.changes.any());
}

TEST_F(AWorld, an_array_with_a_size_holds_no_more_than_that) {
    world.add_array("000000000001", 2 * test::device_size);
    world.add_device("000000000001", "0001", test::device_size, false);
    world.add_device("000000000001", "0002", test::device_size, false);
    EXPECT_THROW(world.add_device("000000000001", "0003", test::device_size, false), Refused);
    world.add_device("000000000001", "0003", test::device_size, true);  // a BCV is no window
}

TEST_F(AWorld, standard_devices_lie_behind_one_another_in_the_pool) {
    EXPECT_EQ(world.device(symid, "00A1")->offset, 0u);
    EXPECT_EQ(world.device(symid, "00A2")->offset, test::device_size);
    EXPECT_TRUE(lab::broken_invariants(world).empty());
}

TEST_F(AWorld, a_device_that_is_taken_back_leaves_nothing) {
    const int64_t id = world.add_device(symid, "00A3", test::device_size, false).id;
    world.undo_device(id);
    EXPECT_EQ(world.device(symid, "00A3"), nullptr);
    EXPECT_EQ(world.add_device(symid, "00A4", test::device_size, false).offset,
              2 * test::device_size);
    EXPECT_TRUE(lab::broken_invariants(world).empty());
}

TEST_F(AWorld, a_pair_is_a_standard_device_and_a_bcv_of_one_size) {
    world.add_device(symid, "01C1", 2 * test::device_size, true);
    EXPECT_THROW(world.add_pair(symid, "01A1", "01A2"), Refused);
    EXPECT_THROW(world.add_pair(symid, "00A1", "00A2"), Refused);
    EXPECT_THROW(world.add_pair(symid, "00A1", "01C1"), Refused);
    EXPECT_THROW(world.add_pair(symid, "00A1", "01A1"), Refused);
    EXPECT_THROW(world.add_pair(symid, "00A1", "0FFF"), Refused);
}

TEST_F(AWorld, a_standard_device_has_16_bcvs_at_most) {
    world.add_device(symid, "00B1", test::device_size, false);
    for (int i = 0; i < SYM_MAX_BCVS; ++i) {
        const std::string name = std::string("020") + "0123456789ABCDEF"[i];
        world.add_device(symid, name, test::device_size, true);
        world.add_pair(symid, "00B1", name);
    }
    world.add_device(symid, "0300", test::device_size, true);
    EXPECT_THROW(world.add_pair(symid, "00B1", "0300"), Refused);
}

TEST_F(AWorld, a_group_lists_its_devices_in_the_order_in_which_they_were_made) {
    world.set_group(symid, "00A1", "other", "");
    world.set_group(symid, "00A1", "dg", "FIRST");
    const auto &members = world.group("dg");
    ASSERT_EQ(members.size(), 5u);
    EXPECT_EQ(world.device(members.front()).name, "00A1");
    EXPECT_EQ(world.device(members.front()).ldev, "FIRST");
    EXPECT_TRUE(world.group("other").empty());
}

TEST_F(AWorld, a_group_or_logical_name_that_would_not_fit_the_record_is_refused) {
    EXPECT_THROW(world.set_group(symid, "00A1", std::string(64, 'g'), ""), Refused);
    EXPECT_THROW(world.set_label(symid, "00A1", std::string(64, 'l')), Refused);
    EXPECT_THROW(world.set_label(symid, "00A1", ""), Refused);
    world.set_label(symid, "00A1", std::string(63, 'l'));
}

TEST_F(AWorld, a_mask_shows_a_device_under_every_path) {
    world.mask(symid, "00A1", "client1",
               {{"/dev/qz/dmp/p0"}, {"/dev/qz/rdmp/p0"}, {"/dev/sdc", true}});
    for (const char *path : {"/dev/qz/dmp/p0", "/dev/qz/rdmp/p0", "/dev/sdc"}) {
        ASSERT_NE(world.by_path("client1", path), nullptr) << path;
        EXPECT_EQ(world.by_path("client1", path)->name, "00A1");
    }
    EXPECT_EQ(world.by_path("client2", "/dev/sdc"), nullptr);
    EXPECT_EQ(world.unmask(symid, "00A1", "client1").paths.size(), 3u);
    EXPECT_EQ(world.by_path("client1", "/dev/sdc"), nullptr);
    EXPECT_THROW(world.unmask(symid, "00A1", "client1"), Refused);
}

TEST_F(AWorld, a_path_is_under_dev_fits_the_record_and_is_taken_once) {
    world.mask(symid, "00A2", "client1", {{"/dev/sda"}});
    EXPECT_THROW(world.mask(symid, "00A1", "client1", {{"/tmp/sda"}}), Refused);
    EXPECT_THROW(world.mask(symid, "00A1", "client1", {{"/dev/../tmp/x"}}), Refused);
    EXPECT_THROW(world.mask(symid, "00A1", "client1", {{"/dev/x/.."}}), Refused);
    EXPECT_THROW(world.mask(symid, "00A1", "client1", {{"/dev/" + std::string(43, 'x')}}), Refused);
    EXPECT_THROW(world.mask(symid, "00A1", "client1", {{"/dev/sda"}}), Refused);
    EXPECT_THROW(world.mask(symid, "00A1", "client1", {{"/dev/sdb"}, {"/dev/sdb", true}}), Refused);
    EXPECT_THROW(world.mask(symid, "00A1", "client1", {{"/dev/sdb", true}}), Refused);
    EXPECT_THROW(world.mask(symid, "00A1", "client1", {}), Refused);
    EXPECT_EQ(world.view("client1", world.device(symid, "00A1")->id), nullptr);
    world.mask(symid, "00A1", "client2", {{"/dev/sda"}});  // another host's path
}

TEST_F(AWorld, a_device_is_masked_to_a_host_once) {
    world.mask(symid, "00A1", "client1", {{"/dev/sda"}});
    EXPECT_THROW(world.mask(symid, "00A1", "client1", {{"/dev/sdb"}}), Refused);
}

TEST_F(AWorld, a_host_has_16_ports_of_a_device_at_most) {
    std::vector<Path> paths = {{"/dev/emcpowera"}};
    for (int i = 0; i < SYM_MAX_PORTS; ++i) paths.push_back({"/dev/sd" + std::to_string(i), true});
    std::vector<Path> too_many = paths;
    too_many.push_back({"/dev/sdx", true});
    EXPECT_THROW(world.mask(symid, "00A1", "client1", too_many), Refused);
    world.mask(symid, "00A1", "client1", paths);
}

TEST_F(AWorld, a_path_goes_down_and_up_and_an_unknown_one_is_refused) {
    world.mask(symid, "00A1", "client1", {{"/dev/emcpowera"}, {"/dev/sdc", true}});
    EXPECT_TRUE(world.set_path("client1", "/dev/sdc", true).paths[1].down);
    EXPECT_FALSE(world.set_path("client1", "/dev/sdc", false).paths[1].down);
    EXPECT_THROW(world.set_path("client1", "/dev/sdd", true), Refused);
}

TEST_F(AWorld, every_change_is_noted_for_the_store) {
    world.set_label(symid, "01A1", "TSR-BCV");
    EXPECT_EQ(world.changes.devices.size(), 1u);
    world.mask(symid, "00A1", "client1", {{"/dev/sda"}});
    EXPECT_EQ(world.changes.views.size(), 1u);
    world.change_pair(1);
    EXPECT_EQ(world.changes.pairs, std::set<int64_t>{1});
    EXPECT_TRUE(world.changes.arrays.empty());
}

TEST_F(AWorld, invariants_name_a_bcv_that_is_joined_twice) {
    for (lab::Pair pair : {world.pair(1), world.pair(4)}) {  // both with the BCV 01A1
        world.change_pair(pair.id).state = lab::PairState::synchronised;
    }
    EXPECT_EQ(lab::broken_invariants(world),
              std::vector<std::string>{"BCV 000184500123 01A1 is joined with more than one "
                                       "standard device"});
}

TEST_F(AWorld, invariants_name_a_pair_that_moves_without_an_end) {
    world.change_pair(1).state = lab::PairState::synchronising;
    EXPECT_EQ(lab::broken_invariants(world),
              std::vector<std::string>{"pair 1 is synchronising without an end"});
}

TEST_F(AWorld, a_description_carries_names_group_label_and_pairs_in_the_arrays_order) {
    world.set_label(symid, "01B1", "TSR-BCV-07");
    world.change_pair(2).state = lab::PairState::synchronised;
    const SymDevice device = lab::describe(world, *world.device(symid, "00A1"), "client1");
    EXPECT_STREQ(device.symid, symid.c_str());
    EXPECT_STREQ(device.sym_devname, "00A1");
    EXPECT_STREQ(device.dgname, "dg");
    EXPECT_STREQ(device.ldevname, "DEV00A1");
    EXPECT_STREQ(device.pdevname, "");  // this host does not see it
    ASSERT_EQ(device.bcv_count, 2);
    EXPECT_STREQ(device.bcvs[0].bcvdev_sym_devname, "01A1");
    EXPECT_EQ(device.bcvs[0].bcv_pair_state, 5);
    EXPECT_STREQ(device.bcvs[1].bcvdev_sym_devname, "01B1");
    EXPECT_STREQ(device.bcvs[1].dev_sym_devname, "00A1");
    EXPECT_STREQ(device.bcvs[1].dev_dgname, "dg");
    EXPECT_STREQ(device.bcvs[1].bcvdev_dgname, "dg");
    EXPECT_STREQ(device.bcvs[1].bcvdev_serial_id, symid.c_str());
    EXPECT_EQ(device.bcvs[1].bcv_pair_state, 2);
    EXPECT_STREQ(lab::describe(world, *world.device(symid, "01B1"), "x").ldevname, "TSR-BCV-07");
}

TEST_F(AWorld, a_description_lists_ports_apart_from_the_devices_name) {
    world.mask(symid, "01A1", "client1",
               {{"/dev/emcpowerb"}, {"/dev/alias"}, {"/dev/sdc", true}, {"/dev/sdd", true, true}});
    const SymDevice device = lab::describe(world, *world.device(symid, "01A1"), "client1");
    EXPECT_STREQ(device.pdevname, "/dev/emcpowerb");
    ASSERT_EQ(device.port_count, 2);
    EXPECT_STREQ(device.ports[0], "/dev/sdc");
    EXPECT_STREQ(device.ports[1], "/dev/sdd");  // a port that is down is still listed
}

TEST_F(AWorld, a_bcv_is_described_with_the_pairs_it_is_part_of) {
    const SymDevice device = lab::describe(world, *world.device(symid, "01A1"), "client1");
    ASSERT_EQ(device.bcv_count, 2);
    EXPECT_STREQ(device.bcvs[0].dev_sym_devname, "00A1");
    EXPECT_STREQ(device.bcvs[1].dev_sym_devname, "00A2");
}

TEST(VersionText, names_the_release_and_its_sub_level) {
    EXPECT_EQ(lab::version_text(0x05000000), "V5.0-0");
    EXPECT_EQ(lab::version_text(0x04020099), "V4.2-153");
}

}  // namespace
