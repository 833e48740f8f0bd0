#include "method/pair_discovery.h"

#include <unistd.h>

#include <cstring>
#include <filesystem>

#include "method/pair_index.h"
#include "symapi/symapi_wrappers.h"
#include "tests/method/pair_fixture.h"
#include "tests/support/allocation_faults.h"

namespace {

using test::primary_path;
using test::symid;

class PairDiscovery : public test::PairFixture {};

TEST_F(PairDiscovery, fills_the_record_of_a_synchronised_pair) {
    tf::put(pm->p_dev_raw_device, "/dev/dsk/something_else");
    EXPECT_EQ(discover(), 0);
    expect_no_failure();
    EXPECT_STREQ(pm->symid, symid);
    EXPECT_STREQ(pm->dev_sym_devname, "00A1");
    EXPECT_STREQ(pm->bcvdev_sym_devname, "00B1");
    EXPECT_STREQ(pm->p_dev_raw_device, primary_path);
    EXPECT_EQ(bcv_paths(), "/dev/sdq /dev/sdq /dev/sdq");
    EXPECT_EQ(pm->lock_set, 1);
    EXPECT_EQ(std::string(pm->lock_file), counter_file);
    EXPECT_TRUE(test::exists(counter_file));
}

TEST_F(PairDiscovery, asks_the_array_in_this_order) {
    EXPECT_EQ(discover(), 0);
    const std::string path = primary_path;
    const std::vector<std::string> expected = {
        "SymPdevSync " + path + " 1",   "SymPdevShow " + path,
        "SymDevShow 000184500123 00B1", "SymDevShow 000184500123 00B1",
        "SymDevShow 000184500123 00B1", "SymDevSync 000184500123 00B1 2 0",
        "SymPdevShow " + path,
    };
    EXPECT_EQ(array.calls, expected);
}

TEST_F(PairDiscovery, traces_what_it_learns) {
    add_port("");
    add_port("/dev/sdz");
    test::write_file("/dev/sdz", "");
    tf::put(bcv->record.ldevname, "TSR-BCV01");
    EXPECT_EQ(discover(1), 0);
    const std::string info =
        "\tDevice is part of a BCV pair. bcvinfo:\n"
        "\t\tdev_serial_id=000184500123\n"
        "\t\tdev_sym_devname=00A1\n"
        "\t\tdev_dgname=DG\n"
        "\t\tbcvdev_serial_id=000184500123\n"
        "\t\tbcvdev_sym_devname=00B1\n"
        "\t\tbcvdev_dgname=DG\n"
        "\t\tbcv_pair_state=2\n";
    EXPECT_EQ(discovery_log(),
              "find_bcv_pair: Block device /dev/dsk/c1t0d0s2 mapped to raw device "
              "/dev/rdsk/c1t0d0s2\n"
              "find_valid_bcv: primary 00A1, BCV 00B1 dgname = DG, bcvdev_dgname = DG bcv pair "
              "state 2 \n"
              "find_bcv_pair: Device /dev/rdsk/c1t0d0s2 is a Symmetrix:\n"
              "\tvendor_id=EMC\n"
              "\tproduct_id=SYMMETRIX\n"
              "\tproduct_rev=5568\n"
              "\tsymid=000184500123\n"
              "\tdevice_serial_id=00A1\n"
              "\tsym_devname=00A1\n"
              "\tpdevname=/dev/rdsk/c1t0d0s2\n"
              "\tdgname=DG\n"
              "\tldevname=DEV00A1\n" +
                  info +
                  "find_bcv_pair: BCV 00B1 information:\n"
                  "\tvendor_id=EMC\n"
                  "\tproduct_id=SYMMETRIX\n"
                  "\tproduct_rev=5568\n"
                  "\tsymid=000184500123\n"
                  "\tdevice_serial_id=00B1\n"
                  "\tsym_devname=00B1\n"
                  "\tpdevname=/dev/sdq\n"
                  "\talternate port=/dev/sdz\n"
                  "\tpdevname=/dev/sdz\n"
                  "\tdgname=DG\n"
                  "\tldevname=TSR-BCV01\n" +
                  info +
                  "find_bcv_pair: BCV raw device /dev/sdz mapped to block device /dev/sdz\n");
}

TEST_F(PairDiscovery, below_level_2_a_success_says_nothing) {
    set_level(0);
    EXPECT_EQ(discover(), 0);
    EXPECT_EQ(whole_log(), "");
}

TEST_F(PairDiscovery, a_multipath_primary_keeps_its_path_for_every_call) {
    tf::put(pm->p_dev_raw_device, "/dev/emcpowera");
    tf::put(primary->record.pdevname, "/dev/emcpowera");
    EXPECT_EQ(discover(), 0);
    EXPECT_STREQ(pm->p_dev_raw_device, "/dev/emcpowera");
    EXPECT_EQ(array.calls_of("SymPdevSync").front(), "SymPdevSync /dev/emcpowera 1");
    for (const std::string &call : array.calls_of("SymPdevShow")) {
        EXPECT_EQ(call, "SymPdevShow /dev/emcpowera");
    }
    EXPECT_EQ(test::log_lines()[0],
              "find_bcv_pair: Block device /dev/dsk/c1t0d0s2 mapped to raw device "
              "/dev/rdsk/c1t0d0s2");
    EXPECT_EQ(test::log_lines()[1], "find_bcv_pair: Branching to powerpath");
}

TEST_F(PairDiscovery, an_array_that_another_process_owns_is_not_asked) {
    const int32_t fields[] = {1, 1, 1};
    test::write_file(counter_file,
                     std::string(reinterpret_cast<const char *>(fields), sizeof fields));
    EXPECT_EQ(discover(), 11);
    expect_failure(3, "find_bcv_pair: Cannot get lock on device: /dev/rdsk/c1t0d0s2");
    EXPECT_EQ(pm->lock_set, 0);
    EXPECT_TRUE(array.calls.empty());
}

TEST_F(PairDiscovery, a_failed_refresh_is_error_3_and_keeps_the_lock) {
    array.script("SymPdevSync", {5});
    EXPECT_EQ(discover(), 11);
    expect_failure(3, call_failure("SymPdevSync", primary_path, 5));
    EXPECT_EQ(pm->lock_set, 1);
    EXPECT_TRUE(test::exists(counter_file));
}

TEST_F(PairDiscovery, a_failed_show_is_error_8) {
    array.script("SymPdevShow", {6});
    EXPECT_EQ(discover(), 11);
    expect_failure(8, call_failure("SymPdevShow", primary_path, 6));
}

TEST_F(PairDiscovery, a_failed_choice_is_passed_on_as_it_is) {
    array.script("SymDevShow", {9});
    EXPECT_EQ(discover(), 11);
    expect_failure(3,
                   "find_valid_bcv: SymAPI call to SymDevShow on device 00B1 failed with code 9 "
                   "(array error 9)");
    EXPECT_FALSE(logged("find_bcv_pair: Device /dev/rdsk/c1t0d0s2 is a Symmetrix:"));
}

TEST_F(PairDiscovery, a_device_without_bcv_is_error_10) {
    primary->record.bcv_count = 0;
    EXPECT_EQ(discover(), 11);
    expect_failure(10, "find_bcv_pair: Device /dev/rdsk/c1t0d0s2 is not a member of a BCV pair");
    EXPECT_EQ(pm->lock_set, 1);
}

// A second BCV of a foreign group, synchronised: its release refreshes the primary's record, and
// with it comes a device of another name, while the first choice stands.
class RenamedPrimary : public PairDiscovery {
  protected:
    int32_t discover_renamed(const char *entry_name, const char *new_name) {
        tf::put(primary->record.sym_devname, entry_name);
        SymBcvInfo &info = primary->record.bcvs[0];
        info.bcv_pair_state = 5;
        tf::put(info.dev_sym_devname, entry_name);
        array.pair(*primary, array.add_bcv(symid, "00B2", "/dev/sdy", "OTHER"), 2);
        array.on_call = [this, new_name](const std::string &line) {
            if (line.starts_with("SymPdevShow") && array.calls_of("SymPdevShow").size() == 2) {
                tf::put(primary->record.sym_devname, new_name);
            }
        };
        return discover();
    }
};

TEST_F(RenamedPrimary, a_device_that_is_not_its_pairs_primary_is_error_9) {
    set_level(0);
    EXPECT_EQ(discover_renamed("00A1", "00A2"), 11);
    expect_failure(9, "find_bcv_pair: Device /dev/rdsk/c1t0d0s2 is not a primary device");
    EXPECT_EQ(whole_log(), std::string(errmsg) +
                               "\n\tPrimary device is: dev_serial_id=000184500123, "
                               "dev_sym_devname=00A1\n");
    EXPECT_STREQ(pm->symid, "");
}

TEST_F(RenamedPrimary, names_that_agree_in_eight_characters_are_the_same_device) {
    EXPECT_EQ(discover_renamed("00A1xxxxP", "00A1xxxxQ"), 0);
    EXPECT_STREQ(pm->dev_sym_devname, "00A1");
}

TEST_F(RenamedPrimary, names_that_differ_in_their_eighth_character_are_not) {
    EXPECT_EQ(discover_renamed("00A1xxxP", "00A1xxxQ"), 11);
    EXPECT_EQ(errnum, 9);
}

TEST_F(PairDiscovery, a_failed_show_of_the_bcv_is_error_3_and_names_the_bcv) {
    array.script_call("SymDevShow", 3, 12);
    EXPECT_EQ(discover(), 11);
    expect_failure(3, call_failure("SymDevShow", "00B1", 12));
    EXPECT_STREQ(pm->symid, symid);
    EXPECT_STREQ(pm->bcvdev_sym_devname, "00B1");
    EXPECT_STREQ(pm->bcv_pdevname, "");
}

// The record of the primary is cleared before the BCV is read into it: what a sparing library does
// not fill must not look like the BCV's.
TEST_F(PairDiscovery, the_bcv_is_read_into_a_cleared_record) {
    static int shows;
    static SymDevice seen;
    static decltype(p_emc_tf_SymDevShow) real;
    shows = 0;
    real = p_emc_tf_SymDevShow;
    p_emc_tf_SymDevShow = [](int32_t session, const char *array_id, const char *name,
                             SymDevice *device) {
        if (++shows == 3) seen = *device;
        return real(session, array_id, name, device);
    };
    EXPECT_EQ(discover(), 0);
    EXPECT_EQ(shows, 3);
    const SymDevice empty = {};
    EXPECT_EQ(memcmp(&seen, &empty, sizeof seen), 0);
}

TEST_F(PairDiscovery, a_bcv_whose_first_path_is_down_is_used_through_its_alternate_port) {
    unlink("/dev/sdq");
    test::write_file("/dev/sdz", "");
    add_port("");
    add_port("/dev/rdsk/c9t0d0s2");
    add_port("/dev/sdy");
    add_port("/dev/sdz");
    EXPECT_EQ(discover(), 0);
    EXPECT_EQ(bcv_paths(), "/dev/sdz /dev/sdz /dev/sdz");
    EXPECT_TRUE(logged("WARN: path /dev/sdq is down; errno=2 (No such file or directory)"));
    EXPECT_TRUE(logged("WARN: path /dev/sdy is down; errno=2 (No such file or directory)"));
    EXPECT_TRUE(logged("\talternate port=/dev/rdsk/c9t0d0s2"));
    EXPECT_FALSE(logged("\talternate port="));
}

TEST_F(PairDiscovery, a_working_port_replaces_a_working_first_path) {
    test::write_file("/dev/sdz", "");
    add_port("/dev/sdz");
    EXPECT_EQ(discover(), 0);
    EXPECT_EQ(bcv_paths(), "/dev/sdz /dev/sdz /dev/sdz");
}

TEST_F(PairDiscovery, the_first_working_port_ends_the_walk) {
    test::write_file("/dev/sdy", "");
    test::write_file("/dev/sdz", "");
    add_port("/dev/sdy");
    add_port("/dev/sdz");
    EXPECT_EQ(discover(), 0);
    EXPECT_EQ(bcv_paths(), "/dev/sdy /dev/sdy /dev/sdy");
    EXPECT_FALSE(logged("\talternate port=/dev/sdz"));
}

TEST_F(PairDiscovery, a_path_that_is_down_is_used_when_no_port_works) {
    unlink("/dev/sdq");
    add_port("/dev/sdz");
    EXPECT_EQ(discover(), 0);
    EXPECT_EQ(bcv_paths(), "/dev/sdq /dev/sdq /dev/sdq");
}

TEST_F(PairDiscovery, a_working_port_of_another_kind_is_not_used) {
    unlink("/dev/sdq");
    test::write_file("/dev/rdsk/c9", "");
    add_port("/dev/rdsk/c9");
    EXPECT_EQ(discover(), 0);
    EXPECT_EQ(bcv_paths(), "/dev/sdq /dev/sdq /dev/sdq");
    std::filesystem::remove_all("/dev/rdsk");
}

TEST_F(PairDiscovery, a_path_of_another_kind_is_not_probed) {
    set_bcv_path("/dev/rdsk/c2t0d0s2");
    EXPECT_EQ(discover(), 0);
    EXPECT_EQ(bcv_paths(), "/dev/rdsk/c2t0d0s2 /dev/rdsk/c2t0d0s2 /dev/rdsk/c2t0d0s2");
    EXPECT_EQ(whole_log().find("WARN"), std::string::npos);
}

TEST_F(PairDiscovery, a_raw_multipath_name_gives_way_to_the_disks_node) {
    set_bcv_path("/dev/qz/rdmp/sdc");
    EXPECT_EQ(discover(), 0);
    EXPECT_EQ(bcv_paths(), "/dev/sdc /dev/sdc /dev/sdc");
    EXPECT_TRUE(logged("\tpdevname=/dev/qz/rdmp/sdc"));
}

TEST_F(PairDiscovery, a_raw_multipath_name_is_cut_at_its_first_s) {
    set_bcv_path("/dev/qz/rdmp/c1t0d0s2");
    EXPECT_EQ(discover(), 0);
    EXPECT_EQ(bcv_paths(), "/dev/s2 /dev/s2 /dev/s2");
}

TEST_F(PairDiscovery, a_raw_multipath_name_without_an_s_stays_and_is_mapped) {
    set_bcv_path("/dev/qz/rdmp/disk_0");
    tf::put(bcv->record.pdevname, "/dev/qz/rdmp/path0");
    EXPECT_EQ(discover(), 0);
    EXPECT_EQ(bcv_paths(), "/dev/qz/rdmp/path0 /dev/qz/rdmp/path0 /dev/qz/dmp/path0");
    EXPECT_TRUE(
        logged("find_bcv_pair: BCV raw device /dev/qz/rdmp/path0 mapped to block device "
               "/dev/qz/dmp/path0"));
}

TEST_F(PairDiscovery, a_bcv_that_this_host_does_not_see_gets_the_placeholder) {
    set_bcv_path("");
    EXPECT_EQ(discover(), 0);
    EXPECT_EQ(bcv_paths(), "/dev/sdX /dev/sdX /dev/sdX");
    EXPECT_TRUE(logged("\tpdevname="));
    EXPECT_TRUE(
        logged("WARN : The BCV pair of the primary device /dev/rdsk/c1t0d0s2 is not visible "
               "on this host"));
}

TEST_F(PairDiscovery, a_working_port_stands_in_for_an_empty_name) {
    set_bcv_path("");
    test::write_file("/dev/sdz", "");
    add_port("/dev/sdz");
    EXPECT_EQ(discover(), 0);
    EXPECT_EQ(bcv_paths(), "/dev/sdz /dev/sdz /dev/sdz");
}

TEST_F(PairDiscovery, a_path_that_cannot_be_mapped_is_error_3) {
    array.on_call = [this](const std::string &line) {
        if (line.starts_with("SymDevShow") && array.calls_of("SymDevShow").size() == 3) {
            test::fail_allocations_from(1);
        }
    };
    EXPECT_EQ(discover(), 11);
    test::no_more_faults();
    expect_failure(3, "find_bcv_pair: Cannot map raw device /dev/sdq to block device");
}

TEST_F(PairDiscovery, a_query_neither_waits_nor_enrols_nor_establishes) {
    object->sync_at_start = 2;
    array.set_state(symid, "00A1", 5);
    EXPECT_EQ(discover(1), 0);
    EXPECT_EQ(bcv_paths(), "/dev/sdq /dev/sdq /dev/sdq");
    EXPECT_EQ(pm->lock_set, 1);
    EXPECT_EQ(pm->sync_at_end, 0);
    EXPECT_EQ(prim_mir_info_size, 0);
    EXPECT_TRUE(array.calls_of("SymDevSync").empty());
    EXPECT_TRUE(array.calls_of("SymLdevBcvControl").empty());
}

TEST_F(PairDiscovery, a_query_of_a_pair_to_be_enrolled_enrols_nothing) {
    object->sync_at_start = 1;
    array.set_state(symid, "00A1", 5);
    EXPECT_EQ(discover(1), 0);
    EXPECT_EQ(prim_mir_info_size, 0);
    EXPECT_EQ(pm->sync_at_end, 0);
}

TEST_F(PairDiscovery, long_names_are_cut_to_the_record) {
    tf::put(primary->record.sym_devname, "00A1LONG");
    tf::put(primary->record.bcvs[0].dev_sym_devname, "00A1LONG");
    EXPECT_EQ(discover(), 0);
    EXPECT_STREQ(pm->dev_sym_devname, "00A1");
}

// Fills the whole field, without an end.
template <size_t N>
void fill(char (&field)[N], char with) {
    memset(field, with, N);
}

TEST_F(PairDiscovery, texts_of_the_array_without_an_end_are_bounded) {
    fill(primary->record.dgname, 'D');
    fill(primary->record.bcvs[0].dev_dgname, 'D');
    fill(primary->record.bcvs[0].bcvdev_dgname, 'D');
    fill(bcv->record.dgname, 'D');
    fill(bcv->record.product_id, 'P');
    EXPECT_EQ(discover(), 0);
    EXPECT_STREQ(pm->bcvdev_sym_devname, "00B1");
    EXPECT_TRUE(logged("\tdgname=" + std::string(63, 'D')));
    EXPECT_TRUE(logged("\tproduct_id=" + std::string(31, 'P')));
}

TEST_F(PairDiscovery, a_last_port_without_an_end_is_bounded) {
    bcv->record.port_count = 1000;
    fill(bcv->record.ports[SYM_MAX_PORTS - 1], 'p');
    EXPECT_EQ(discover(), 0);
    EXPECT_TRUE(logged("\talternate port=" + std::string(47, 'p')));
    EXPECT_EQ(bcv_paths(), "/dev/sdq /dev/sdq /dev/sdq");
}

TEST_F(PairDiscovery, an_empty_record_with_success_has_no_bcv) {
    const std::string path = primary->record.pdevname;
    primary->record = {};
    tf::put(primary->record.pdevname, path.c_str());
    EXPECT_EQ(discover(), 11);
    EXPECT_EQ(errnum, 10);
}

TEST_F(PairDiscovery, an_empty_mirror_with_success_is_one_that_this_host_does_not_see) {
    // The third show of the mirror is the one that asks for its path.
    int shows = 0;
    array.on_call = [&](const std::string &line) {
        if (line.starts_with("SymDevShow ") && ++shows == 3) bcv->record = {};
    };
    EXPECT_EQ(discover(), 0);
    EXPECT_EQ(bcv_paths(), "/dev/sdX /dev/sdX /dev/sdX");
}

class HostPaths : public test::Method {};

TEST_F(HostPaths, a_path_that_can_be_opened_is_active) {
    EXPECT_EQ(isPathActive("/dev/null"), 1);
    EXPECT_EQ(whole_log(), "");
}

TEST_F(HostPaths, a_path_that_cannot_be_opened_is_down_with_its_error) {
    EXPECT_EQ(isPathActive("/dev/none"), 0);
    EXPECT_EQ(whole_log(), "WARN: path /dev/none is down; errno=2 (No such file or directory)\n");
    set_level(1);
    EXPECT_EQ(isPathActive("/dev/none"), 0);
    EXPECT_EQ(whole_log(), "");
}

TEST_F(HostPaths, a_raw_device_is_mapped_into_the_callers_buffer) {
    char block[64] = "";
    EXPECT_EQ(rawtoblock("/dev/qz/rdsk/dg/vol", block, sizeof block), block);
    EXPECT_STREQ(block, "/dev/qz/dsk/dg/vol");
    EXPECT_EQ(rawtoblock("/dev/sdX", block, sizeof block), block);
    EXPECT_STREQ(block, "/dev/sdX");
}

TEST_F(HostPaths, a_block_name_is_cut_to_the_callers_buffer) {
    char block[8] = "";
    EXPECT_EQ(rawtoblock("/dev/qz/rdmp/x", block, sizeof block), block);
    EXPECT_STREQ(block, "/dev/qz");
}

TEST_F(HostPaths, without_memory_nothing_is_mapped) {
    char block[8] = "kept";
    test::fail_allocation(1);
    EXPECT_EQ(rawtoblock("/dev/sda", block, sizeof block), nullptr);
    EXPECT_STREQ(block, "kept");
}

}  // namespace
