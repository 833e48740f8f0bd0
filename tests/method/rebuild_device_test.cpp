#include <unistd.h>

#include <cstring>

#include "method/rebuild.h"
#include "symapi/symapi_wrappers.h"
#include "tests/method/rebuild_fixture.h"

namespace {

using test::symid;

class RebuildDevice : public test::RebuildTest {};

// The mirror's path.

TEST_F(RebuildDevice, mirror_is_shown_under_the_path_of_the_array) {
    ASSERT_EQ(rebuild(known_pair()), 0);
    const prim_mir_info *pm = h->pminfo_list;
    EXPECT_STREQ(pm->bcv_pdevname, "/dev/rdsk/c1t0d0");
    EXPECT_STREQ(pm->bcv_raw_device, "/dev/rdsk/c1t0d0");
    EXPECT_STRNE(pm->bcv_block_device, "");
    EXPECT_STREQ(pm->dev_block_device, "/dev/qz/dmp/p00A1");
    EXPECT_EQ(pm->issplit, 1);
    EXPECT_EQ(pm->sync_at_end, 1);
    EXPECT_EQ(whole_log(),
              "\tpdevname=/dev/rdsk/c1t0d0\n"
              "TimeFinder_rebuild: BCV <--> SYMID: /dev/rdsk/c1t0d0 : 01A1\n"
              "TimeFinder_rebuild: block: /dev/qz/dmp/p00A1, raw: /dev/qz/rdmp/p00A1\n");
    EXPECT_EQ(array.calls, test::Lines{"SymDevShow 000184500123 01A1"});
}

TEST_F(RebuildDevice, traces_are_written_at_level_2_only) {
    set_level(1);
    ASSERT_EQ(rebuild(known_pair()), 0);
    EXPECT_EQ(whole_log(), "");
}

TEST_F(RebuildDevice, mirror_that_the_array_does_not_show_fails_the_rebuild) {
    const std::string text = known_pair();
    array.script("SymDevShow", {77});
    EXPECT_EQ(rebuild(text), 11);
    expect_failure(3,
                   "TimeFinder_rebuild: SymAPI call to SymDevShow on device 01A1 failed with code "
                   "77 (array error 77)");
    EXPECT_NE(h, nullptr);
    EXPECT_EQ(h->pminfo_list, nullptr);
    EXPECT_EQ(total_freeze_volumes, 0);
    EXPECT_FALSE(is_listed(h));
}

TEST_F(RebuildDevice, first_alternate_port_of_a_disk_that_works_is_taken) {
    const std::string text = known_pair();
    SymDevice &bcv = array.device(symid, "01A1").record;
    test::write_file("/dev/rdsk/works", "");
    test::write_file("/dev/sdc", "");
    test::write_file("/dev/sdd", "");
    bcv.port_count = 5;
    tf::put(bcv.ports[0], "/dev/rdsk/works");
    tf::put(bcv.ports[1], "");
    tf::put(bcv.ports[2], "/dev/sdb");
    tf::put(bcv.ports[3], "/dev/sdc");
    tf::put(bcv.ports[4], "/dev/sdd");
    ASSERT_EQ(rebuild(text), 0);
    EXPECT_STREQ(h->pminfo_list->bcv_raw_device, "/dev/sdc");
    EXPECT_STREQ(h->pminfo_list->bcv_pdevname, "/dev/sdc");
    EXPECT_EQ(whole_log().substr(0, whole_log().find("TimeFinder")),
              "\talternate port=/dev/rdsk/works\n"
              "\talternate port=/dev/sdb\n"
              "WARN: path /dev/sdb is down; errno=2 (No such file or directory)\n"
              "\talternate port=/dev/sdc\n"
              "\tpdevname=/dev/sdc\n");
}

TEST_F(RebuildDevice, multipathing_node_becomes_the_disks_node_before_it_is_logged) {
    ASSERT_EQ(rebuild(known_pair("00A1", "01A1", "/dev/qz/rdmp/sdc")), 0);
    EXPECT_STREQ(h->pminfo_list->bcv_raw_device, "/dev/sdc");
    EXPECT_TRUE(logged("\tpdevname=/dev/sdc"));
}

TEST_F(RebuildDevice, multipathing_node_without_an_s_stays) {
    ASSERT_EQ(rebuild(known_pair("00A1", "01A1", "/dev/qz/rdmp/c1t0")), 0);
    EXPECT_STREQ(h->pminfo_list->bcv_raw_device, "/dev/qz/rdmp/c1t0");
}

TEST_F(RebuildDevice, mirror_that_this_host_does_not_see_gets_a_placeholder) {
    ASSERT_EQ(rebuild(known_pair("00A1", "01A1", "")), 0);
    EXPECT_STREQ(h->pminfo_list->bcv_raw_device, "/dev/rdsk/cXtXdX");
    EXPECT_STREQ(h->pminfo_list->bcv_pdevname, "/dev/rdsk/cXtXdX");
    EXPECT_TRUE(logged("\tpdevname="));
}

// The alternate backup host.

TEST_F(RebuildDevice, primary_disk_visible_on_the_alternate_host_is_refused) {
    const std::string text = imported_target() + known_pair();
    tf::put(array.device(symid, "00A1").record.pdevname, "/dev/rdsk/c0t0d0");
    EXPECT_EQ(rebuild(text), 11);
    expect_failure(7,
                   "TimeFinder_rebuild: Primary disk /dev/qz/rdmp/p00A1 <00A1> is visible on "
                   "alternate backup client. disk group import method can not be used.");
    EXPECT_EQ(array.calls, test::Lines{"SymDevShow 000184500123 00A1"});
    EXPECT_EQ(commands(), test::Lines{});
    EXPECT_EQ(total_freeze_volumes, 0);
}

TEST_F(RebuildDevice, failing_look_at_the_primary_is_ignored) {
    const std::string text = imported_target() + known_pair();
    array.script("SymDevShow", {77});
    EXPECT_EQ(rebuild(text), 0);
    expect_no_failure();
    EXPECT_EQ(array.calls,
              (test::Lines{"SymDevShow 000184500123 00A1", "SymDevShow 000184500123 01A1"}));
}

// What a failed call has written is no answer.
int show_that_fails_half_way(int32_t, const char *, const char *name, SymDevice *device) {
    tf::put(device->pdevname, "/dev/rdsk/c0t0d0");
    return strcmp(name, "00A1") == 0 ? 77 : 0;
}

TEST_F(RebuildDevice, path_that_a_failing_look_at_the_primary_leaves_is_not_believed) {
    const std::string text = imported_target() + known_pair();
    p_emc_tf_SymDevShow = show_that_fails_half_way;
    EXPECT_EQ(rebuild(text), 0);
    expect_no_failure();
}

TEST_F(RebuildDevice, visible_primary_matters_only_with_import_and_target_together) {
    const std::string pair = known_pair();
    tf::put(array.device(symid, "00A1").record.pdevname, "/dev/rdsk/c0t0d0");
    EXPECT_EQ(rebuild("HDEF-dgimport=1\n" + pair), 0);
    EXPECT_EQ(rebuild("HDEF-is_tgt=1\n" + pair), 0);
    EXPECT_EQ(commands(), test::Lines{});
}

// The line must stand before the first record's end.
TEST_F(RebuildDevice, target_line_counts_only_for_the_records_behind_it) {
    const std::string first = known_pair();
    const std::string second = known_pair("00A2", "01A2", "/dev/rdsk/c1t0d1");
    EXPECT_EQ(rebuild("HDEF-dgimport=1\n" + first + "HDEF-is_tgt=1\n" + second), 0);
    EXPECT_EQ(commands(),
              (test::Lines{"/usr/sbin/qzdisk list c1t0d1", "/usr/sbin/qzdisk online c1t0d1"}));
}

TEST_F(RebuildDevice, import_line_counts_only_for_the_records_behind_it) {
    const std::string first = known_pair();
    const std::string second = known_pair("00A2", "01A2", "/dev/rdsk/c1t0d1");
    const std::string third = known_pair("00A3", "01A3", "/dev/rdsk/c1t0d2");
    tf::put(array.device(symid, "00A1").record.pdevname, "/dev/rdsk/c0t0d0");
    const std::string text = "HDEF-is_tgt=1\n" + first + "HDEF-dgimport=1\n" + second + third;
    EXPECT_EQ(rebuild(text), 0);
    expect_no_failure();
    EXPECT_EQ(array.calls,
              (test::Lines{"SymDevShow 000184500123 01A1", "SymDevShow 000184500123 00A2",
                           "SymDevShow 000184500123 01A2", "SymDevShow 000184500123 00A3",
                           "SymDevShow 000184500123 01A3"}));
    const test::Lines announced = {"/usr/sbin/qzdisk list c1t0d1", "/usr/sbin/qzdisk online c1t0d1",
                                   "/usr/sbin/qzdisk list c1t0d2",
                                   "/usr/sbin/qzdisk online c1t0d2"};
    EXPECT_EQ(commands(), announced);
    tf::put(array.device(symid, "00A2").record.pdevname, "/dev/rdsk/c0t0d1");
    EXPECT_EQ(rebuild(text), 11);
    expect_failure(7,
                   "TimeFinder_rebuild: Primary disk /dev/qz/rdmp/p00A2 <00A2> is visible on "
                   "alternate backup client. disk group import method can not be used.");
    EXPECT_EQ(commands(), announced);
}

TEST_F(RebuildDevice, disk_that_the_volume_manager_knows_is_only_put_online) {
    ASSERT_EQ(rebuild(imported_target() + known_pair()), 0);
    EXPECT_EQ(commands(),
              (test::Lines{"/usr/sbin/qzdisk list c1t0d0", "/usr/sbin/qzdisk online c1t0d0"}));
}

TEST_F(RebuildDevice, unknown_disk_is_defined_and_failures_of_both_commands_are_ignored) {
    for (const int n : {1, 2, 3}) test::RecordedCommands::fail(n);
    ASSERT_EQ(rebuild(imported_target() + known_pair()), 0);
    EXPECT_EQ(commands(),
              (test::Lines{"/usr/sbin/qzdisk list c1t0d0", "/usr/sbin/qzdisk define c1t0d0",
                           "/usr/sbin/qzdisk online c1t0d0"}));
    EXPECT_TRUE(is_listed(h));
}

TEST_F(RebuildDevice, path_that_is_too_short_to_be_cut_gives_an_empty_disk_name) {
    const std::string text = imported_target() + known_pair();
    SymDevice &bcv = array.device(symid, "01A1").record;
    tf::put(bcv.pdevname, "/dev/rdsk/c9t9d9");
    tf::put(bcv.pdevname, "/dev/sdc");  // the rest of the longer name stands behind its end
    ASSERT_EQ(rebuild(text), 0);
    EXPECT_EQ(commands(), (test::Lines{"/usr/sbin/qzdisk list", "/usr/sbin/qzdisk online"}));
}

TEST_F(RebuildDevice, placeholder_and_short_path_are_cut_after_ten_characters) {
    ASSERT_EQ(rebuild(imported_target() + known_pair("00A1", "01A1", "")), 0);
    ASSERT_EQ(rebuild(imported_target() + known_pair("00A2", "01A2", "/dev/sdc")), 0);
    EXPECT_EQ(commands(),
              (test::Lines{"/usr/sbin/qzdisk list cXtXdX", "/usr/sbin/qzdisk online cXtXdX",
                           "/usr/sbin/qzdisk list", "/usr/sbin/qzdisk online"}));
    EXPECT_STREQ(h->pminfo_list->bcv_raw_device, "/dev/sdc");
}

// Locks.

TEST_F(RebuildDevice, primary_host_takes_the_recorded_locks_again) {
    recorded.install_device_tool("SN00000077");
    const std::string first = known_pair();
    array.add_bcv(symid, "01A2", "/dev/rdsk/c1t0d1");
    array.add_bcv(symid, "01A3", "/dev/rdsk/c1t0d2");
    ASSERT_EQ(rebuild(first + pair_lines("00A2", "01A2", 1) + pair_lines("00A3", "01A3", 2)), 0);
    EXPECT_EQ(commands(),
              (test::Lines{"/usr/quill/tessera/bin/tqtpcinfo -f -p /dev/qz/rdmp/p00A2 -o -",
                           "/usr/quill/tessera/bin/tqtpcinfo -f -p /dev/qz/rdmp/p00A3 -o -"}));
    const char counter_file[] = "/usr/quill/tessera/online_util/db_cntl/__LOCKFILE_SN00000000";
    const std::string counter = test::read_file(counter_file);
    ASSERT_EQ(counter.size(), 12U);
    EXPECT_EQ(counter[4], 2);
    EXPECT_STREQ(h->pminfo_list->p_dev_raw_device, "/dev/qz/rdmp/p00A1");
    EXPECT_STREQ(h->pminfo_list->next->lock_file, counter_file);
    EXPECT_EQ(h->pminfo_list->next->lock_set, 1);
    EXPECT_EQ(h->pminfo_list->next->issplit, 0);
    EXPECT_EQ(h->pminfo_list->next->next->issplit, 1);
    unlink(counter_file);
}

TEST_F(RebuildDevice, lock_that_another_process_holds_fails_the_rebuild) {
    recorded.install_device_tool("SN00000077");
    const int32_t other[3] = {1, 1, 1};
    test::write_file("/usr/quill/tessera/online_util/db_cntl/__LOCKFILE_SN00000000",
                     std::string(reinterpret_cast<const char *>(other), sizeof other));
    array.add_bcv(symid, "01A1", "/dev/rdsk/c1t0d0");
    EXPECT_EQ(rebuild(pair_lines("00A1", "01A1", 1)), 11);
    expect_failure(3, "TimeFinder_rebuild: Cannot get lock on device: /dev/qz/rdmp/p00A1");
    EXPECT_FALSE(is_listed(h));
    EXPECT_EQ(h->pminfo_list->lock_set, 1);
    EXPECT_EQ(total_freeze_volumes, 0);
    unlink("/usr/quill/tessera/online_util/db_cntl/__LOCKFILE_SN00000000");
}

TEST_F(RebuildDevice, alternate_host_takes_no_locks_and_keeps_the_path_of_the_text) {
    array.add_bcv(symid, "01A1", "/dev/rdsk/c1t0d0");
    ASSERT_EQ(rebuild(pair_lines("00A1", "01A1", 1) + "HDEF-is_tgt=1\n"), 0);
    EXPECT_EQ(commands(), test::Lines{});
    EXPECT_STREQ(h->pminfo_list->p_dev_raw_device, "/dev/emcpowera");
    EXPECT_FALSE(logged("TimeFinder_rebuild: block: /dev/qz/dmp/p00A1, raw: /dev/qz/rdmp/p00A1"));
}

// The handle is not looked after by the fixture: it is gone before the test ends.
class FailedRebuild : public test::Release {};

TEST_F(FailedRebuild, is_given_back_with_its_files) {
    char text[] = "HDEF-restore=1\n";
    hdef *failed = nullptr;
    ASSERT_EQ(TimeFinder_rebuild(&failed, text), 11);
    ASSERT_NE(failed, nullptr);
    const std::string files[] = {failed->out_file, failed->err_file, failed->transfer_file};
    for (const std::string &file : files) EXPECT_TRUE(test::exists(file));
    tf::free_failed_rebuilds();
    for (const std::string &file : files) EXPECT_FALSE(test::exists(file));
    tf::free_failed_rebuilds();
}

}  // namespace
