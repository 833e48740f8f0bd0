#include "method/checkpoint.h"

#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>

#include "method/numbers.h"
#include "tests/method/release_fixture.h"

namespace {

class Checkpoint : public test::Release {
  protected:
    // Takes a checkpoint into text.
    int32_t checkpoint(hdef *h) {
        tf::HeapOwner<char> out;
        const int32_t status = TimeFinder_ckpt(h, out.out());
        text = out ? out.get() : "(none)";
        return status;
    }
    // A volume whose checkpoint runs the clone tool.
    hdef *new_cloned_volume(const char *volume, const char *transfer) {
        hdef *h = new_volume(volume);
        add_record(h, "000184500123", "00A1", "01A1", "/dev/qz/rdmp/p0");
        tf::put(h->transfer_file, transfer);
        return h;
    }

    std::string text;
};

// Lines 1 to 16 of an object that new_volume made.
std::string volume_lines(const std::string &volume, int dgimport = 0) {
    return "HDEF-sync_at_start=0\nHDEF-async_resync=0\nHDEF-is_vol=1\nHDEF-is_mount=0\n"
           "HDEF-object_type=1\nHDEF-mount_point=/mnt/copy\nHDEF-vol_group=datadg\n"
           "HDEF-vol_name=" +
           volume + "\nHDEF-clone_group=" + (dgimport != 0 ? "datadg_clone" : "") +
           "\nHDEF-primary_host=client1\nHDEF-fstype=\nHDEF-keep_fi=0\n"
           "HDEF-dgimport=" +
           std::to_string(dgimport) +
           "\nHDEF-fs_path=\nHDEF-dev_raw_device=\nHDEF-dev_block_device=\n";
}

std::string cloned_pair_lines() {
    return "PRIM_MIR_INFO=START\nPMINFO-symid=000184500123\nPMINFO-dev_sym_devname=00A1\n"
           "PMINFO-dev_raw_device=/dev/qz/rdmp/p0\nPMINFO-p_dev_raw_device=/dev/qz/rdmp/p0\n"
           "PMINFO-bcv_raw_device=\nPMINFO-bcvdev_sym_devname=01A1\nPMINFO-issplit=0\n"
           "PMINFO-sync_at_end=0\nPMINFO-lock_set=0\nPRIM_MIR_INFO=NEXT\nPRIM_MIR_INFO=END\n";
}

// The byte of a newline, in a field that is no text.
TEST_F(Checkpoint, the_number_10_is_no_newline) {
    hdef *h = new_device(TF_OBJECT_FILE_SYSTEM);
    h->keep_fi = '\n';
    prim_mir_info *pm = add_record(h, "000184500123", "00A1", "01A1", "/dev/qz/rdmp/p0");
    pm->lock_set = '\n';
    EXPECT_EQ(checkpoint(h), 0) << errmsg;
    EXPECT_NE(text.find("HDEF-keep_fi=10\n"), std::string::npos);
    EXPECT_NE(text.find("PMINFO-lock_set=10\n"), std::string::npos);
}

TEST_F(Checkpoint, text_of_a_file_system_on_a_plain_device_is_this_to_the_byte) {
    hdef *h = new_device(TF_OBJECT_FILE_SYSTEM);
    h->sync_at_start = 2;
    h->async_resync = 1;
    h->is_mount = 1;
    h->keep_fi = -7;
    h->backup_copy = 91;
    h->max_snapshots = 92;
    tf::put(h->vol_group, "__NOT_VOL__GRP__");
    tf::put(h->vol_name, "a volume");
    tf::put(h->clone_group, "a clone=group");
    tf::put(h->fstype, "ext4");
    tf::put(h->fs_path, "/data");
    tf::put(h->dev_raw_device, "/dev/qz/rdmp/p0");
    tf::put(h->dev_block_device, "/dev/qz/dmp/p0");
    tf::put(h->transfer_file, "/tmp/never/written");
    prim_mir_info *pm = add_record(h, "000184500123", "00A1", "01A1", "/dev/qz/rdmp/p0");
    tf::put(pm->p_dev_raw_device, "/dev/emcpowera");
    tf::put(pm->bcv_raw_device, "/dev/sdc");
    pm->dev_raw_uid = 11;
    pm->dev_raw_gid = 12;
    pm->dev_blk_uid = 13;
    pm->dev_blk_gid = -14;
    pm->issplit = 1;
    pm->sync_at_end = 2;
    pm->lock_set = 3;

    ASSERT_EQ(checkpoint(h), 0);
    EXPECT_EQ(text,
              "HDEF-sync_at_start=2\n"
              "HDEF-async_resync=1\n"
              "HDEF-is_vol=0\n"
              "HDEF-is_mount=1\n"
              "HDEF-object_type=3\n"
              "HDEF-mount_point=/mnt/copy\n"
              "HDEF-vol_group=__NOT_VOL__GRP__\n"
              "HDEF-vol_name=a volume\n"
              "HDEF-clone_group=a clone=group\n"
              "HDEF-primary_host=client1\n"
              "HDEF-fstype=ext4\n"
              "HDEF-keep_fi=-7\n"
              "HDEF-dgimport=0\n"
              "HDEF-fs_path=/data\n"
              "HDEF-dev_raw_device=/dev/qz/rdmp/p0\n"
              "HDEF-dev_block_device=/dev/qz/dmp/p0\n"
              "PRIM_MIR_INFO=START\n"
              "PMINFO-dev_raw_uid=11\n"
              "PMINFO-dev_raw_gid=12\n"
              "PMINFO-dev_blk_uid=13\n"
              "PMINFO-dev_blk_gid=-14\n"
              "PMINFO-symid=000184500123\n"
              "PMINFO-dev_sym_devname=00A1\n"
              "PMINFO-dev_raw_device=/dev/qz/rdmp/p0\n"
              "PMINFO-p_dev_raw_device=/dev/emcpowera\n"
              "PMINFO-bcv_raw_device=/dev/sdc\n"
              "PMINFO-bcvdev_sym_devname=01A1\n"
              "PMINFO-issplit=1\n"
              "PMINFO-sync_at_end=2\n"
              "PMINFO-lock_set=3\n"
              "PRIM_MIR_INFO=NEXT\n"
              "PRIM_MIR_INFO=END\n");
    expect_no_failure();
    EXPECT_EQ(commands(), test::Lines{});
}

TEST_F(Checkpoint, every_record_is_closed_by_next_and_only_the_first_has_owner_lines) {
    hdef *h = new_device();
    add_record(h, "000184500123", "00A1", "01A1", "/dev/qz/rdmp/p0")->dev_raw_uid = 11;
    add_record(h, "000184500123", "00A2", "01A2", "/dev/qz/rdmp/p1")->dev_raw_uid = 22;
    ASSERT_EQ(checkpoint(h), 0);
    const size_t first = text.find("PMINFO-dev_sym_devname=00A1\n");
    const size_t next = text.find("PRIM_MIR_INFO=NEXT\nPMINFO-symid=");
    const size_t second = text.find("PMINFO-dev_sym_devname=00A2\n");
    ASSERT_NE(next, std::string::npos);
    EXPECT_LT(first, next);
    EXPECT_LT(next, second);
    EXPECT_TRUE(text.ends_with("PMINFO-lock_set=0\nPRIM_MIR_INFO=NEXT\nPRIM_MIR_INFO=END\n"));
    EXPECT_NE(text.find("PMINFO-dev_raw_uid=11\n"), std::string::npos);
    EXPECT_EQ(text.find("PMINFO-dev_raw_uid=22\n"), std::string::npos);
}

TEST_F(Checkpoint, volume_without_records_holds_the_object_lines_and_two_markers) {
    ASSERT_EQ(checkpoint(new_volume("vola")), 0);
    EXPECT_EQ(text, volume_lines("vola") + "PRIM_MIR_INFO=START\nPRIM_MIR_INFO=END\n");
}

TEST_F(Checkpoint, non_volume_without_records_leaves_the_owner_lines_out) {
    ASSERT_EQ(checkpoint(new_device()), 0);
    EXPECT_TRUE(text.ends_with("HDEF-dev_block_device=\nPRIM_MIR_INFO=START\nPRIM_MIR_INFO=END\n"));
    EXPECT_EQ(text.find("PMINFO-"), std::string::npos);
}

TEST_F(Checkpoint, null_arguments_are_named) {
    char *out = nullptr;
    EXPECT_EQ(TimeFinder_ckpt(nullptr, &out), 11);
    expect_failure(7, "TimeFinder_ckpt: A required parameter is NULL: fih");
    EXPECT_EQ(TimeFinder_ckpt(new_device(), nullptr), 11);
    expect_failure(7, "TimeFinder_ckpt: A required parameter is NULL: text");
}

TEST_F(Checkpoint, text_with_a_newline_is_refused_before_the_clone_tool_runs) {
    hdef *h = new_cloned_volume("vola", "/tmp/EMCTXtest");
    tf::put(h->fs_path, "/data\nPRIM_MIR_INFO=NEXT");
    EXPECT_EQ(checkpoint(h), 11);
    expect_failure(1, "TimeFinder_ckpt: HDEF-fs_path");
    EXPECT_EQ(text, "(none)");
    EXPECT_EQ(commands(), test::Lines{});
    EXPECT_EQ(DG_LIST->cloned, 0);
    EXPECT_FALSE(test::exists("/tmp/EMCTXtest"));
    EXPECT_TRUE(has_capture_files(h));
}

TEST_F(Checkpoint, newline_in_a_device_record_or_the_transfer_name_is_refused_too) {
    hdef *h = new_device();
    prim_mir_info *pm = add_record(h, "000184500123", "00A1", "01A1", "/dev/qz/rdmp/p0");
    prim_mir_info *second = add_record(h, "000184500123", "00A2", "01A2", "/dev/qz/rdmp/p1");
    tf::put(second->bcv_raw_device, "/dev/sdc\n");
    EXPECT_EQ(checkpoint(h), 11);
    expect_failure(1, "TimeFinder_ckpt: PMINFO-bcv_raw_device");
    tf::put(pm->symid, "0001\n");
    EXPECT_EQ(checkpoint(h), 11);
    expect_failure(1, "TimeFinder_ckpt: PMINFO-symid");
    tf::put(h->transfer_file, "/tmp/\nx");
    EXPECT_EQ(checkpoint(h), 11);
    expect_failure(1, "TimeFinder_ckpt: TRANSFER_FILE");
    h->transfer_file[0] = '\0';
}

TEST_F(Checkpoint, newline_in_a_text_that_is_not_written_is_no_reason) {
    hdef *h = new_device();
    prim_mir_info *pm = add_record(h, "000184500123", "00A1", "01A1", "/dev/qz/rdmp/p0");
    tf::put(pm->bcv_block_device, "a\nb");
    EXPECT_EQ(checkpoint(h), 0);
}

TEST_F(Checkpoint, table_without_memory_is_reported) {
    hdef *h = new_device();
    for (const int n : {1, 2}) {
        char *untouched = text.data();
        test::fail_allocation(n);
        EXPECT_EQ(TimeFinder_ckpt(h, &untouched), 11);
        test::no_more_faults();
        expect_failure(13, "TimeFinder_ckpt: convert_open: memory allocation");
        EXPECT_EQ(untouched, text.data());
    }
    EXPECT_TRUE(has_capture_files(h));
}

TEST_F(Checkpoint, failed_conversion_reports_the_tables_message_and_removes_the_capture_files) {
    hdef *h = new_device();
    test::fail_allocation(3);
    EXPECT_EQ(checkpoint(h), 11);
    expect_failure(1, "TimeFinder_ckpt: convert_external: Memory allocation failure at line 207");
    EXPECT_EQ(text, "(none)");
    EXPECT_TRUE(has_no_capture_files(h));
}

TEST_F(Checkpoint, capture_files_stay_unless_both_names_are_set) {
    hdef *h = new_device();
    char *const err_file = h->err_file;
    h->err_file = nullptr;
    EXPECT_EQ(checkpoint(h), 0);
    EXPECT_TRUE(test::exists(h->out_file));
    h->err_file = err_file;
    EXPECT_EQ(checkpoint(h), 0);
    EXPECT_TRUE(has_no_capture_files(h));
}

// Frameworks keep texts that were written under this rule.
TEST_F(Checkpoint, line_that_cannot_be_registered_is_left_out_without_a_failure) {
    hdef *h = new_device();
    for (int i = 0; i < 110; ++i) {
        const std::string name = hex_name(i);
        add_record(h, "000184500123", name.c_str(), name.c_str(), "/dev/qz/rdmp/p0");
    }
    ASSERT_EQ(checkpoint(h), 0);
    const auto whole = std::count(text.begin(), text.end(), '\n');
    test::fail_allocation(3);  // the growth to 2048 entries
    EXPECT_EQ(checkpoint(h), 0);
    EXPECT_EQ(std::count(text.begin(), text.end(), '\n'), whole - 1);
    EXPECT_EQ(whole, 16 + 1 + 4 + 110 * 10 + 1);
    expect_no_failure();
}

TEST_F(Checkpoint, volume_runs_the_clone_tool_and_names_the_transfer_file) {
    hdef *h = new_cloned_volume("vola", "/tmp/EMCTXtest");
    ASSERT_EQ(checkpoint(h), 0);
    EXPECT_EQ(commands(), test::Lines{"/usr/quill/tessera/bin/tqdgclone -g datadg -n vola "
                                      "-d /dev/qz/rdmp/p0,/dev/rdsk/01A1 -i /tmp/EMCTXtest "
                                      "-p DEFAULT"});
    EXPECT_EQ(text, volume_lines("vola") +
                        "HDEF-CLONE_INFO_FILE=START\nTRANSFER_FILE=/tmp/EMCTXtest\n"
                        "HDEF-CLONE_INFO_FILE=END\n" +
                        cloned_pair_lines());
    EXPECT_EQ(DG_LIST->cloned, 1);
    struct stat status = {};
    ASSERT_EQ(lstat("/tmp/EMCTXtest", &status), 0);
    EXPECT_EQ(status.st_mode, S_IFREG | 0600U);
    EXPECT_TRUE(has_no_capture_files(h));
}

TEST_F(Checkpoint, clone_tool_runs_for_the_first_object_of_a_group_only) {
    hdef *second = new_cloned_volume("volb", "/tmp/EMCTXb");
    hdef *first = new_cloned_volume("vola", "/tmp/EMCTXa");
    ASSERT_EQ(checkpoint(first), 0);
    EXPECT_NE(text.find("TRANSFER_FILE=/tmp/EMCTXa\n"), std::string::npos);
    ASSERT_EQ(checkpoint(second), 0);
    EXPECT_EQ(text, volume_lines("volb") + cloned_pair_lines());
    EXPECT_EQ(commands(), test::Lines{"/usr/quill/tessera/bin/tqdgclone -g datadg -n vola,volb "
                                      "-d /dev/qz/rdmp/p0,/dev/rdsk/01A1 -i /tmp/EMCTXa "
                                      "-p DEFAULT"});
    EXPECT_FALSE(test::exists("/tmp/EMCTXb"));
}

TEST_F(Checkpoint, nothing_is_cloned_without_need) {
    hdef *h = new_cloned_volume("vola", "");
    EXPECT_EQ(checkpoint(h), 0);
    tf::put(h->transfer_file, "/tmp/EMCTXtest");
    h->is_vol = 0;
    EXPECT_EQ(checkpoint(h), 0);
    h->is_vol = 1;
    h->is_rebuilt = 1;
    EXPECT_EQ(checkpoint(h), 0);
    h->is_rebuilt = 0;
    h->dgimport = 1;
    EXPECT_EQ(checkpoint(h), 0);
    EXPECT_EQ(commands(), test::Lines{});
    EXPECT_EQ(DG_LIST->cloned, 0);
    EXPECT_FALSE(test::exists("/tmp/EMCTXtest"));
}

TEST_F(Checkpoint, unlisted_disk_group_is_reported_by_the_table_builder) {
    hdef *h = new_object(TF_OBJECT_RAW_DEVICE);
    h->is_vol = 1;
    tf::put(h->vol_group, "otherdg");
    tf::put(h->transfer_file, "/tmp/EMCTXtest");
    EXPECT_EQ(checkpoint(h), 11);
    expect_failure(11, "build_table_hdef: otherdg: disk group not listed");
    EXPECT_TRUE(has_capture_files(h));
    h->is_rebuilt = 1;
    EXPECT_EQ(checkpoint(h), 0);
}

TEST_F(Checkpoint, failed_clone_is_passed_on_and_not_tried_again) {
    hdef *h = new_cloned_volume("vola", "/tmp/EMCTXtest");
    test::RecordedCommands::fail(1);
    EXPECT_EQ(checkpoint(h), 11);
    expect_failure(3, failed_command(h,
                                     "/usr/quill/tessera/bin/tqdgclone -g datadg -n vola "
                                     "-d /dev/qz/rdmp/p0,/dev/rdsk/01A1 -i /tmp/EMCTXtest "
                                     "-p DEFAULT"));
    EXPECT_EQ(text, "(none)");
    EXPECT_EQ(DG_LIST->cloned, 1);
    EXPECT_TRUE(has_capture_files(h));
    EXPECT_EQ(checkpoint(h), 0);
    EXPECT_EQ(text, volume_lines("vola") + cloned_pair_lines());
    EXPECT_EQ(commands().size(), 1U);
}

// The group counts as cloned all the same, so the call that is repeated does without.
TEST_F(Checkpoint, clone_line_that_is_too_long_fails_once_and_then_leaves_the_block_out) {
    hdef *h = new_volume("vola");
    tf::put(h->transfer_file, "/tmp/EMCTXtest");
    std::string devices;
    for (int i = 0; i < 40; ++i) {
        const std::string name = hex_name(i);
        const std::string device = "/dev/" + name + std::string(400, 'x');
        add_record(h, "000184500123", name.c_str(), name.c_str(), device.c_str());
        devices += (i == 0 ? "" : ":") + device + ",/dev/rdsk/" + name;
    }
    const size_t length = std::string(
                              "/usr/quill/tessera/bin/tqdgclone -g datadg -n vola -d  "
                              "-i /tmp/EMCTXtest -p DEFAULT")
                              .size() +
                          devices.size();
    ASSERT_GE(length, 16384U);
    char *untouched = text.data();
    EXPECT_EQ(TimeFinder_ckpt(h, &untouched), 11);
    expect_failure(13, "do_cmd: Q_vsnprintf() failed: " + std::to_string(length));
    EXPECT_EQ(untouched, text.data());
    EXPECT_EQ(DG_LIST->cloned, 1);
    EXPECT_TRUE(has_capture_files(h));
    EXPECT_EQ(checkpoint(h), 0);
    EXPECT_TRUE(text.starts_with(volume_lines("vola") + "PRIM_MIR_INFO=START\n"));
    EXPECT_EQ(std::count(text.begin(), text.end(), '\n'), 16 + 1 + 40 * 10 + 1);
    EXPECT_TRUE(has_no_capture_files(h));
    EXPECT_EQ(commands(), test::Lines{});
}

TEST_F(Checkpoint, transfer_file_that_exists_already_is_not_written_into) {
    hdef *h = new_cloned_volume("vola", "/tmp/EMCTXtest");
    test::write_file("/tmp/EMCTXtest", "somebody else's");
    EXPECT_EQ(checkpoint(h), 11);
    expect_failure(13, "build_table_hdef: Cannot open file /tmp/EMCTXtest: File exists");
    EXPECT_EQ(commands(), test::Lines{});
    EXPECT_EQ(test::read_file("/tmp/EMCTXtest"), "somebody else's");
    unlink("/tmp/EMCTXtest");
}

TEST_F(Checkpoint, failed_lists_are_passed_on) {
    hdef *h = new_cloned_volume("vola", "/tmp/EMCTXtest");
    test::fail_allocation(3);
    EXPECT_EQ(checkpoint(h), 11);
    expect_failure(1, "get_device_list: Memory allocation failure at line 1444");
    DG_LIST->cloned = 0;
    test::fail_allocation(4);
    EXPECT_EQ(checkpoint(h), 11);
    expect_failure(1, "get_dg_vols: Memory allocation failure at line 372");
    EXPECT_EQ(commands(), test::Lines{});
    EXPECT_EQ(DG_LIST->cloned, 1);
}

TEST_F(Checkpoint, every_allocation_may_fail_once) {
    hdef *h = new_cloned_volume("vola", "/tmp/EMCTXtest");
    int failures = 0;
    for (int n = 1; n < 30; ++n) {
        DG_LIST->cloned = 0;
        unlink("/tmp/EMCTXtest");
        test::fail_allocation(n);
        const int32_t status = checkpoint(h);
        const bool reached = test::allocations_seen() >= n;
        test::no_more_faults();
        EXPECT_EQ(status, reached ? 11 : 0) << "allocation " << n;
        EXPECT_EQ(text == "(none)", reached) << "allocation " << n;
        if (reached) ++failures;
    }
    EXPECT_GE(failures, 6);
}

TEST_F(Checkpoint, refused_registration_does_not_change_what_the_table_builders_return) {
    hdef *h = new_device();
    prim_mir_info *pm = add_record(h, "000184500123", "00A1", "01A1", "/dev/qz/rdmp/p0");
    tf::ConversionTable table;
    ASSERT_EQ(table.open("test"), 0);
    for (int i = 0; i < 1024; ++i) {
        ASSERT_EQ(convert_add_ent(table.get(), "FILLER", &pm->issplit, 8, CTYPE_INT, nullptr), 0U);
    }
    test::fail_allocation(1);
    EXPECT_EQ(build_table_pminfo(table.get(), pm, nullptr), 0);
    test::no_more_faults();
    EXPECT_STREQ(convert_errmsg(table.get()),
                 "convert_add_ent: Memory allocation failure at line 123");
}

TEST_F(Checkpoint, table_builders_return_0) {
    hdef *h = new_device();
    prim_mir_info *pm = add_record(h, "000184500123", "00A1", "01A1", "/dev/qz/rdmp/p0");
    tf::ConversionTable table;
    ASSERT_EQ(table.open("test"), 0);
    EXPECT_EQ(build_table_hdef(table.get(), h), 0);
    EXPECT_EQ(build_table_pminfo(table.get(), pm, nullptr), 0);
    tf::HeapOwner<char> out;
    ASSERT_EQ(convert_external(table.get(), out.out()), 0U);
    const std::string lines = out.get();
    EXPECT_EQ(std::count(lines.begin(), lines.end(), '\n'), 16 + 9);
}

TEST_F(Checkpoint, allocations_for_2046_pairs_grow_with_their_number) {
    const auto allocations_for = [this](int pairs) {
        hdef *h = new_device();
        prim_mir_info **end = &h->pminfo_list;
        for (int i = 0; i < pairs; ++i) {
            const std::string name = hex_name(i);
            *end = test::make_pm("000184500123", name.c_str(), name.c_str(), "/dev/qz/rdmp/p0");
            end = &(*end)->next;
        }
        test::no_more_faults();
        EXPECT_EQ(checkpoint(h), 0);
        EXPECT_EQ(std::count(text.begin(), text.end(), '\n'), 16 + 1 + 4 + 10 * pairs + 1);
        return test::allocations_seen();
    };
    const int few = allocations_for(256);
    EXPECT_LE(allocations_for(2046), 8 * few);
}

}  // namespace
