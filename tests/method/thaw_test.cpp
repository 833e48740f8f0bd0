#include <unistd.h>

#include <cerrno>

#include "tests/method/release_fixture.h"
#include "tests/support/system_faults.h"

namespace {

class Thaw : public test::Release {
  protected:
    // A file system of a plain device whose copy this process has mounted on path.
    hdef *new_mounted(const char *mount_point) {
        hdef *h = new_device(TF_OBJECT_FILE_SYSTEM);
        h->is_mount = 1;
        tf::put(h->mount_point, mount_point);
        return h;
    }
};

TEST_F(Thaw, null_handle_is_reported) {
    EXPECT_EQ(TimeFinder_thaw(nullptr), 11);
    expect_failure(7, "TimeFinder_thaw: A required parameter is NULL: fih");
}

TEST_F(Thaw, unknown_kinds_of_object_are_refused_before_anything_is_done) {
    hdef *h = new_mounted("/var");
    give_transfer_file(h, "/tmp/EMCTXtest");
    for (const int32_t type : {-1, 0, 4}) {
        h->object_type = type;
        EXPECT_EQ(TimeFinder_thaw(h), 11);
        expect_failure(13,
                       "TimeFinder_thaw: Unknown snapshot source type: " + std::to_string(type));
    }
    EXPECT_TRUE(has_capture_files(h));
    EXPECT_TRUE(test::exists("/tmp/EMCTXtest"));
    EXPECT_EQ(test::fake_host().calls, test::Lines{});
}

TEST_F(Thaw, every_known_kind_without_a_clone_group_deletes_its_files_and_runs_nothing) {
    for (const int32_t type : {1, 2, 3}) {
        hdef *h = new_device(type);
        give_transfer_file(h, "/tmp/EMCTXtest");
        EXPECT_EQ(TimeFinder_thaw(h), 0);
        EXPECT_FALSE(test::exists("/tmp/EMCTXtest"));
        EXPECT_STREQ(h->transfer_file, "");
        EXPECT_TRUE(has_no_capture_files(h));
    }
    EXPECT_EQ(commands(), test::Lines{});
    EXPECT_EQ(test::fake_host().calls, test::Lines{});
    EXPECT_EQ(whole_log(), "");
    EXPECT_EQ(array.calls, test::Lines{});
}

TEST_F(Thaw, copy_that_this_process_mounted_is_unmounted) {
    hdef *h = new_mounted("/var");
    std::string streams;
    test::fake_host().on_command = [&](const std::string &, const Q_sys_cmd_exec_options &options) {
        streams = std::to_string(options.out_fd >= 0) + std::to_string(options.err_fd >= 0);
    };
    EXPECT_EQ(TimeFinder_thaw(h), 0);
    EXPECT_EQ(test::fake_host().calls, test::Lines{"umount /var 0"});
    EXPECT_EQ(streams, "11");
    EXPECT_EQ(h->is_mount, 1);
    EXPECT_TRUE(has_no_capture_files(h));
}

TEST_F(Thaw, only_a_mounted_file_system_is_unmounted) {
    hdef *h = new_mounted("/var");
    h->is_mount = 0;
    EXPECT_EQ(TimeFinder_thaw(h), 0);
    h->is_mount = 2;
    EXPECT_EQ(TimeFinder_thaw(h), 0);
    h->is_mount = 1;
    h->object_type = TF_OBJECT_BLOCK_DEVICE;
    EXPECT_EQ(TimeFinder_thaw(h), 0);
    EXPECT_EQ(test::fake_host().calls, test::Lines{});
}

TEST_F(Thaw, mount_point_that_is_gone_is_not_unmounted_but_the_group_is_released) {
    hdef *h = new_imported_volume("vola", "datadg", TF_OBJECT_FILE_SYSTEM);
    h->is_mount = 1;
    tf::put(h->mount_point, "/no/such/folder");
    EXPECT_EQ(TimeFinder_thaw(h), 0);
    EXPECT_EQ(test::fake_host().calls, test::Lines{});
    EXPECT_EQ(commands(), (test::Lines{"/usr/sbin/qzdg list datadg_clone",
                                       "/usr/sbin/qzdg -n datadg deport datadg_clone"}));
}

TEST_F(Thaw, mount_point_that_cannot_be_looked_at_is_unmounted) {
    hdef *h = new_mounted("/var");
    const test::SystemFault fault("access", 1, EIO);
    EXPECT_EQ(TimeFinder_thaw(h), 0);
    EXPECT_EQ(test::fake_host().calls, test::Lines{"umount /var 0"});
}

// A failed unmount leaves everything for the next try.
TEST_F(Thaw, failed_unmount_returns_at_once_without_a_message_or_clean_up) {
    hdef *h = new_mounted("/var");
    give_transfer_file(h, "/tmp/EMCTXtest");
    test::fake_host().umount_result = 1;
    test::fake_host().umount_exit = 32;
    EXPECT_EQ(TimeFinder_thaw(h), 11);
    expect_no_failure();
    EXPECT_EQ(whole_log(), "");
    EXPECT_TRUE(has_capture_files(h));
    EXPECT_TRUE(test::exists("/tmp/EMCTXtest"));
    EXPECT_STREQ(h->transfer_file, "/tmp/EMCTXtest");
}

TEST_F(Thaw, rebuilt_copy_is_unmounted_when_the_mount_table_has_its_mount_point) {
    test::write_mount_table("/dev/another /dev tmpfs rw 0 0\n");
    hdef *h = new_mounted("/dev");
    h->is_rebuilt = 1;
    EXPECT_EQ(TimeFinder_thaw(h), 0);
    EXPECT_EQ(test::fake_host().calls, test::Lines{"umount /dev 0"});
}

TEST_F(Thaw, rebuilt_copy_whose_mount_point_lies_on_another_mount_stays) {
    test::write_mount_table("/dev/another /dev tmpfs rw 0 0\n");
    test::make_folders("/dev/qz");
    hdef *h = new_mounted("/dev/qz");
    h->is_rebuilt = 1;
    give_transfer_file(h, "/tmp/EMCTXtest");
    EXPECT_EQ(TimeFinder_thaw(h), 0);
    EXPECT_EQ(test::fake_host().calls, test::Lines{});
    EXPECT_FALSE(test::exists("/tmp/EMCTXtest"));
}

// The names are compared to the character: a copy that stays mounted does less harm than somebody
// else's mount that is taken down.
TEST_F(Thaw, rebuilt_copy_whose_mount_point_is_told_in_another_form_stays) {
    test::write_mount_table("/dev/another /dev tmpfs rw 0 0\n");
    for (const char *form : {"/dev/", "//dev", "/dev/."}) {
        hdef *h = new_mounted(form);
        h->is_rebuilt = 1;
        EXPECT_EQ(TimeFinder_thaw(h), 0) << form;
        EXPECT_TRUE(has_no_capture_files(h)) << form;
    }
    EXPECT_EQ(test::fake_host().calls, test::Lines{});
    expect_no_failure();
}

TEST_F(Thaw, rebuilt_copy_that_the_mount_table_does_not_know_stays_and_the_thaw_succeeds) {
    test::write_mount_table("server:/x /srv nfs rw 0 0\n");
    hdef *h = new_mounted("/dev");
    h->is_rebuilt = 1;
    EXPECT_EQ(TimeFinder_thaw(h), 0);
    EXPECT_EQ(test::fake_host().calls, test::Lines{});
    EXPECT_TRUE(logged("emc_tf__find_mount_device: Cannot find device for /dev"));
    EXPECT_TRUE(has_no_capture_files(h));
}

TEST_F(Thaw, unlisted_disk_group_fails_and_removes_only_the_capture_files) {
    hdef *h = new_object(TF_OBJECT_RAW_DEVICE);
    tf::put(h->vol_group, "otherdg");
    give_transfer_file(h, "/tmp/EMCTXtest");
    EXPECT_EQ(TimeFinder_thaw(h), 11);
    expect_failure(11, "TimeFinder_thaw: otherdg: disk group not listed");
    EXPECT_TRUE(has_no_capture_files(h));
    EXPECT_TRUE(test::exists("/tmp/EMCTXtest"));
}

TEST_F(Thaw, copy_of_an_unlisted_group_is_unmounted_all_the_same) {
    hdef *h = new_object(TF_OBJECT_FILE_SYSTEM);
    h->is_mount = 1;
    tf::put(h->mount_point, "/var");
    EXPECT_EQ(TimeFinder_thaw(h), 11);
    expect_failure(11, "TimeFinder_thaw: __NOT_VOL__GRP__: disk group not listed");
    EXPECT_EQ(test::fake_host().calls, test::Lines{"umount /var 0"});
}

TEST_F(Thaw, copy_is_unmounted_before_its_group_is_deported) {
    hdef *h = new_imported_volume("vola", "datadg", TF_OBJECT_FILE_SYSTEM);
    h->is_mount = 1;
    tf::put(h->mount_point, "/var");
    test::fake_host().on_command = [](const std::string &, const Q_sys_cmd_exec_options &) {
        EXPECT_EQ(commands(), test::Lines{});
    };
    EXPECT_EQ(TimeFinder_thaw(h), 0);
    EXPECT_EQ(test::fake_host().calls.size(), 1U);
    EXPECT_EQ(commands().size(), 2U);
}

TEST_F(Thaw, last_of_three_objects_deports_the_imported_group) {
    hdef *objects[] = {new_imported_volume("vola"), new_imported_volume("volb"),
                       new_imported_volume("volc")};
    give_transfer_file(objects[0], "/tmp/EMCTXtest");
    EXPECT_EQ(TimeFinder_thaw(objects[0]), 0);
    EXPECT_FALSE(test::exists("/tmp/EMCTXtest"));
    EXPECT_EQ(TimeFinder_thaw(objects[1]), 0);
    EXPECT_EQ(commands(), test::Lines{});
    EXPECT_EQ(DG_LIST->thaw_count, 2);
    EXPECT_EQ(TimeFinder_thaw(objects[2]), 0);
    EXPECT_EQ(commands(), (test::Lines{"/usr/sbin/qzdg list datadg_clone",
                                       "/usr/sbin/qzdg -n datadg deport datadg_clone"}));
    EXPECT_EQ(DG_LIST->thaw_count, 3);
    EXPECT_TRUE(has_no_capture_files(objects[2]));
}

TEST_F(Thaw, thaw_behind_the_last_one_runs_nothing) {
    hdef *h = new_imported_volume();
    EXPECT_EQ(TimeFinder_thaw(h), 0);
    EXPECT_EQ(TimeFinder_thaw(h), 0);
    EXPECT_EQ(commands().size(), 2U);
}

TEST_F(Thaw, group_that_is_not_imported_here_is_no_failure) {
    hdef *h = new_imported_volume();
    give_transfer_file(h, "/tmp/EMCTXtest");
    test::RecordedCommands::fail(1);
    EXPECT_EQ(TimeFinder_thaw(h), 0);
    EXPECT_EQ(commands(), test::Lines{"/usr/sbin/qzdg list datadg_clone"});
    EXPECT_FALSE(test::exists("/tmp/EMCTXtest"));
}

// The thaws of a group are counted, so the group that stayed imported is not asked for again.
TEST_F(Thaw, group_whose_listing_cannot_run_stays_and_no_later_thaw_deports_it) {
    hdef *h = new_imported_volume();
    {
        const test::SystemFault fault("system", 1, EAGAIN);
        EXPECT_EQ(TimeFinder_thaw(h), 0);
    }
    EXPECT_TRUE(
        std::string(errmsg).starts_with("do_cmd: Command failed with status=255: "
                                        "/usr/sbin/qzdg list datadg_clone "));
    EXPECT_EQ(TimeFinder_thaw(h), 0);
    EXPECT_EQ(commands(), test::Lines{});
    EXPECT_STREQ(h->clone_group, "datadg_clone");
    EXPECT_EQ(DG_LIST->thaw_count, 2);
}

// The group of all plain devices counts no object: no thaw is the last one of it.
TEST_F(Thaw, plain_device_runs_nothing_whatever_it_says_of_an_import) {
    hdef *h = new_device();
    h->dgimport = 1;
    tf::put(h->clone_group, "datadg_clone");
    give_transfer_file(h, "/tmp/EMCTXtest");
    EXPECT_EQ(TimeFinder_thaw(h), 0);
    EXPECT_EQ(commands(), test::Lines{});
    EXPECT_EQ(DG_LIST->vol_count, 0);
    EXPECT_EQ(DG_LIST->thaw_count, 1);
    EXPECT_FALSE(test::exists("/tmp/EMCTXtest"));
    expect_no_failure();
}

TEST_F(Thaw, failed_deport_is_reported_and_keeps_the_transfer_file) {
    hdef *h = new_imported_volume();
    give_transfer_file(h, "/tmp/EMCTXtest");
    test::RecordedCommands::fail(2);
    EXPECT_EQ(TimeFinder_thaw(h), 11);
    expect_failure(11, "TimeFinder_thaw: Unable to clean up disk group datadg_clone, volume vola");
    EXPECT_TRUE(logged(failed_command(h, "/usr/sbin/qzdg -n datadg deport datadg_clone")));
    EXPECT_TRUE(test::exists("/tmp/EMCTXtest"));
    EXPECT_STREQ(h->transfer_file, "/tmp/EMCTXtest");
    EXPECT_TRUE(has_no_capture_files(h));
    EXPECT_EQ(DG_LIST->thaw_count, 1);
}

TEST_F(Thaw, cloned_group_is_cleaned_up_by_the_clone_tool_for_every_object) {
    hdef *first = new_volume("vola");
    hdef *second = new_volume("volb");
    tf::put(first->clone_group, "datadg_clone");
    tf::put(second->clone_group, "datadg_clone");
    EXPECT_EQ(TimeFinder_thaw(first), 0);
    EXPECT_EQ(TimeFinder_thaw(second), 0);
    EXPECT_EQ(commands(),
              (test::Lines{"/usr/quill/tessera/bin/tqdgclone -g datadg -n vola -c datadg_clone",
                           "/usr/quill/tessera/bin/tqdgclone -g datadg -n volb -c datadg_clone"}));
    EXPECT_EQ(DG_LIST->thaw_count, 0);
}

TEST_F(Thaw, failed_clean_up_is_reported) {
    hdef *h = new_volume("vola");
    tf::put(h->clone_group, "datadg_clone");
    give_transfer_file(h, "/tmp/EMCTXtest");
    test::RecordedCommands::fail(1);
    EXPECT_EQ(TimeFinder_thaw(h), 11);
    expect_failure(11, "TimeFinder_thaw: Unable to clean up disk group datadg_clone, volume vola");
    EXPECT_TRUE(test::exists("/tmp/EMCTXtest"));
    EXPECT_TRUE(has_no_capture_files(h));
}

TEST_F(Thaw, capture_files_stay_unless_both_names_are_set) {
    hdef *h = new_device();
    char *const out_file = h->out_file;
    h->out_file = nullptr;
    EXPECT_EQ(TimeFinder_thaw(h), 0);
    EXPECT_TRUE(test::exists(h->err_file));
    h->out_file = out_file;
}

TEST_F(Thaw, failures_below_level_0_are_reported_and_not_logged) {
    set_level(-1);
    hdef *h = new_object(TF_OBJECT_RAW_DEVICE);
    EXPECT_EQ(TimeFinder_thaw(h), 11);
    expect_failure(11, "TimeFinder_thaw: __NOT_VOL__GRP__: disk group not listed");
    EXPECT_EQ(whole_log(), "");
}

}  // namespace
