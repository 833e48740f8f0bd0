#include "method/pair_discovery.h"

#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>

#include "method/pair_index.h"
#include "symapi/symapi_wrappers.h"
#include "tests/support/allocation_faults.h"
#include "tests/support/fake_array.h"
#include "tests/support/frozen_object.h"
#include "tests/support/method_fixture.h"
#include "tests/support/private_root.h"
#include "tests/support/sleeps.h"

namespace {

constexpr char symid[] = "000184500123";
constexpr char primary_path[] = "/dev/rdsk/c1t0d0s2";

class PairDiscovery : public test::Method {
  protected:
    PairDiscovery() {
        std::filesystem::remove_all("/usr/quill/tessera/online_util");
        test::make_folders("/usr/quill/tessera/online_util/fi_cntl");
        test::make_folders("/usr/quill/tessera/online_util/db_cntl");
        test::write_script("/usr/quill/tessera/bin/tqtpcinfo", "echo 'EMC p=x s=00018450012300A1'");
        tf::clear_pairs();
        tf::put(pm->dev_block_device, "/dev/dsk/c1t0d0s2");
        primary = &array.add_primary(symid, "00A1", primary_path);
        bcv = &array.add_bcv(symid, "00B1", "/dev/sdq");
        array.pair(*primary, *bcv, 2);
        test::write_file("/dev/sdq", "");
    }
    ~PairDiscovery() override {
        tf::clear_pairs();
        test::on_sleep(nullptr);
        for (const char *path : {"/dev/sdq", "/dev/sdy", "/dev/sdz"}) unlink(path);
    }

    int32_t discover(int32_t query_only = 0) {
        test::log_lines().clear();
        return find_bcv_pair(object.get(), pm, query_only);
    }
    void set_bcv_path(const char *path) { tf::put(bcv->record.pdevname, path); }
    void add_port(const char *path) {
        SymDevice &r = bcv->record;
        tf::put(r.ports[r.port_count++], path);
    }
    // The BCV's paths: host name, raw and block, separated by blanks.
    std::string bcv_paths() const {
        return std::string(pm->bcv_pdevname) + " " + pm->bcv_raw_device + " " +
               pm->bcv_block_device;
    }
    // The log without the lines of the commands and locks.
    static std::string discovery_log() {
        std::string text;
        for (const std::string &line : test::log_lines()) {
            if (line.starts_with("Executing command: ") || line.starts_with("manage_lock: ") ||
                line.find(" lock on file: ") != std::string::npos ||
                line.starts_with("closing fd=")) {
                continue;
            }
            text += line + "\n";
        }
        return text;
    }
    static std::string call_failure(const std::string &call, const std::string &device, int code) {
        return "find_bcv_pair: SymAPI call to " + call + " on device " + device +
               " failed with code " + std::to_string(code) + " (array error " +
               std::to_string(code) + ")";
    }
    const std::string counter_file =
        "/usr/quill/tessera/online_util/db_cntl/__LOCKFILE_0001845001230000";

    test::FakeArray array;
    test::FakeDevice *primary = nullptr;
    test::FakeDevice *bcv = nullptr;
    test::FrozenObject object;
    prim_mir_info *pm = object.add_device(primary_path);
};

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

TEST_F(PairDiscovery, a_failed_wait_is_passed_on_and_noted) {
    set_level(0);
    array.script("SymDevSync", {4});
    EXPECT_EQ(discover(), 11);
    expect_failure(3,
                   "wait_for_establish: SymAPI call to SymDevSync on device 00B1 failed with "
                   "code 4 (array error 4)");
    EXPECT_EQ(whole_log(), std::string(errmsg) + "\nwait_for_establish failed\n");
}

TEST_F(PairDiscovery, a_bcv_that_vanishes_during_the_wait_is_error_10) {
    array.on_call = [this](const std::string &line) {
        if (line.starts_with("SymDevSync")) primary->record.bcv_count = 0;
    };
    EXPECT_EQ(discover(), 11);
    expect_failure(10, "find_bcv_info: Cannot find BCV 00B1 for disk 00A1 in group DG");
    EXPECT_TRUE(logged("wait_for_establish failed"));
}

TEST_F(PairDiscovery, with_sync_at_start_0_and_nothing_to_establish_nothing_is_enrolled) {
    tf::put(bcv->record.ldevname, "OTHER");
    array.set_state(symid, "00A1", 5);
    EXPECT_EQ(discover(), 0);
    EXPECT_EQ(pm->sync_at_end, 0);
    EXPECT_EQ(prim_mir_info_size, 0);
}

TEST_F(PairDiscovery, a_pair_that_is_to_be_established_is_enrolled_with_sync_at_start_0) {
    array.set_state(symid, "00A1", 5);
    EXPECT_EQ(discover(), 0);
    EXPECT_EQ(pm->sync_at_end, 1);
    ASSERT_EQ(prim_mir_info_size, 1);
    EXPECT_EQ(primmirlist[0], pm);
}

TEST_F(PairDiscovery, with_sync_at_start_1_every_pair_that_is_not_synchronised_is_enrolled) {
    object->sync_at_start = 1;
    tf::put(bcv->record.ldevname, "OTHER");
    array.set_state(symid, "00A1", 5);
    EXPECT_EQ(discover(), 0);
    EXPECT_EQ(pm->sync_at_end, 1);
    EXPECT_EQ(prim_mir_info_size, 1);
}

TEST_F(PairDiscovery, with_sync_at_start_1_a_synchronised_pair_is_noted_and_not_enrolled) {
    set_level(0);
    object->sync_at_start = 1;
    EXPECT_EQ(discover(), 0);
    EXPECT_EQ(pm->sync_at_end, 1);
    EXPECT_EQ(prim_mir_info_size, 0);
    EXPECT_EQ(whole_log(), "device /dev/rdsk/c1t0d0s2 already established\n");
}

TEST_F(PairDiscovery, the_state_that_counts_is_the_one_after_the_wait) {
    object->sync_at_start = 1;
    array.set_state(symid, "00A1", 1);
    test::on_sleep([this](unsigned) { array.set_state(symid, "00A1", 2); });
    EXPECT_EQ(discover(), 0);
    EXPECT_EQ(prim_mir_info_size, 0);
    EXPECT_TRUE(logged("device /dev/rdsk/c1t0d0s2 already established"));
}

TEST_F(PairDiscovery, a_full_establish_is_issued_and_the_pair_is_read_again) {
    object->sync_at_start = 2;
    array.set_state(symid, "00A1", 5);
    array.on_call = [this](const std::string &line) {
        if (line.starts_with("SymLdevBcvControl")) array.set_state(symid, "00A1", 2);
    };
    EXPECT_EQ(discover(), 0);
    EXPECT_TRUE(logged("Issuing full establish..."));
    const std::string path = primary_path;
    const std::vector<std::string> expected = {
        "SymPdevSync " + path + " 1",
        "SymPdevShow " + path,
        "SymDevShow 000184500123 00B1",
        "SymDevShow 000184500123 00B1",
        "SymLdevBcvControl DG DEV00A1 action 1 option 0x0",
        "SymPdevSync " + path + " 1",
        "SymPdevShow " + path,
        "SymDevShow 000184500123 00B1",
        "SymDevShow 000184500123 00B1",
        "SymDevShow 000184500123 00B1",
        "SymDevSync 000184500123 00B1 2 0",
        "SymPdevShow " + path,
    };
    EXPECT_EQ(array.calls, expected);
    EXPECT_EQ(pm->sync_at_end, 1);
    EXPECT_EQ(prim_mir_info_size, 0);
}

TEST_F(PairDiscovery, a_synchronised_pair_is_not_fully_established_but_resynchronised_at_the_end) {
    object->sync_at_start = 2;
    EXPECT_EQ(discover(), 0);
    EXPECT_TRUE(array.calls_of("SymLdevBcvControl").empty());
    EXPECT_EQ(pm->sync_at_end, 1);
    EXPECT_FALSE(logged("Issuing full establish..."));
}

TEST_F(PairDiscovery, a_restored_pair_is_fully_established) {
    object->sync_at_start = 2;
    array.set_state(symid, "00A1", 8);
    EXPECT_EQ(discover(), 0);
    EXPECT_EQ(array.calls_of("SymLdevBcvControl").size(), 1U);
}

TEST_F(PairDiscovery, a_full_establish_is_tried_without_a_bcv_too) {
    object->sync_at_start = 2;
    primary->record.bcv_count = 0;
    EXPECT_EQ(discover(), 11);
    EXPECT_EQ(array.calls_of("SymLdevBcvControl").size(), 1U);
    EXPECT_EQ(errnum, 10);
    EXPECT_EQ(pm->sync_at_end, 1);
}

TEST_F(PairDiscovery, without_a_full_establish_the_control_is_not_called) {
    for (const int32_t sync : {0, 1}) {
        object->sync_at_start = sync;
        array.set_state(symid, "00A1", 5);
        discover();
    }
    EXPECT_TRUE(array.calls_of("SymLdevBcvControl").empty());
}

TEST_F(PairDiscovery, a_failed_full_establish_is_error_8) {
    object->sync_at_start = 2;
    array.set_state(symid, "00A1", 5);
    array.script("SymLdevBcvControl", {33});
    EXPECT_EQ(discover(), 11);
    expect_failure(8, call_failure("SymLdevBcvControl", primary_path, 33));
    EXPECT_EQ(pm->sync_at_end, 1);
}

TEST_F(PairDiscovery, a_failed_refresh_after_a_full_establish_is_error_3) {
    object->sync_at_start = 2;
    array.set_state(symid, "00A1", 5);
    array.script_call("SymPdevSync", 2, 5);
    EXPECT_EQ(discover(), 11);
    expect_failure(3, call_failure("SymPdevSync", primary_path, 5));
}

TEST_F(PairDiscovery, a_failed_show_after_a_full_establish_is_error_8) {
    object->sync_at_start = 2;
    array.set_state(symid, "00A1", 5);
    array.script_call("SymPdevShow", 2, 6);
    EXPECT_EQ(discover(), 11);
    expect_failure(8, call_failure("SymPdevShow", primary_path, 6));
}

TEST_F(PairDiscovery, a_failed_choice_after_a_full_establish_is_passed_on) {
    object->sync_at_start = 2;
    array.set_state(symid, "00A1", 5);
    array.script_call("SymDevShow", 3, 9);
    EXPECT_EQ(discover(), 11);
    EXPECT_EQ(errnum, 3);
    EXPECT_TRUE(std::string(errmsg).starts_with("find_valid_bcv: "));
}

TEST_F(PairDiscovery, a_device_seen_under_two_paths_is_enrolled_once) {
    array.set_state(symid, "00A1", 5);
    tf::put(primary->record.ports[primary->record.port_count++], "/dev/rdsk/c2t0d0s2");
    EXPECT_EQ(discover(), 0);
    pm = object.add_device("/dev/rdsk/c2t0d0s2");
    EXPECT_EQ(discover(), 0);
    EXPECT_EQ(pm->sync_at_end, 1);
    EXPECT_EQ(prim_mir_info_size, 1);
    EXPECT_EQ(primmirlist[0], object->pminfo_list);
    expect_no_failure();
}

TEST_F(PairDiscovery, long_names_are_cut_to_the_record) {
    tf::put(primary->record.sym_devname, "00A1LONG");
    tf::put(primary->record.bcvs[0].dev_sym_devname, "00A1LONG");
    EXPECT_EQ(discover(), 0);
    EXPECT_STREQ(pm->dev_sym_devname, "00A1");
}

// The batch table with that many entries of other devices.
class FullTable : public PairDiscovery {
  protected:
    void fill(int32_t count) {
        others.resize(static_cast<size_t>(count));
        for (prim_mir_info &other : others) {
            char name[8];
            snprintf(name, sizeof name, "%04x", 0x8000 + prim_mir_info_size);
            tf::put(other.dev_sym_devname, name);
            prim_mir_info_size = tf::append_pair(&other, prim_mir_info_size);
        }
        array.set_state(symid, "00A1", 5);
    }
    ~FullTable() override { tf::clear_pairs(); }
    std::vector<prim_mir_info> others;
};

TEST_F(FullTable, the_2046th_device_is_enrolled) {
    fill(2045);
    EXPECT_EQ(discover(), 0);
    EXPECT_EQ(prim_mir_info_size, 2046);
}

TEST_F(FullTable, the_2047th_device_fails_while_the_message_names_2048) {
    fill(2046);
    EXPECT_EQ(discover(), 11);
    expect_failure(7, "find_bcv_pair: Too many devices : 2047 (max 2048)");
    EXPECT_EQ(prim_mir_info_size, 2047);
    EXPECT_EQ(primmirlist[2046], pm);
}

TEST_F(FullTable, whoever_goes_on_after_the_error_writes_no_slot_that_is_not_there) {
    fill(2048);
    for (int32_t count = 2049; count < 2052; ++count) {
        EXPECT_EQ(discover(), 11);
        expect_failure(
            7, "find_bcv_pair: Too many devices : " + std::to_string(count) + " (max 2048)");
    }
    EXPECT_EQ(primmirlist[2047], &others[2047]);
}

TEST_F(FullTable, a_listed_device_is_no_error_in_a_full_table) {
    fill(2046);
    tf::put(others[2000].dev_sym_devname, "00A1");
    EXPECT_EQ(discover(), 0);
    EXPECT_EQ(prim_mir_info_size, 2046);
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
