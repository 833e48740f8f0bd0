#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <csignal>
#include <filesystem>
#include <set>

#include "symapi/symapi_loader.h"
#include "tests/method/rebuild_fixture.h"

namespace {

using test::symid;

class Rebuild : public test::RebuildTest {};

TEST_F(Rebuild, checkpoint_comes_back_with_the_same_text) {
    hdef *frozen = new_device(TF_OBJECT_FILE_SYSTEM);
    frozen->sync_at_start = 1;
    frozen->async_resync = 1;
    frozen->keep_fi = 1;
    tf::put(frozen->fstype, "ext4");
    tf::put(frozen->fs_path, "/data=1");
    tf::put(frozen->dev_raw_device, "/dev/qz/rdmp/p0");
    tf::put(frozen->dev_block_device, "/dev/qz/dmp/p0");
    for (const char *name : {"00A1", "00A2"}) {
        prim_mir_info *pm = add_pair(frozen, symid, name, name[3] == '1' ? "01A1" : "01A2",
                                     name[3] == '1' ? "/dev/qz/rdmp/p1" : "/dev/qz/rdmp/p2", 5);
        pm->issplit = 1;
        pm->dev_raw_uid = name[3] == '1' ? 17 : 0;
        tf::put(pm->bcv_raw_device, ("/dev/rdsk/" + std::string(pm->bcvdev_sym_devname)).c_str());
    }
    tf::HeapOwner<char> text;
    ASSERT_EQ(TimeFinder_ckpt(frozen, text.out()), 0);

    ASSERT_EQ(rebuild(text.get()), 0);
    EXPECT_EQ(h->is_rebuilt, 1);
    EXPECT_EQ(h->is_tgt, 0);
    EXPECT_EQ(h->restore, 0);
    EXPECT_TRUE(is_listed(h));
    EXPECT_EQ(total_freeze_volumes, 1);
    ASSERT_NE(h->pminfo_list, nullptr);
    EXPECT_STREQ(h->pminfo_list->dev_sym_devname, "00A1");
    EXPECT_STREQ(h->pminfo_list->dev_block_device, "/dev/qz/dmp/p1");
    EXPECT_EQ(h->pminfo_list->dev_raw_uid, 17);
    ASSERT_NE(h->pminfo_list->next, nullptr);
    EXPECT_STREQ(h->pminfo_list->next->dev_sym_devname, "00A2");
    EXPECT_STREQ(h->pminfo_list->next->bcv_pdevname, "/dev/rdsk/01A2");
    EXPECT_EQ(h->pminfo_list->next->next, nullptr);

    tf::HeapOwner<char> again;
    ASSERT_EQ(TimeFinder_ckpt(h, again.out()), 0);
    EXPECT_STREQ(again.get(), text.get());
    expect_no_failure();
}

TEST_F(Rebuild, first_call_of_a_process_brings_the_array_up) {
    resolve_symapi = 0;
    ASSERT_EQ(rebuild(""), 0);
    EXPECT_EQ(resolve_symapi, 1);
    EXPECT_EQ(array.calls_of("SymInitV").size(), 1U);
    ASSERT_EQ(rebuild(""), 0);
    EXPECT_EQ(array.calls_of("SymInitV").size(), 1U);
}

TEST_F(Rebuild, array_that_does_not_come_up_is_not_tried_again) {
    resolve_symapi = 0;
    array.script("SymInitV", {5, 5});
    EXPECT_EQ(rebuild("HDEF-keep_fi=1\n"), 11);
    expect_failure(3, "init_tflib: SymAPI call to SymInit failed with code 11 (array error 11)");
    EXPECT_EQ(h, nullptr);
    EXPECT_EQ(resolve_symapi, 1);
    EXPECT_EQ(total_freeze_volumes, 0);
    EXPECT_EQ(rebuild("HDEF-keep_fi=1\n"), 0);
}

// A process without a library goes on without one: every call to the array fails.
TEST_F(Rebuild, without_a_library_the_second_call_loads_none_and_fails_at_its_first_mirror) {
    std::filesystem::remove_all("/usr/symcli");
    emc_tf_closeSymapiLibrary();
    emc_tf_DSO_open = resolve_symapi = 0;
    EXPECT_EQ(rebuild(pair_lines("00A1", "01A1")), 11);
    expect_failure(3, "init_tflib: Could not initialize with SymAPI");
    EXPECT_EQ(h, nullptr);
    test::log_lines().clear();
    EXPECT_EQ(rebuild(pair_lines("00A1", "01A1")), 11);
    expect_failure(3,
                   "TimeFinder_rebuild: SymAPI call to SymDevShow on device 01A1 failed with code "
                   "14 (unknown)");
    EXPECT_EQ(test::log_lines().size(), 1U);
    EXPECT_EQ(h->pminfo_list, nullptr);
    EXPECT_FALSE(is_listed(h));
}

TEST_F(Rebuild, null_arguments_are_named) {
    char text[] = "";
    EXPECT_EQ(TimeFinder_rebuild(nullptr, text), 11);
    expect_failure(7, "TimeFinder_rebuild: A required parameter is NULL: fih");
    EXPECT_EQ(TimeFinder_rebuild(&h, nullptr), 11);
    expect_failure(7, "TimeFinder_rebuild: A required parameter is NULL: text");
    EXPECT_EQ(h, nullptr);
}

TEST_F(Rebuild, record_without_memory_names_line_2233_and_hands_nothing_out) {
    test::fail_allocation(1);
    EXPECT_EQ(rebuild(""), 11);
    expect_failure(1, "TimeFinder_rebuild: Memory allocation failure at line 2233");
    EXPECT_EQ(h, nullptr);
}

TEST_F(Rebuild, scratch_record_without_memory_names_line_2241_and_leaves_the_bare_record) {
    test::fail_allocation(2);
    EXPECT_EQ(rebuild(""), 11);
    expect_failure(1, "TimeFinder_rebuild: Memory allocation failure at line 2241");
    ASSERT_NE(h, nullptr);
    EXPECT_EQ(h->out_file, nullptr);
    EXPECT_FALSE(is_listed(h));
}

TEST_F(Rebuild, table_without_memory_is_reported_and_the_record_stays_with_the_caller) {
    test::fail_allocation(3);
    EXPECT_EQ(rebuild(""), 11);
    test::no_more_faults();
    expect_failure(13, "TimeFinder_rebuild: convert_open: memory allocation");
    ASSERT_NE(h, nullptr);
    EXPECT_EQ(h->is_rebuilt, 1);
    EXPECT_TRUE(has_capture_files(h));
    EXPECT_FALSE(is_listed(h));
    EXPECT_EQ(total_freeze_volumes, 0);
}

TEST_F(Rebuild, transfer_name_that_cannot_be_had_names_line_2280) {
    test::fail_temporary_name(3);
    EXPECT_EQ(rebuild(""), 11);
    expect_failure(1, "TimeFinder_rebuild: Memory allocation failure at line 2280");
}

TEST_F(Rebuild, capture_name_that_cannot_be_had_is_no_failure) {
    test::fail_temporary_name(1);
    EXPECT_EQ(rebuild(""), 0);
    EXPECT_EQ(h->out_file, nullptr);
    ASSERT_NE(h->err_file, nullptr);
    unlink(h->err_file);
}

TEST_F(Rebuild, transfer_file_that_cannot_be_made_is_reported) {
    setenv("TMPDIR", "/proc", 1);  // where no file can be made
    const int32_t status = rebuild("");
    unsetenv("TMPDIR");
    EXPECT_EQ(status, 11);
    expect_failure(13, "TimeFinder_rebuild: Cannot open file " + std::string(h->transfer_file) +
                           ": No such file or directory");
}

TEST_F(Rebuild, transfer_file_is_made_empty_and_private_by_every_rebuild) {
    ASSERT_EQ(rebuild("HDEF-keep_fi=1\n"), 0);
    EXPECT_NE(std::string(h->transfer_file).find("/EMCTX"), std::string::npos);
    EXPECT_NE(std::string(h->out_file).find("/QfMS"), std::string::npos);
    struct stat status = {};
    ASSERT_EQ(lstat(h->transfer_file, &status), 0);
    EXPECT_EQ(status.st_mode, S_IFREG | 0600U);
    EXPECT_EQ(status.st_size, 0);
    EXPECT_TRUE(has_capture_files(h));
}

TEST_F(Rebuild, newlines_of_the_text_are_overwritten) {
    char text[] = "HDEF-keep_fi=1\nHDEF-dgimport=0\nrest";
    ASSERT_EQ(TimeFinder_rebuild(&h, text), 0);
    EXPECT_EQ(text[14], '\0');
    EXPECT_EQ(text[30], '\0');
    remove_files(h);
}

TEST_F(Rebuild, last_line_without_a_newline_is_ignored) {
    ASSERT_EQ(rebuild("HDEF-keep_fi=1\nHDEF-dgimport=1"), 0);
    EXPECT_EQ(h->keep_fi, 1);
    EXPECT_EQ(h->dgimport, 0);
}

TEST_F(Rebuild, empty_text_makes_an_empty_object) {
    ASSERT_EQ(rebuild(""), 0);
    EXPECT_EQ(h->pminfo_list, nullptr);
    EXPECT_TRUE(is_listed(h));
    EXPECT_EQ(total_freeze_volumes, 1);
}

TEST_F(Rebuild, group_of_lines_without_next_is_lost) {
    ASSERT_EQ(rebuild(known_pair() + "PMINFO-symid=000184500123\nPMINFO-dev_sym_devname=00A2\n" +
                      "PRIM_MIR_INFO=END\n"),
              0);
    ASSERT_NE(h->pminfo_list, nullptr);
    EXPECT_EQ(h->pminfo_list->next, nullptr);
}

TEST_F(Rebuild, record_starts_from_zeros_behind_each_next) {
    const std::string first = known_pair();
    array.add_bcv(symid, "01A2", "/dev/rdsk/c1t0d1");
    ASSERT_EQ(rebuild("PMINFO-dev_raw_uid=5\n" + first + "PMINFO-symid=" + symid +
                      "\nPMINFO-bcvdev_sym_devname=01A2\nPRIM_MIR_INFO=NEXT\n"),
              0);
    EXPECT_EQ(h->pminfo_list->dev_raw_uid, 5);
    const prim_mir_info *second = h->pminfo_list->next;
    ASSERT_NE(second, nullptr);
    EXPECT_EQ(second->dev_raw_uid, 0);
    EXPECT_EQ(second->issplit, 0);
    EXPECT_STREQ(second->dev_raw_device, "");
}

TEST_F(Rebuild, unknown_key_is_accepted_without_a_word) {
    EXPECT_EQ(rebuild("HDEF-newer_field=1\nNOTHING=2\n"), 0);
    expect_no_failure();
    EXPECT_EQ(whole_log(), "");
}

TEST_F(Rebuild, key_that_only_begins_like_a_known_one_is_unknown) {
    EXPECT_EQ(rebuild("H=1\nHX=1\nHD=1\nHDEF-restore_1=1\nHDEF-is_tgt21=1\n"
                      "HDEF-CLONE_INFO_FILE2=START\nHDEF-CLONE_INFO_FILE=BEGIN\n"
                      "P=1\nPX=1\nPR=1\nPRIM_MIR_INFO2=NEXT\nPRIM_MIR_INFO=NEXT2\n"),
              0);
    expect_no_failure();
    EXPECT_EQ(h->restore, 0);
    EXPECT_EQ(h->is_tgt, 0);
    EXPECT_EQ(h->pminfo_list, nullptr);
    EXPECT_EQ(test::read_file(h->transfer_file), "");
}

TEST_F(Rebuild, clone_line_that_only_begins_like_a_known_one_goes_into_the_file) {
    const std::string block =
        "\nT\nTX=1\nTR=1\nTRANSFER_FILE\nTRANSFER_FILE2=/tmp/stale\n"
        "HDEF-CLONE_INFO_FILE=ENDS\nHDEF-CLONE_INFO_FILE2=END\n"
        "PRIM_MIR_INFO=NEXT\nHDEF-restore=1\n";
    test::write_file("/tmp/stale", "kept");
    EXPECT_EQ(rebuild("HDEF-CLONE_INFO_FILE=START\n" + block + "HDEF-CLONE_INFO_FILE=END\n"), 0);
    EXPECT_EQ(test::read_file(h->transfer_file), block);
    EXPECT_EQ(h->restore, 0);
    EXPECT_EQ(h->pminfo_list, nullptr);
    EXPECT_EQ(test::read_file("/tmp/stale"), "kept");
    unlink("/tmp/stale");
}

TEST_F(Rebuild, framework_lines_are_decimal) {
    ASSERT_EQ(rebuild("HDEF-dgimport=1\nHDEF-restore=010\nHDEF-is_tgt= 2x\n"), 0);
    EXPECT_EQ(h->restore, 10);
    EXPECT_EQ(h->is_tgt, 2);
}

TEST_F(Rebuild, device_without_memory_names_line_2329) {
    const std::string text = "HDEF-keep_fi=1\n" + known_pair();
    std::set<std::string> seen;
    for (int n = 1; n < 40; ++n) {
        array.calls.clear();
        test::fail_allocation(n);
        const int32_t status = rebuild(text);
        test::no_more_faults();
        if (status == 0) continue;
        EXPECT_EQ(status, 11);
        // Without a record to fill, the array is not asked.
        if (std::string(errmsg).ends_with("line 2329")) {
            EXPECT_EQ(array.calls, test::Lines{});
        }
        seen.insert(errmsg);
        EXPECT_FALSE(h != nullptr && is_listed(h));
    }
    const std::set<std::string> expected = {
        "TimeFinder_rebuild: Memory allocation failure at line 2233",
        "TimeFinder_rebuild: Memory allocation failure at line 2241",
        "TimeFinder_rebuild: convert_open: memory allocation",
        "TimeFinder_rebuild: Memory allocation failure at line 2329",
        "TimeFinder_rebuild: Cannot map raw device /dev/qz/rdmp/p00A1 to block device",
        "TimeFinder_rebuild: Cannot map raw device /dev/rdsk/c1t0d0 to block device",
        "dg_insert: Memory allocation failure at line 319",
        "dg_insert: Memory allocation failure at line 334",
    };
    EXPECT_EQ(seen, expected);
    EXPECT_EQ(rebuild(text), 0);
}

TEST_F(Rebuild, device_that_cannot_be_mapped_is_an_operation_failure) {
    const std::string text = known_pair();
    for (int n = 1; n < 40; ++n) {
        test::fail_allocation(n);
        static_cast<void>(rebuild(text));
        test::no_more_faults();
        if (std::string(errmsg).find("Cannot map") == std::string::npos) continue;
        EXPECT_EQ(errnum, 3);
        EXPECT_EQ(h->pminfo_list, nullptr);
        return;
    }
    FAIL() << "no allocation made the mapping fail";
}

TEST_F(Rebuild, failed_listing_is_the_result_and_the_object_counts_all_the_same) {
    const std::string text = "HDEF-keep_fi=1\n";
    for (int n = 1; n < 40 && errnum == 0; ++n) {
        if (n <= 4) continue;  // both records and the table
        total_freeze_volumes = 0;
        test::fail_allocation(n);
        const int32_t status = rebuild(text);
        test::no_more_faults();
        if (status == 0) continue;
        expect_failure(1, "dg_insert: Memory allocation failure at line 319");
        EXPECT_EQ(total_freeze_volumes, 1);
        return;
    }
    FAIL() << "no allocation made the listing fail";
}

TEST_F(Rebuild, two_objects_of_a_group_share_its_entry) {
    ASSERT_EQ(rebuild("HDEF-is_vol=1\nHDEF-vol_group=datadg\nHDEF-vol_name=vola\n"), 0);
    hdef *first = h;
    ASSERT_EQ(rebuild("HDEF-is_vol=1\nHDEF-vol_group=datadg\nHDEF-vol_name=volb\n"), 0);
    ASSERT_NE(DG_LIST, nullptr);
    EXPECT_EQ(DG_LIST->next, nullptr);
    EXPECT_EQ(DG_LIST->vol_count, 2);
    EXPECT_EQ(DG_LIST->members->h, h);
    EXPECT_EQ(DG_LIST->members->next->h, first);
    EXPECT_EQ(total_freeze_volumes, 2);
}

TEST_F(Rebuild, record_of_a_failed_rebuild_goes_with_its_files_when_the_process_ends) {
    EXPECT_EXIT(
        {
            rebuild("HDEF-restore=1\n");
            test::write_file("/var/left", std::string(h->transfer_file) + "\n" + h->out_file);
            exit(test::exists(h->transfer_file) && test::exists(h->out_file) ? 0 : 1);
        },
        testing::ExitedWithCode(0), "");
    const std::string left = test::read_file("/var/left");
    const size_t end = left.find('\n');
    EXPECT_TRUE(left.starts_with("/tmp/EMCTX"));
    EXPECT_FALSE(test::exists(left.substr(0, end)));
    EXPECT_FALSE(test::exists(left.substr(end + 1)));
}

// The clone block.

TEST_F(Rebuild, clone_lines_go_into_a_fresh_file_and_the_stale_one_is_deleted) {
    test::write_file("/tmp/EMCTXstale", "old");
    ASSERT_EQ(rebuild("HDEF-CLONE_INFO_FILE=START\nTRANSFER_FILE=/tmp/EMCTXstale\n"
                      "first line\n\nHDEF-keep_fi=1\nPRIM_MIR_INFO=NEXT\n"
                      "HDEF-CLONE_INFO_FILE=START\nlast = line\nHDEF-CLONE_INFO_FILE=END\n"
                      "HDEF-dgimport=0\n"),
              0);
    EXPECT_FALSE(test::exists("/tmp/EMCTXstale"));
    EXPECT_STRNE(h->transfer_file, "/tmp/EMCTXstale");
    EXPECT_EQ(test::read_file(h->transfer_file),
              "first line\n\nHDEF-keep_fi=1\nPRIM_MIR_INFO=NEXT\nlast = line\n");
    EXPECT_EQ(h->keep_fi, 0);
    EXPECT_EQ(h->pminfo_list, nullptr);
}

TEST_F(Rebuild, stale_name_of_a_folder_is_not_removed_as_one) {
    test::make_folders("/var/stale_folder");
    ASSERT_EQ(rebuild("HDEF-CLONE_INFO_FILE=START\nTRANSFER_FILE=/var/stale_folder\n"
                      "HDEF-CLONE_INFO_FILE=END\n"),
              0);
    EXPECT_TRUE(test::exists("/var/stale_folder"));
}

TEST_F(Rebuild, line_like_a_transfer_name_outside_the_block_is_only_an_unknown_key) {
    test::write_file("/tmp/EMCTXstale", "old");
    EXPECT_EQ(rebuild("TRANSFER_FILE=/tmp/EMCTXstale\n"), 0);
    EXPECT_TRUE(test::exists("/tmp/EMCTXstale"));
    unlink("/tmp/EMCTXstale");
}

TEST_F(Rebuild, line_in_a_second_block_is_a_failed_write_and_a_second_end_is_ignored) {
    EXPECT_EQ(rebuild("HDEF-CLONE_INFO_FILE=START\na\nHDEF-CLONE_INFO_FILE=END\n"
                      "HDEF-CLONE_INFO_FILE=END\nHDEF-CLONE_INFO_FILE=START\n"
                      "HDEF-CLONE_INFO_FILE=END\n"),
              0);
    expect_no_failure();
    EXPECT_EQ(rebuild("HDEF-CLONE_INFO_FILE=START\na\nHDEF-CLONE_INFO_FILE=END\n"
                      "HDEF-CLONE_INFO_FILE=START\nb\nHDEF-CLONE_INFO_FILE=END\n"),
              11);
    expect_failure(1, "TimeFinder_rebuild: Memory allocation failure at line 2315");
    EXPECT_EQ(test::read_file(h->transfer_file), "a\n");
    EXPECT_EQ(total_freeze_volumes, 1);
}

TEST_F(Rebuild, clone_line_that_the_disk_does_not_take_names_line_2315) {
    const auto before = signal(SIGXFSZ, SIG_IGN);
    rlimit limit = {};
    ASSERT_EQ(getrlimit(RLIMIT_FSIZE, &limit), 0);
    const rlimit small = {4, limit.rlim_max};
    ASSERT_EQ(setrlimit(RLIMIT_FSIZE, &small), 0);
    const int32_t status = rebuild("HDEF-CLONE_INFO_FILE=START\nabc\ndef\n");
    setrlimit(RLIMIT_FSIZE, &limit);
    signal(SIGXFSZ, before);
    EXPECT_EQ(status, 11);
    expect_failure(1, "TimeFinder_rebuild: Memory allocation failure at line 2315");
}

TEST_F(Rebuild, allocations_for_2046_pairs_grow_with_their_number) {
    set_level(-1);
    array.add_bcv(symid, "01A1", "/dev/rdsk/c1t0d0");
    const auto allocations_for = [this](int pairs) {
        std::string text;
        for (int i = 0; i < pairs; ++i) text += pair_lines(hex_name(i), "01A1");
        test::no_more_faults();
        EXPECT_EQ(rebuild(text), 0);
        return test::allocations_seen();
    };
    const int few = allocations_for(256);
    EXPECT_LE(allocations_for(2046), 8 * few);
    int position = 0;
    for (const prim_mir_info *pm = h->pminfo_list; pm != nullptr; pm = pm->next) {
        ASSERT_EQ(pm->dev_sym_devname, hex_name(position++));
    }
    EXPECT_EQ(position, 2046);
}

}  // namespace
