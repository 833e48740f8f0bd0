#include "method/restore.h"

#include <sys/stat.h>
#include <unistd.h>

#include "tests/method/release_fixture.h"

namespace {

constexpr char array_1[] = "000184500001";
constexpr char array_2[] = "000184500002";

class Restore : public test::Release {
  protected:
    Restore() {
        set_level(0);
        test::write_mount_table("server:/x /srv nfs rw 0 0\n");
    }
    // A volume that is to be restored, with one pair on array_1.
    hdef *new_restored(const char *volume, const char *primary, const char *bcv,
                       int32_t object_type = TF_OBJECT_RAW_DEVICE, const char *group = "datadg") {
        hdef *h = new_imported_volume(volume, group, object_type);
        h->restore = 1;
        add_pair(h, array_1, primary, bcv, ("/dev/p" + std::string(primary)).c_str(), 5);
        tf::put(h->fstype, ("type_of_" + std::string(volume)).c_str());
        tf::put(h->dev_raw_device, ("/dev/raw_" + std::string(volume)).c_str());
        tf::put(h->dev_block_device, ("/dev/block_" + std::string(volume)).c_str());
        tf::put(h->mount_point, ("/mnt/" + std::string(volume)).c_str());
        return h;
    }
    test::Lines controls() const { return array.calls_of("SymDevListBcvControl"); }
};

const test::Lines deport_import_start = {"/usr/sbin/qzdg deport datadg",
                                         "/usr/sbin/qzdg -C import datadg",
                                         "/usr/sbin/qzvol -g datadg startall"};

TEST_F(Restore, pair_is_copied_back_and_the_group_comes_back_on_line) {
    hdef *h = new_restored("vola", "00A1", "01A1");
    give_transfer_file(h, "/tmp/EMCTXtest");
    EXPECT_EQ(TimeFinder_thaw_commit(h), 0);
    EXPECT_EQ(controls(), test::Lines{"SymDevListBcvControl 000184500001 1 [00A1] [01A1] action 5 "
                                      "option 0x0 0"});
    EXPECT_EQ(commands(), deport_import_start);
    EXPECT_EQ(whole_log(),
              "Adding <00A1, 01A1> to resync list\n"
              "Restoring from mirror\n"
              "Total BCVs to resync : 1\n"
              "Resync started ...\n"
              "Resync end\n");
    EXPECT_EQ(array.state(array_1, "00A1"), 8);
    EXPECT_FALSE(test::exists("/tmp/EMCTXtest"));
    EXPECT_TRUE(has_no_capture_files(h));
    expect_no_failure();
}

TEST_F(Restore, unlisted_disk_group_fails_the_call_which_counts) {
    hdef *h = new_object(TF_OBJECT_RAW_DEVICE);
    h->restore = h->dgimport = 1;
    tf::put(h->vol_group, "otherdg");
    EXPECT_EQ(TimeFinder_thaw_commit(h), 11);
    expect_failure(11, "TimeFinder_thaw_commit: otherdg: disk group not listed");
    EXPECT_EQ(thaw_commit_vols, 1);
    EXPECT_EQ(array.calls, test::Lines{});
}

// What a failed rebuild leaves: its group is listed, it is not.
TEST_F(Restore, group_without_objects_is_neither_deported_nor_imported) {
    hdef *h = new_object(TF_OBJECT_RAW_DEVICE);
    h->is_vol = h->dgimport = h->restore = 1;
    tf::put(h->vol_group, "datadg");
    test::fail_allocation(2);
    ASSERT_EQ(dg_insert(h), 11);
    test::no_more_faults();
    ASSERT_NE(dg_find("datadg"), nullptr);
    total_freeze_volumes = 1;
    EXPECT_EQ(TimeFinder_thaw_commit(h), 0);
    EXPECT_EQ(commands(), test::Lines());
    EXPECT_EQ(controls(), test::Lines());
    EXPECT_EQ(dg_find("datadg")->restore_count, 1);
}

TEST_F(Restore, mounted_file_system_is_unmounted_before_its_group_is_deported) {
    test::write_mount_table("/dev/x /etc ext4 rw 0 0\n");
    hdef *h = new_restored("vola", "00A1", "01A1", TF_OBJECT_FILE_SYSTEM);
    tf::put(h->dev_block_device, "/etc");
    test::fake_host().on_command = [&](const std::string &line, const Q_sys_cmd_exec_options &o) {
        if (line.starts_with("umount")) {
            EXPECT_EQ(commands(), test::Lines{});
            EXPECT_GE(o.out_fd, 0);
            EXPECT_GE(o.err_fd, 0);
            EXPECT_TRUE(has_capture_files(h));
        }
    };
    EXPECT_EQ(TimeFinder_thaw_commit(h), 0);
    EXPECT_EQ(test::fake_host().calls[0], "umount /mnt/vola 0");
    EXPECT_EQ(commands()[0], "/usr/sbin/qzdg deport datadg");
}

TEST_F(Restore, file_system_that_is_not_mounted_is_not_unmounted) {
    hdef *h = new_restored("vola", "00A1", "01A1", TF_OBJECT_FILE_SYSTEM);
    test::fake_host().on_command = [](const std::string &, const Q_sys_cmd_exec_options &) {
        EXPECT_EQ(commands(), deport_import_start);  // the group is on line before it is checked
    };
    EXPECT_EQ(TimeFinder_thaw_commit(h), 0);
    EXPECT_EQ(test::fake_host().calls, (test::Lines{"fsck /dev/raw_vola type_of_vola 0",
                                                    "mount /dev/block_vola /mnt/vola type_of_vola "
                                                    "0"}));
}

TEST_F(Restore, only_file_systems_are_unmounted) {
    test::write_mount_table("/dev/x /etc ext4 rw 0 0\n");
    hdef *h = new_restored("vola", "00A1", "01A1", TF_OBJECT_BLOCK_DEVICE);
    tf::put(h->dev_block_device, "/etc");
    EXPECT_EQ(TimeFinder_thaw_commit(h), 0);
    EXPECT_EQ(test::fake_host().calls, test::Lines{});
}

TEST_F(Restore, failed_unmount_returns_11_at_once_without_a_message) {
    test::write_mount_table("/dev/x /etc ext4 rw 0 0\n");
    hdef *h = new_restored("vola", "00A1", "01A1", TF_OBJECT_FILE_SYSTEM);
    tf::put(h->dev_block_device, "/etc");
    test::fake_host().umount_result = 1;
    EXPECT_EQ(TimeFinder_thaw_commit(h), 11);
    expect_no_failure();
    EXPECT_EQ(DG_LIST->restore_count, 0);
    EXPECT_EQ(commands(), test::Lines{});
    EXPECT_EQ(array.calls, test::Lines{});
    EXPECT_TRUE(has_capture_files(h));
}

TEST_F(Restore, last_object_of_a_group_deports_it) {
    total_freeze_volumes = 2;
    hdef *first = new_restored("vola", "00A1", "01A1");
    hdef *second = new_restored("volb", "00A2", "01A2");
    EXPECT_EQ(TimeFinder_thaw_commit(first), 0);
    EXPECT_EQ(DG_LIST->restore_count, 1);
    EXPECT_EQ(commands(), test::Lines{});
    EXPECT_EQ(TimeFinder_thaw_commit(second), 0);
    EXPECT_EQ(commands(), deport_import_start);
    EXPECT_TRUE(logged("Total BCVs to resync : 2"));
}

TEST_F(Restore, group_is_deported_before_the_last_object_of_the_process_comes) {
    total_freeze_volumes = 2;
    hdef *first = new_restored("vola", "00A1", "01A1");
    hdef *other = new_restored("volx", "00A2", "01A2", TF_OBJECT_RAW_DEVICE, "otherdg");
    EXPECT_EQ(TimeFinder_thaw_commit(first), 0);
    EXPECT_EQ(commands(), test::Lines{"/usr/sbin/qzdg deport datadg"});
    EXPECT_EQ(array.calls, test::Lines{});
    EXPECT_TRUE(has_no_capture_files(first));
    EXPECT_EQ(TimeFinder_thaw_commit(other), 0);
    EXPECT_EQ(
        commands(),
        (test::Lines{"/usr/sbin/qzdg deport datadg", "/usr/sbin/qzdg deport otherdg",
                     "/usr/sbin/qzdg -C import otherdg", "/usr/sbin/qzvol -g otherdg startall",
                     "/usr/sbin/qzdg -C import datadg", "/usr/sbin/qzvol -g datadg startall"}));
}

// Overwriting the disks of a group that is still imported would destroy it.
TEST_F(Restore, group_that_is_not_complete_is_not_restored_even_by_the_last_call) {
    hdef *first = new_restored("vola", "00A1", "01A1");
    new_restored("volb", "00A2", "01A2");
    EXPECT_EQ(TimeFinder_thaw_commit(first), 0);
    EXPECT_EQ(array.calls, test::Lines{});
    EXPECT_EQ(commands(), test::Lines{});
}

TEST_F(Restore, group_whose_first_object_is_not_imported_is_left_alone) {
    hdef *h = new_restored("vola", "00A1", "01A1");
    h->dgimport = 0;
    EXPECT_EQ(TimeFinder_thaw_commit(h), 0);
    EXPECT_EQ(DG_LIST->restore_count, 1);
    EXPECT_EQ(array.calls, test::Lines{});
    EXPECT_EQ(commands(), test::Lines{});
}

// The object that was listed last stands first, whichever object the call is about.
TEST_F(Restore, newest_object_of_the_group_decides_whether_it_is_imported) {
    hdef *h = new_restored("vola", "00A1", "01A1");
    new_restored("volb", "00A2", "01A2")->dgimport = 0;
    EXPECT_EQ(TimeFinder_thaw_commit(h), 0);
    EXPECT_EQ(TimeFinder_thaw_commit(h), 0);
    EXPECT_EQ(DG_LIST->restore_count, DG_LIST->vol_count);
    EXPECT_EQ(array.calls, test::Lines{});
    EXPECT_EQ(commands(), test::Lines{});
}

TEST_F(Restore, call_behind_the_last_one_of_its_group_deports_nothing) {
    hdef *h = new_restored("vola", "00A1", "01A1");
    EXPECT_EQ(TimeFinder_thaw_commit(h), 0);
    array.calls.clear();
    EXPECT_EQ(TimeFinder_thaw_commit(h), 0);
    EXPECT_EQ(DG_LIST->restore_count, 2);
    EXPECT_EQ(array.calls, test::Lines{});
    EXPECT_EQ(commands(), deport_import_start);
}

TEST_F(Restore, failed_deport_is_returned_before_the_array_is_touched) {
    hdef *h = new_restored("vola", "00A1", "01A1");
    test::RecordedCommands::fail(1);
    EXPECT_EQ(TimeFinder_thaw_commit(h), 11);
    expect_failure(3, failed_command(h, "/usr/sbin/qzdg deport datadg"));
    EXPECT_EQ(array.calls, test::Lines{});
    EXPECT_TRUE(has_capture_files(h));
}

// The waits.

TEST_F(Restore, pairs_are_waited_for_in_the_order_of_the_sorted_table) {
    hdef *h = new_restored("vola", "00A2", "01A2");
    add_pair(h, array_2, "00A3", "01A3", "/dev/p00A3", 5);
    add_pair(h, array_1, "00A1", "01A1", "/dev/p00A1", 5);
    bool behind_control = false;
    test::Lines waits;
    array.on_call = [&](const std::string &line) {
        if (line.find("000184500002") != std::string::npos &&
            line.starts_with("SymDevListBcvControl")) {
            behind_control = true;
        }
        if (behind_control && line.starts_with("SymPdevShow ")) waits.push_back(line.substr(12));
    };
    EXPECT_EQ(TimeFinder_thaw_commit(h), 0);
    EXPECT_EQ(controls().size(), 2U);
    ASSERT_EQ(waits.size(), 3U);
    EXPECT_EQ(waits[2], "/dev/p00A3");
}

TEST_F(Restore, restoring_pair_is_waited_for) {
    array.state_after_action[5] = 7;
    hdef *h = new_restored("vola", "00A1", "01A1");
    test::on_sleep([this](unsigned) { array.set_state(array_1, "00A1", 8); });
    EXPECT_EQ(TimeFinder_thaw_commit(h), 0);
    test::on_sleep(nullptr);
    EXPECT_EQ(test::sleeps(), std::vector<unsigned>{1});
}

TEST_F(Restore, synchronised_pair_is_as_good_as_a_restored_one) {
    array.state_after_action[5] = 2;
    EXPECT_EQ(TimeFinder_thaw_commit(new_restored("vola", "00A1", "01A1")), 0);
}

TEST_F(Restore, pair_that_ends_in_another_state_fails_the_call) {
    array.state_after_action[5] = 5;
    hdef *h = new_restored("vola", "00A1", "01A1");
    give_transfer_file(h, "/tmp/EMCTXtest");
    EXPECT_EQ(TimeFinder_thaw_commit(h), 11);
    expect_failure(3, "TimeFinder_thaw_commit: device /dev/p00A1 not established");
    EXPECT_EQ(commands(), test::Lines{"/usr/sbin/qzdg deport datadg"});
    EXPECT_TRUE(test::exists("/tmp/EMCTXtest"));
}

TEST_F(Restore, pair_behind_one_that_ends_badly_is_not_waited_for) {
    array.state_after_action[5] = 5;
    hdef *h = new_restored("vola", "00A1", "01A1");
    add_pair(h, array_2, "00A2", "01A2", "/dev/p00A2", 5);
    test::Lines behind_control;
    array.on_call = [&](const std::string &line) {
        if (controls().size() == 2 && !line.starts_with("SymDevListBcvControl ")) {
            behind_control.push_back(line);
        }
    };
    EXPECT_EQ(TimeFinder_thaw_commit(h), 11);
    expect_failure(3, "TimeFinder_thaw_commit: device /dev/p00A1 not established");
    EXPECT_EQ(behind_control,
              (test::Lines{"SymDevSync 000184500001 01A1 2 0", "SymPdevShow /dev/p00A1"}));
}

TEST_F(Restore, failed_wait_has_read_no_good_state) {
    hdef *h = new_restored("vola", "00A1", "01A1");
    array.script_call("SymDevSync", 3, 66);
    EXPECT_EQ(TimeFinder_thaw_commit(h), 11);
    expect_failure(3, "TimeFinder_thaw_commit: device /dev/p00A1 not established");
    EXPECT_TRUE(
        logged("wait_for_establish: SymAPI call to SymDevSync on device 01A1 failed with "
               "code 66 (array error 66)"));
}

TEST_F(Restore, failed_control_call_is_lost_when_every_wait_ends_well) {
    hdef *h = new_restored("vola", "00A1", "01A1");
    array.script("SymDevListBcvControl", {55});
    array.on_call = [this](const std::string &line) {
        if (line.starts_with("SymDevListBcvControl")) array.set_state(array_1, "00A1", 8);
    };
    EXPECT_EQ(TimeFinder_thaw_commit(h), 0);
    EXPECT_TRUE(
        logged("emc_tf_bcv_control_all: SymAPI call to SymDevListBcvControl to establish "
               "BCV failed with code: 55 (array error 55)"));
    EXPECT_EQ(commands(), deport_import_start);
}

// Bringing the primaries back.

TEST_F(Restore, nothing_to_copy_back_still_brings_the_group_back) {
    hdef *h = new_restored("vola", "00A1", "01A1");
    h->pminfo_list->sync_at_end = 0;
    EXPECT_EQ(TimeFinder_thaw_commit(h), 0);
    EXPECT_EQ(controls(), test::Lines{});
    EXPECT_EQ(commands(), deport_import_start);
}

TEST_F(Restore, failed_import_enables_the_daemon_and_is_tried_once_more) {
    test::RecordedCommands::fail(2);
    EXPECT_EQ(TimeFinder_thaw_commit(new_restored("vola", "00A1", "01A1")), 0);
    EXPECT_EQ(commands(),
              (test::Lines{"/usr/sbin/qzdg deport datadg", "/usr/sbin/qzdg -C import datadg",
                           "/usr/sbin/qzdctl enable", "/usr/sbin/qzdg -C import datadg",
                           "/usr/sbin/qzvol -g datadg startall"}));
}

TEST_F(Restore, second_failed_import_is_returned) {
    test::RecordedCommands::fail(2);
    test::RecordedCommands::fail(4);
    hdef *h = new_restored("vola", "00A1", "01A1", TF_OBJECT_FILE_SYSTEM);
    give_transfer_file(h, "/tmp/EMCTXtest");
    EXPECT_EQ(TimeFinder_thaw_commit(h), 11);
    expect_failure(3, failed_command(h, "/usr/sbin/qzdg -C import datadg"));
    EXPECT_EQ(commands().size(), 4U);
    EXPECT_EQ(test::fake_host().calls, test::Lines{});
    EXPECT_TRUE(test::exists("/tmp/EMCTXtest"));
    EXPECT_TRUE(has_capture_files(h));
}

TEST_F(Restore, failed_start_of_the_volumes_is_returned) {
    test::RecordedCommands::fail(3);
    hdef *h = new_restored("vola", "00A1", "01A1", TF_OBJECT_FILE_SYSTEM);
    EXPECT_EQ(TimeFinder_thaw_commit(h), 11);
    expect_failure(3, failed_command(h, "/usr/sbin/qzvol -g datadg startall"));
    EXPECT_EQ(test::fake_host().calls, test::Lines{});
}

TEST_F(Restore, groups_without_volumes_or_without_import_are_not_imported) {
    hdef *plain = new_device();
    plain->dgimport = 1;
    new_volume("voly", "cloneddg");
    hdef *h = new_restored("vola", "00A1", "01A1");
    EXPECT_EQ(TimeFinder_thaw_commit(h), 0);
    EXPECT_EQ(commands(), deport_import_start);
}

// Type, block device and mount point are those of the object of the call.
TEST_F(Restore, every_file_system_is_checked_but_the_object_of_the_call_is_mounted) {
    total_freeze_volumes = 2;
    hdef *first = new_restored("vola", "00A1", "01A1", TF_OBJECT_FILE_SYSTEM);
    hdef *second = new_restored("volb", "00A2", "01A2", TF_OBJECT_FILE_SYSTEM);
    EXPECT_EQ(TimeFinder_thaw_commit(second), 0);
    EXPECT_EQ(TimeFinder_thaw_commit(first), 0);
    EXPECT_EQ(test::fake_host().calls,
              (test::Lines{"fsck /dev/raw_volb type_of_vola 0",
                           "mount /dev/block_vola /mnt/vola type_of_vola 0",
                           "fsck /dev/raw_vola type_of_vola 0",
                           "mount /dev/block_vola /mnt/vola type_of_vola 0"}));
    EXPECT_TRUE(has_no_capture_files(first));
    EXPECT_TRUE(has_no_capture_files(second));
}

TEST_F(Restore, file_systems_behind_one_that_failed_are_left_alone) {
    total_freeze_volumes = 2;
    hdef *first = new_restored("vola", "00A1", "01A1", TF_OBJECT_FILE_SYSTEM);
    hdef *second = new_restored("volb", "00A2", "01A2", TF_OBJECT_FILE_SYSTEM);
    test::fake_host().fsck_result = 1;
    // Whatever comes next would succeed.
    test::fake_host().on_command = [](const std::string &, const Q_sys_cmd_exec_options &) {
        test::fake_host().fsck_result = 0;
    };
    EXPECT_EQ(TimeFinder_thaw_commit(second), 0);
    EXPECT_EQ(TimeFinder_thaw_commit(first), 11);
    EXPECT_EQ(test::fake_host().calls, test::Lines{"fsck /dev/raw_volb type_of_vola 0"});
}

TEST_F(Restore, failed_check_is_reported_and_dumped) {
    hdef *h = new_restored("vola", "00A1", "01A1", TF_OBJECT_FILE_SYSTEM);
    give_transfer_file(h, "/tmp/EMCTXtest");
    test::fake_host().fsck_result = 8;
    test::fake_host().fsck_exit = 5;
    EXPECT_EQ(TimeFinder_thaw_commit(h), 11);
    const std::string message =
        "TimeFinder_thaw_commit: Q_fsck(/dev/raw_vola, type_of_vola) failed with status=8, "
        "exit_status=5(Input/output error)";
    expect_failure(3, message);
    const std::string out = h->out_file;
    const std::string err = h->err_file;
    EXPECT_TRUE(whole_log().ends_with(message + "\n--- Dumping file " + out +
                                      " (stdout):\n--- End of file " + out + "\n--- Dumping file " +
                                      err + " (stderr):\n--- End of file " + err + "\n"));
    EXPECT_EQ(test::fake_host().calls.size(), 1U);
    EXPECT_TRUE(test::exists("/tmp/EMCTXtest"));
}

TEST_F(Restore, failed_mount_is_reported_and_dumped) {
    hdef *h = new_restored("vola", "00A1", "01A1", TF_OBJECT_FILE_SYSTEM);
    test::fake_host().mount_result = 1;
    test::fake_host().mount_exit = 32;
    EXPECT_EQ(TimeFinder_thaw_commit(h), 11);
    expect_failure(
        3, "TimeFinder_thaw_commit: Q_mount() failed with status=1, exit_status=32(Broken pipe)");
    EXPECT_TRUE(whole_log().ends_with("--- End of file " + std::string(h->err_file) + "\n"));
}

// The last status wins.
TEST_F(Restore, group_that_came_back_hides_a_session_that_did_not_end) {
    hdef *h = new_restored("vola", "00A1", "01A1");
    give_transfer_file(h, "/tmp/EMCTXtest");
    array.script("SymExit", {33});
    EXPECT_EQ(TimeFinder_thaw_commit(h), 0);
    expect_failure(3,
                   "TimeFinder_thaw_commit: SymAPI call to SymExit failed with code 33 "
                   "(array error 33)");
    EXPECT_EQ(controls(), test::Lines{});
    EXPECT_EQ(commands(), deport_import_start);
    EXPECT_FALSE(test::exists("/tmp/EMCTXtest"));
}

// The phases on their own.

TEST_F(Restore, preparation_says_whether_the_group_is_complete) {
    hdef *first = new_restored("vola", "00A1", "01A1");
    hdef *second = new_restored("volb", "00A2", "01A2");
    bool complete = true;
    EXPECT_EQ(tf::prepare_restore(first, &complete), 0);
    EXPECT_FALSE(complete);
    EXPECT_EQ(tf::prepare_restore(second, &complete), 0);
    EXPECT_TRUE(complete);
}

TEST_F(Restore, status_so_far_stands_when_there_is_nothing_to_bring_back) {
    hdef *h = new_device();
    EXPECT_EQ(tf::bring_restored_back(h, 11), 11);
    h->object_type = TF_OBJECT_FILE_SYSTEM;
    EXPECT_EQ(tf::bring_restored_back(h, 11), 0);
}

TEST_F(Restore, wait_for_no_pair_is_a_success) {
    EXPECT_EQ(tf::wait_for_restore(new_device(), 0), 0);
}

}  // namespace
