// The freeze's arguments, its record, and what it leaves behind.
#include "tests/method/freeze_fixture.h"

namespace {

using namespace test;

class Freeze : public FreezeTest {};

class FreezeWithoutArray : public Method {
  protected:
    int32_t nvols = 99;
    hdef *const untouched = reinterpret_cast<hdef *>(&nvols);
    hdef *handle = untouched;
};

TEST_F(FreezeWithoutArray, a_failed_library_load_is_returned_and_leaves_the_handle_alone) {
    EXPECT_EQ(TimeFinder_freeze(nullptr, "/", "/", nullptr, &nvols, 1, &handle), 11);
    EXPECT_EQ(errnum, 3);
    EXPECT_EQ(handle, untouched);
    EXPECT_EQ(nvols, 99);
    EXPECT_EQ(resolve_symapi, 1);
    EXPECT_EQ(emc_clients, 0);
}

TEST_F(FreezeWithoutArray, the_second_call_does_not_try_the_library_again) {
    TimeFinder_freeze(nullptr, "/", "/", nullptr, &nvols, 1, &handle);
    EXPECT_EQ(TimeFinder_freeze(nullptr, "/", "/", nullptr, &nvols, 2, &handle), 11);
    expect_failure(7, "TimeFinder_freeze: Invalid parameter value: flag=2");
    EXPECT_EQ(emc_clients, 1);
}

TEST_F(Freeze, the_first_call_of_a_process_opens_the_session_and_the_second_does_not) {
    resolve_symapi = 0;
    sH = -1;
    write_file("/var/symapi/db/symapi_db.bin", "");
    ASSERT_EQ(freeze(), 0) << errmsg;
    EXPECT_EQ(array.calls_of("SymInitV").size(), 1U);
    EXPECT_EQ(sH, 7);
    ASSERT_EQ(freeze(), 0) << errmsg;
    EXPECT_EQ(array.calls_of("SymInitV").size(), 1U);
    EXPECT_EQ(emc_clients, 2);
}

TEST_F(Freeze, a_null_nvols_is_named_and_the_handle_is_null) {
    EXPECT_EQ(TimeFinder_freeze(std::string(1025, 'a').c_str(), "/data", nullptr, nullptr, nullptr,
                                2, &handle),
              11);
    expect_failure(7, "TimeFinder_freeze: A required parameter is NULL: nvols");
    EXPECT_EQ(handle, nullptr);
    EXPECT_EQ(times_logged(errmsg), 1);
    EXPECT_EQ(emc_clients, 1);
}

TEST_F(Freeze, a_config_of_1025_characters_is_refused_before_a_null_fifs) {
    EXPECT_EQ(TimeFinder_freeze(std::string(1025, 'a').c_str(), "/data", nullptr, nullptr, &nvols,
                                2, &handle),
              11);
    expect_failure(7, "TimeFinder_freeze: config parameter exceeds 1024 characters");
    EXPECT_EQ(handle, nullptr);
    EXPECT_EQ(nvols, 0);
}

TEST_F(Freeze, a_config_of_1024_characters_is_accepted) {
    const std::string config = "x=" + std::string(1022, 'a');
    ASSERT_EQ(freeze(config.c_str()), 0) << errmsg;
}

TEST_F(Freeze, a_null_fifs_is_named_before_a_wrong_flag) {
    EXPECT_EQ(TimeFinder_freeze(nullptr, "/data", nullptr, nullptr, &nvols, 2, &handle), 11);
    expect_failure(7, "TimeFinder_freeze: A required parameter is NULL: fifs");
    EXPECT_EQ(handle, nullptr);
}

TEST_F(Freeze, flag_2_is_refused_before_anything_is_allocated) {
    no_more_faults();
    EXPECT_EQ(freeze(nullptr, "/data", 2), 11);
    EXPECT_EQ(allocations_seen(), 0);
    expect_failure(7, "TimeFinder_freeze: Invalid parameter value: flag=2");
    EXPECT_EQ(handle, nullptr);
    EXPECT_EQ(nvols, 0);
    EXPECT_EQ(times_logged(errmsg), 1);
}

TEST_F(Freeze, flags_0_and_minus_1_are_refused_with_their_value) {
    EXPECT_EQ(freeze(nullptr, "/data", 0), 11);
    expect_failure(7, "TimeFinder_freeze: Invalid parameter value: flag=0");
    EXPECT_EQ(freeze(nullptr, "/data", -1), 11);
    expect_failure(7, "TimeFinder_freeze: Invalid parameter value: flag=-1");
}

TEST_F(Freeze, a_null_handle_is_named_after_the_other_arguments) {
    EXPECT_EQ(TimeFinder_freeze(nullptr, "/data", "/mnt", nullptr, &nvols, 2, nullptr), 11);
    expect_failure(7, "TimeFinder_freeze: Invalid parameter value: flag=2");
    EXPECT_EQ(TimeFinder_freeze(nullptr, "/data", "/mnt", nullptr, &nvols, 1, nullptr), 11);
    expect_failure(7, "TimeFinder_freeze: A required parameter is NULL: handle");
}

TEST_F(Freeze, a_failure_is_reported_below_level_0_but_not_logged) {
    set_level(-1);
    EXPECT_EQ(freeze(nullptr, "/data", 2), 11);
    EXPECT_EQ(errnum, 7);
    EXPECT_STREQ(errmsg, "TimeFinder_freeze: Invalid parameter value: flag=2");
    EXPECT_EQ(whole_log(), "");
}

TEST_F(Freeze, without_memory_for_the_record_the_handle_is_null) {
    fail_allocation(1);
    EXPECT_EQ(freeze(), 11);
    expect_failure(1, "TimeFinder_freeze: Memory allocation failure at line 3163");
    EXPECT_EQ(handle, nullptr);
    EXPECT_EQ(times_logged(errmsg), 1);
}

TEST_F(Freeze, without_memory_for_the_device_record_the_handle_receives_a_bare_record) {
    fail_allocation(2);
    EXPECT_EQ(freeze(), 11);
    expect_failure(1, "TimeFinder_freeze: Memory allocation failure at line 3169");
    ASSERT_NE(handle, nullptr);
    EXPECT_EQ(handle->pminfo_list, nullptr);
    EXPECT_STREQ(handle->mount_point, "");
    EXPECT_EQ(handle->out_file, nullptr);
    EXPECT_EQ(times_logged(errmsg), 1);
    EXPECT_EQ(DG_LIST, nullptr);
    // The record is alive: freeze commit reads it.
    no_more_faults();
    EXPECT_EQ(TimeFinder_freeze_commit(handle), 11);
    expect_failure(7, "TimeFinder_freeze_commit: No device information");
}

TEST_F(Freeze, two_bare_records_live_side_by_side) {
    fail_allocation(2);
    freeze();
    hdef *const earlier = handle;
    fail_allocation(2);
    freeze();
    EXPECT_NE(handle, earlier);
    EXPECT_STREQ(earlier->mount_point, "");
    EXPECT_STREQ(handle->mount_point, "");
}

TEST_F(Freeze, without_a_capture_name_the_freeze_goes_on) {
    fail_temporary_name(2);
    ASSERT_EQ(freeze(), 0) << errmsg;
    EXPECT_NE(handle->out_file, nullptr);
    EXPECT_EQ(handle->err_file, nullptr);
}

TEST_F(Freeze, without_the_name_for_output_it_goes_on_to_the_first_command_that_is_read) {
    fail_temporary_name(1);
    EXPECT_EQ(freeze(), 11);
    ASSERT_NE(handle, nullptr);
    EXPECT_EQ(handle->out_file, nullptr);
    expect_failure(3, "find_bcv_pair: Cannot get lock on device: /dev/qz/rdmp/disk_0");
}

TEST_F(Freeze, a_lonely_capture_file_goes_with_a_failed_freeze) {
    fail_temporary_name(2);
    EXPECT_EQ(freeze(nullptr, "/missing"), 11);
    EXPECT_EQ(handle, nullptr);
    EXPECT_TRUE(files_left_in_tmp().empty());
}

TEST_F(Freeze, without_a_transfer_name_it_gives_up) {
    fail_temporary_name(3);
    EXPECT_EQ(freeze(), 11);
    expect_given_up(1, "TimeFinder_freeze: Memory allocation failure at line 3201");
}

TEST_F(Freeze, a_good_freeze_fills_the_record_needs_root) {
    if (!test::is_real_root()) GTEST_SKIP() << "chown needs the machine's root";
    fake_host().host_name = "client1.example.com";
    ASSERT_EQ(chown(raw_disk, 11, 12), 0);
    ASSERT_EQ(chown(block_disk, 13, 14), 0);
    ASSERT_EQ(freeze(), 0) << errmsg;
    ASSERT_NE(handle, nullptr);
    EXPECT_EQ(nvols, 0);
    EXPECT_STREQ(handle->mount_point, "/mnt/fifs");
    EXPECT_STREQ(handle->fs_path, "/data");
    EXPECT_STREQ(handle->primary_host, "client1");
    EXPECT_STREQ(handle->fstype, "ext4");
    EXPECT_STREQ(handle->vol_group, "__NOT_VOL__GRP__");
    EXPECT_STREQ(handle->vol_name, "");
    EXPECT_STREQ(handle->dev_block_device, block_disk);
    EXPECT_STREQ(handle->dev_raw_device, raw_disk);
    EXPECT_EQ(handle->object_type, 3);
    EXPECT_EQ(handle->is_vol, 0);
    EXPECT_EQ(handle->is_mount, 0);
    EXPECT_EQ(handle->dgimport, 0);
    EXPECT_EQ(handle->is_rebuilt, 0);
    EXPECT_EQ(strncmp(strrchr(handle->out_file, '/'), "/QfMS", 5), 0);
    EXPECT_EQ(strncmp(strrchr(handle->err_file, '/'), "/QfMS", 5), 0);
    EXPECT_EQ(strncmp(strrchr(handle->transfer_file, '/'), "/EMCTX", 6), 0);
    EXPECT_FALSE(exists(handle->transfer_file));
    const prim_mir_info *pm = handle->pminfo_list;
    EXPECT_EQ(pm->next, nullptr);
    EXPECT_STREQ(pm->symid, array_id);
    EXPECT_STREQ(pm->dev_sym_devname, "0001");
    EXPECT_STREQ(pm->bcvdev_sym_devname, "0101");
    EXPECT_STREQ(pm->dev_raw_device, raw_disk);
    EXPECT_STREQ(pm->p_dev_raw_device, raw_disk);
    EXPECT_STREQ(pm->dev_block_device, block_disk);
    EXPECT_EQ(pm->dev_raw_uid, 11);
    EXPECT_EQ(pm->dev_raw_gid, 12);
    EXPECT_EQ(pm->dev_blk_uid, 13);
    EXPECT_EQ(pm->dev_blk_gid, 14);
    EXPECT_EQ(pm->lock_set, 1);
    ASSERT_NE(DG_LIST, nullptr);
    EXPECT_EQ(DG_LIST->members->h, handle);
    EXPECT_EQ(DG_LIST->vol_count, 0);
    EXPECT_EQ(emc_clients, 1);
    EXPECT_EQ(client_count, 1);
    EXPECT_EQ(total_freeze_volumes, 1);
    EXPECT_EQ(sH, 7);
}

TEST_F(Freeze, an_unknown_host_name_is_host) {
    fake_host().host_name_result = -1;
    ASSERT_EQ(freeze(), 0);
    EXPECT_STREQ(handle->primary_host, "host");
}

TEST_F(Freeze, a_host_name_without_a_domain_is_kept_whole) {
    fake_host().host_name = "backuphost";
    ASSERT_EQ(freeze(), 0);
    EXPECT_STREQ(handle->primary_host, "backuphost");
}

TEST_F(Freeze, a_long_fifs_is_cut_to_its_field) {
    const std::string fifs(2000, 'f');
    EXPECT_EQ(TimeFinder_freeze(nullptr, "/data", fifs.c_str(), nullptr, &nvols, 1, &handle), 0);
    EXPECT_EQ(std::string(handle->mount_point), std::string(1023, 'f'));
}

TEST_F(Freeze, two_objects_share_the_group_of_plain_devices_newest_first) {
    ASSERT_EQ(freeze(), 0);
    hdef *const first = handle;
    ASSERT_EQ(freeze(), 0);
    ASSERT_NE(DG_LIST, nullptr);
    EXPECT_EQ(DG_LIST->next, nullptr);
    EXPECT_EQ(DG_LIST->members->h, handle);
    EXPECT_EQ(DG_LIST->members->next->h, first);
    EXPECT_EQ(client_count, 2);
    EXPECT_EQ(total_freeze_volumes, 2);
}

TEST_F(Freeze, a_failed_freeze_leaves_the_group_of_an_earlier_object_alone) {
    ASSERT_EQ(freeze(), 0);
    hdef *const first = handle;
    unlink(raw_disk);  // the owner cannot be read
    EXPECT_EQ(freeze(), 11);
    EXPECT_EQ(handle, nullptr);
    ASSERT_NE(DG_LIST, nullptr);
    EXPECT_EQ(DG_LIST->members->h, first);
    EXPECT_EQ(DG_LIST->members->next, nullptr);
}

TEST_F(Freeze, every_allocation_that_fails_leaves_list_and_files_clean_or_a_usable_handle) {
    for (int n = 1; n < 60; ++n) {
        handle = untouched;
        fail_allocation(n);
        const int32_t result = freeze("sync_at_start=1,plexname=p,alternate_backup_client=other");
        const bool reached = allocations_seen() >= n;
        no_more_faults();
        if (!reached) {
            EXPECT_EQ(result, 0) << n << " " << errmsg;
            EXPECT_GT(n, 10);
            return;
        }
        if (result != 0 && n != 2 && handle == nullptr) {
            for (const dg_entry *g = DG_LIST; g != nullptr; g = g->next) {
                EXPECT_NE(g->members, nullptr) << n;
            }
        }
    }
    FAIL() << "the freeze never got all its memory";
}

}  // namespace
