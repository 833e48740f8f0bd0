#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>

#include "tests/method/volumes_fixture.h"
#include "tests/support/system_faults.h"

namespace {

class Volumes : public test::VolumesTest {};

TEST_F(Volumes, null_arguments_are_named_in_order) {
    hdef *h = new_mirrored_device();
    EXPECT_EQ(TimeFinder_volumes(nullptr, nullptr, nullptr), 11);
    expect_failure(7, "TimeFinder_volumes: A required parameter is NULL: fih");
    EXPECT_EQ(TimeFinder_volumes(h, nullptr, nullptr), 11);
    expect_failure(7, "TimeFinder_volumes: A required parameter is NULL: volpath");
    EXPECT_EQ(TimeFinder_volumes(h, path, nullptr), 11);
    expect_failure(7, "TimeFinder_volumes: A required parameter is NULL: nvols");
}

TEST_F(Volumes, object_without_devices_needs_an_imported_volume) {
    EXPECT_EQ(volumes(new_volume()), 11);
    expect_failure(7, "TimeFinder_volumes: No device information");
    EXPECT_EQ(count, 0);
    hdef *plain = new_device();
    plain->dgimport = 1;
    errnum = 0;
    EXPECT_EQ(volumes(plain), 11);
    expect_failure(7, "TimeFinder_volumes: No device information");
    EXPECT_TRUE(has_capture_files(plain));
    EXPECT_EQ(volumes(new_imported_volume("volb", "otherdg")), 0);
}

TEST_F(Volumes, plain_raw_device_hands_the_mirror_out_with_the_primarys_owners_needs_root) {
    if (!test::is_real_root()) GTEST_SKIP() << "chown needs the machine's root";
    hdef *h = new_mirrored_device();
    give_transfer_file(h, "/tmp/EMCTXtest");
    ASSERT_EQ(volumes(h), 0);
    EXPECT_STREQ(path, "/dev/qz/rdmp/b0");
    EXPECT_EQ(count, 0);
    EXPECT_EQ(owners("/dev/qz/rdmp/b0"), "11:12");
    EXPECT_EQ(owners("/dev/qz/dmp/b0"), "13:14");
    EXPECT_EQ(commands(), test::Lines{});
    EXPECT_TRUE(has_no_capture_files(h));
    EXPECT_FALSE(test::exists("/tmp/EMCTXtest"));
    EXPECT_STREQ(h->transfer_file, "");
    EXPECT_EQ(whole_log(), "");
}

TEST_F(Volumes, plain_block_device_hands_the_block_path_out_needs_root) {
    if (!test::is_real_root()) GTEST_SKIP() << "chown needs the machine's root";
    ASSERT_EQ(volumes(new_mirrored_device(TF_OBJECT_BLOCK_DEVICE)), 0);
    EXPECT_STREQ(path, "/dev/qz/dmp/b0");
    EXPECT_EQ(count, 0);
}

TEST_F(Volumes, object_whose_volume_flag_is_another_number_is_a_plain_device_needs_root) {
    if (!test::is_real_root()) GTEST_SKIP() << "chown needs the machine's root";
    hdef *h = new_mirrored_device();
    h->is_vol = 2;
    ASSERT_EQ(volumes(h), 0);
    EXPECT_STREQ(path, "/dev/qz/rdmp/b0");
}

TEST_F(Volumes, site_script_sees_a_plain_device_before_its_owners_change_needs_root) {
    if (!test::is_real_root()) GTEST_SKIP() << "chown needs the machine's root";
    test::RecordedCommands::install_site_script();
    hdef *h = new_mirrored_device();
    ASSERT_EQ(volumes(h), 0);
    EXPECT_EQ(commands(), test::Lines{"/usr/quill/tessera/bin/tqdgclone_script RAW /dev/qz/rdmp/b0 "
                                      "/dev/qz/dmp/b0"});
    test::RecordedCommands::fail(2);
    h->pminfo_list->dev_raw_uid = 99;
    give_transfer_file(h, "/tmp/EMCTXtest");
    EXPECT_EQ(volumes(h), 11);
    EXPECT_EQ(owners("/dev/qz/rdmp/b0"), "11:12");
    EXPECT_EQ(path[0], 'x');
    EXPECT_TRUE(has_capture_files(h));
    EXPECT_TRUE(test::exists("/tmp/EMCTXtest"));
}

// To pass over a hook that is there would hand the backup a device that the site has not prepared.
TEST_F(Volumes, site_script_that_cannot_be_looked_at_is_run_needs_root) {
    if (!test::is_real_root()) GTEST_SKIP() << "chown needs the machine's root";
    hdef *h = new_mirrored_device();
    const test::SystemFault fault("access", 1, EIO);
    EXPECT_EQ(volumes(h), 11);
    EXPECT_EQ(commands().size(), 0U);
    EXPECT_EQ(errnum, 3);
}

TEST_F(Volumes, failed_owner_change_of_the_raw_path_still_changes_the_block_path_needs_root) {
    if (!test::is_real_root()) GTEST_SKIP() << "chown needs the machine's root";
    hdef *h = new_mirrored_device();
    unlink("/dev/qz/rdmp/b0");
    EXPECT_EQ(volumes(h), 11);
    expect_failure(3,
                   "set_owner_ids: Cannot chown /dev/qz/rdmp/b0 to uid=11, gid=12: "
                   "No such file or directory");
    EXPECT_EQ(owners("/dev/qz/dmp/b0"), "13:14");
    EXPECT_EQ(path[0], 'x');
}

TEST_F(Volumes, failed_owner_change_of_the_block_path_fails_the_call_needs_root) {
    if (!test::is_real_root()) GTEST_SKIP() << "chown needs the machine's root";
    hdef *h = new_mirrored_device();
    unlink("/dev/qz/dmp/b0");
    EXPECT_EQ(volumes(h), 11);
    expect_failure(3,
                   "set_owner_ids: Cannot chown /dev/qz/dmp/b0 to uid=13, gid=14: "
                   "No such file or directory");
    EXPECT_EQ(owners("/dev/qz/rdmp/b0"), "11:12");
}

TEST_F(Volumes, failed_owner_changes_of_both_paths_are_both_reported) {
    hdef *h = new_mirrored_device();
    unlink("/dev/qz/rdmp/b0");
    unlink("/dev/qz/dmp/b0");
    EXPECT_EQ(volumes(h), 11);
    EXPECT_EQ(whole_log(),
              "set_owner_ids: Cannot chown /dev/qz/rdmp/b0 to uid=11, gid=12: "
              "No such file or directory\n"
              "set_owner_ids: Cannot chown /dev/qz/dmp/b0 to uid=13, gid=14: "
              "No such file or directory\n");
}

// The next try needs them.
TEST_F(Volumes, failed_owner_change_keeps_the_files_of_every_kind_and_mounts_nothing) {
    for (const int32_t type : {1, 2, 3}) {
        hdef *h = new_mirrored_device(type);
        unlink("/dev/qz/rdmp/b0");
        give_transfer_file(h, "/tmp/EMCTXtest");
        EXPECT_EQ(volumes(h), 11) << type;
        EXPECT_EQ(errnum, 3) << type;
        EXPECT_EQ(count, 0) << type;
        EXPECT_EQ(path[0], 'x') << type;
        EXPECT_TRUE(has_capture_files(h)) << type;
        EXPECT_TRUE(test::exists("/tmp/EMCTXtest")) << type;
        EXPECT_STREQ(h->transfer_file, "/tmp/EMCTXtest") << type;
    }
    EXPECT_EQ(test::fake_host().calls, test::Lines{});
}

TEST_F(Volumes, unlisted_disk_group_is_reported) {
    hdef *h = new_object(TF_OBJECT_RAW_DEVICE);
    h->is_vol = h->dgimport = 1;
    tf::put(h->vol_group, "otherdg");
    EXPECT_EQ(volumes(h), 11);
    expect_failure(11, "TimeFinder_volumes: otherdg: disk group not listed");
    EXPECT_STREQ(h->clone_group, "");
}

TEST_F(Volumes, unlisted_disk_group_keeps_the_clone_name_that_it_had) {
    hdef *h = new_object(TF_OBJECT_RAW_DEVICE);
    h->is_vol = h->dgimport = 1;
    tf::put(h->vol_group, "datadg");
    tf::put(h->clone_group, "datadg_clone");
    EXPECT_EQ(volumes(h), 11);
    expect_failure(11, "TimeFinder_volumes: datadg: disk group not listed");
    EXPECT_STREQ(h->clone_group, "datadg_clone");
    EXPECT_EQ(commands(), test::Lines{});
}

TEST_F(Volumes, clone_tool_copies_the_group_on_the_same_host) {
    hdef *h = new_cloned_volume();
    give_transfer_file(h, "/tmp/EMCTXtest");
    ASSERT_EQ(volumes(h), 0);
    EXPECT_EQ(commands(), test::Lines{"/usr/quill/tessera/bin/tqdgclone -g datadg -n vola "
                                      "-d /dev/qz/rdmp/p0,/dev/rdsk/01A1 -p DEFAULT"});
    EXPECT_STREQ(path, "/dev/qz/rdsk/datadg_clone/vola");
    EXPECT_STREQ(h->clone_group, "datadg_clone");
    EXPECT_EQ(count, 1);
    EXPECT_EQ(DG_LIST->imported, 1);
    EXPECT_FALSE(test::exists("/tmp/EMCTXtest"));
    EXPECT_TRUE(has_no_capture_files(h));
}

TEST_F(Volumes, clone_tool_on_the_backup_host_reads_the_transfer_file) {
    hdef *h = new_cloned_volume("vola", TF_OBJECT_BLOCK_DEVICE);
    new_volume("volb");
    h->is_rebuilt = 1;
    give_transfer_file(h, "/tmp/EMCTXtest");
    ASSERT_EQ(volumes(h), 0);
    EXPECT_EQ(commands(),
              test::Lines{"/usr/quill/tessera/bin/tqdgclone -g datadg -n volb,vola "
                          "-d /dev/qz/rdmp/p0,/dev/rdsk/01A1 -i /tmp/EMCTXtest -r client1"});
    EXPECT_STREQ(path, "/dev/qz/dsk/client1_datadg_clone/vola");
    EXPECT_STREQ(h->clone_group, "client1_datadg_clone");
}

TEST_F(Volumes, failed_clone_tool_empties_the_clone_name) {
    hdef *h = new_cloned_volume();
    give_transfer_file(h, "/tmp/EMCTXtest");
    test::RecordedCommands::fail(1);
    EXPECT_EQ(volumes(h), 11);
    expect_failure(3, failed_command(h,
                                     "/usr/quill/tessera/bin/tqdgclone -g datadg -n vola "
                                     "-d /dev/qz/rdmp/p0,/dev/rdsk/01A1 -p DEFAULT"));
    EXPECT_STREQ(h->clone_group, "");
    EXPECT_EQ(DG_LIST->imported, 0);
    EXPECT_EQ(count, 0);
    EXPECT_EQ(path[0], 'x');
    EXPECT_TRUE(has_capture_files(h));
    EXPECT_TRUE(test::exists("/tmp/EMCTXtest"));
}

TEST_F(Volumes, failed_lists_empty_the_clone_name_and_are_passed_on) {
    hdef *h = new_cloned_volume();
    test::fail_allocation(1);
    EXPECT_EQ(volumes(h), 11);
    expect_failure(1, "get_dg_vols: Memory allocation failure at line 372");
    EXPECT_STREQ(h->clone_group, "");
    test::fail_allocation(2);
    EXPECT_EQ(volumes(h), 11);
    expect_failure(1, "get_device_list: Memory allocation failure at line 1444");
    EXPECT_STREQ(h->clone_group, "");
    EXPECT_EQ(commands(), test::Lines{});
}

TEST_F(Volumes, every_allocation_may_fail_once) {
    hdef *h = new_cloned_volume();
    int failures = 0;
    for (int n = 1; n < 20; ++n) {
        DG_LIST->imported = 0;
        test::fail_allocation(n);
        const int32_t status = volumes(h);
        const bool reached = test::allocations_seen() >= n;
        test::no_more_faults();
        EXPECT_EQ(status, reached ? 11 : 0) << "allocation " << n;
        EXPECT_EQ(DG_LIST->imported, reached ? 0 : 1) << "allocation " << n;
        if (reached) ++failures;
    }
    EXPECT_EQ(failures, 2);
}

TEST_F(Volumes, import_brings_the_mirrors_group_up_under_the_clone_name) {
    hdef *h = new_imported_volume();
    h->is_rebuilt = 1;
    ASSERT_EQ(volumes(h), 0);
    EXPECT_EQ(commands(), (test::Lines{"/usr/sbin/qzdg -C -n client1_datadg_clone import datadg",
                                       "/usr/sbin/qzvol -g client1_datadg_clone startall"}));
    EXPECT_STREQ(path, "/dev/qz/rdsk/client1_datadg_clone/vola");
    EXPECT_EQ(count, 1);
}

TEST_F(Volumes, failed_import_enables_the_daemon_and_is_tried_once_more) {
    test::RecordedCommands::fail(1);
    test::RecordedCommands::fail(2);  // a failed "enable" changes nothing
    ASSERT_EQ(volumes(new_imported_volume()), 0);
    EXPECT_EQ(commands(), (test::Lines{"/usr/sbin/qzdg -C -n datadg_clone import datadg",
                                       "/usr/sbin/qzdctl enable",
                                       "/usr/sbin/qzdg -C -n datadg_clone import datadg",
                                       "/usr/sbin/qzvol -g datadg_clone startall"}));
    EXPECT_EQ(DG_LIST->imported, 1);
}

TEST_F(Volumes, second_failed_import_fails_the_call) {
    test::RecordedCommands::fail(1);
    test::RecordedCommands::fail(3);
    hdef *h = new_imported_volume();
    EXPECT_EQ(volumes(h), 11);
    expect_failure(3, failed_command(h, "/usr/sbin/qzdg -C -n datadg_clone import datadg"));
    EXPECT_EQ(commands().size(), 3U);
    EXPECT_STREQ(h->clone_group, "");
    EXPECT_EQ(DG_LIST->imported, 0);
    EXPECT_EQ(count, 0);
}

TEST_F(Volumes, failed_start_of_the_volumes_fails_the_call) {
    test::RecordedCommands::fail(2);
    hdef *h = new_imported_volume();
    EXPECT_EQ(volumes(h), 11);
    expect_failure(3, failed_command(h, "/usr/sbin/qzvol -g datadg_clone startall"));
    EXPECT_STREQ(h->clone_group, "");
    EXPECT_EQ(DG_LIST->imported, 0);
}

TEST_F(Volumes, group_is_brought_up_once_for_all_its_objects) {
    hdef *second = new_imported_volume("volb");
    ASSERT_EQ(volumes(new_imported_volume("vola")), 0);
    const test::Lines first = commands();
    ASSERT_EQ(volumes(second), 0);
    EXPECT_EQ(commands(), first);
    EXPECT_STREQ(path, "/dev/qz/rdsk/datadg_clone/volb");
    EXPECT_EQ(count, 1);
    test::RecordedCommands::install_site_script();
    ASSERT_EQ(volumes(second), 0);
    EXPECT_EQ(commands().back(),
              "/usr/quill/tessera/bin/tqdgclone_script QzVM datadg datadg_clone volb");
    EXPECT_EQ(commands().size(), first.size() + 1);
}

TEST_F(Volumes, failed_site_script_of_a_volume_keeps_the_group_up) {
    test::RecordedCommands::install_site_script();
    test::RecordedCommands::fail(3);
    hdef *h = new_imported_volume();
    EXPECT_EQ(volumes(h), 11);
    expect_failure(3, failed_command(h,
                                     "/usr/quill/tessera/bin/tqdgclone_script QzVM datadg "
                                     "datadg_clone vola"));
    EXPECT_EQ(DG_LIST->imported, 1);
    EXPECT_STREQ(h->clone_group, "datadg_clone");
    EXPECT_EQ(count, 0);
}

TEST_F(Volumes, unknown_kind_of_object_is_reported_and_cleans_up) {
    hdef *h = new_ready_volume(4);
    give_transfer_file(h, "/tmp/EMCTXtest");
    EXPECT_EQ(volumes(h), 11);
    expect_failure(13, "TimeFinder_volumes: Unknown snapshot source type: 4");
    EXPECT_EQ(path[0], 'x');
    EXPECT_EQ(count, 1);
    EXPECT_TRUE(has_no_capture_files(h));
    EXPECT_TRUE(test::exists("/tmp/EMCTXtest"));
}

TEST_F(Volumes, capture_files_stay_unless_both_names_are_set_needs_root) {
    if (!test::is_real_root()) GTEST_SKIP() << "chown needs the machine's root";
    hdef *h = new_mirrored_device();
    char *const out_file = h->out_file;
    h->out_file = nullptr;
    ASSERT_EQ(volumes(h), 0);
    EXPECT_TRUE(test::exists(h->err_file));
    h->out_file = out_file;
}

}  // namespace
