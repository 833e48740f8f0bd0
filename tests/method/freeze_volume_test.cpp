// From a volume to its devices.
#include <sys/mount.h>

#include "tests/method/freeze_fixture.h"
#include "tests/support/system_faults.h"

namespace {

using namespace test;

class FreezeVolume : public FreezeTest {
  protected:
    FreezeVolume() { mount_device("/dev/qz/dsk/datadg/vol1"); }

    void import_groups() { fake_host().entries["dgimport"] = ""; }
    static constexpr const char *with_client = "alternate_backup_client=backup1";

    // The report of the step, and behind it the one that stays.
    void expect_volume_failure(const std::string &first) {
        expect_given_up(3, "vol_to_device: Cannot discover devices associated with volume");
        const auto &lines = log_lines();
        ASSERT_GE(lines.size(), 3U);
        EXPECT_EQ(lines[lines.size() - 3], first);
        EXPECT_EQ(client_count, 0);
    }
};

TEST_F(FreezeVolume, the_tool_is_asked_for_the_volumes_devices) {
    clone_tool_answers(std::string(raw_disk) + "\n");
    ASSERT_EQ(freeze(), 0) << errmsg;
    EXPECT_EQ(clone_tool_runs(), "-g datadg -n vol1 -f FILE -p DEFAULT\n");
    EXPECT_EQ(handle->dgimport, 0);
}

TEST_F(FreezeVolume, with_the_import_the_tool_is_asked_for_the_groups_devices) {
    import_groups();
    clone_tool_answers(std::string(raw_disk) + "\n");
    ASSERT_EQ(freeze((std::string(with_client) + ",plexname=p1").c_str()), 0) << errmsg;
    EXPECT_EQ(clone_tool_runs(), "-g datadg -f FILE -p p1\n");
    EXPECT_EQ(handle->dgimport, 1);
}

TEST_F(FreezeVolume, the_tools_file_is_named_with_its_prefix) {
    write_script(clone_tool, "echo \"$6\" >/tool; exit 1");
    EXPECT_EQ(freeze(), 11);
    const std::string name = read_file("/tool");
    EXPECT_NE(name.find("/EMCTF"), std::string::npos) << name;
}

TEST_F(FreezeVolume, every_line_is_a_device_in_the_files_order) {
    add_pair("0002", "/dev/qz/rdmp/disk_1");
    add_pair("0003", "/dev/native_disk");
    clone_tool_answers("/dev/qz/rdmp/disk_0\n/dev/qz/rdmp/disk_1\n/dev/native_disk\n");
    ASSERT_EQ(freeze(), 0) << errmsg;
    EXPECT_EQ(raw_devices(handle),
              (std::vector<std::string>{raw_disk, "/dev/qz/rdmp/disk_1", "/dev/native_disk"}));
    const prim_mir_info *const second = handle->pminfo_list->next;
    EXPECT_STREQ(second->p_dev_raw_device, "/dev/qz/rdmp/disk_1");
    EXPECT_STREQ(second->dev_block_device, "/dev/qz/dmp/disk_1");
    EXPECT_STREQ(second->next->dev_block_device, "/dev/native_disk");
    // The object keeps the names of the volume itself.
    EXPECT_STREQ(handle->dev_block_device, "/dev/qz/dsk/datadg/vol1");
    EXPECT_STREQ(handle->dev_raw_device, "/dev/qz/rdsk/datadg/vol1");
}

TEST_F(FreezeVolume, the_nodes_of_a_volume_are_not_looked_at) {
    clone_tool_answers(std::string(raw_disk) + "\n");
    unlink(raw_disk);
    unlink(block_disk);
    ASSERT_EQ(freeze(), 0) << errmsg;
    EXPECT_EQ(handle->pminfo_list->dev_raw_uid, 0);
}

TEST_F(FreezeVolume, a_failing_tool_is_reported_and_its_file_removed) {
    write_script(clone_tool, "echo broken >&2; touch \"$6\"; exit 4");
    EXPECT_EQ(freeze(), 11);
    expect_given_up(3, "vol_to_device: Cannot discover devices associated with volume");
    bool reported = false;
    for (const std::string &line : log_lines()) {
        if (line.starts_with("do_cmd: Command failed with status=4: " + std::string(clone_tool))) {
            reported = true;
        }
    }
    EXPECT_TRUE(reported);
    EXPECT_TRUE(logged("    broken"));
}

TEST_F(FreezeVolume, a_name_of_254_characters_fits_its_line) {
    const std::string name = "/dev/" + std::string(249, 'd');
    add_pair("0002", name.substr(0, 47));
    clone_tool_answers(name + "\n");
    freeze();
    // The array does not know it by so long a name; the volume's devices were found all the same.
    EXPECT_FALSE(logged("vol_to_device: Device name exceeds 1024 characters"));
    EXPECT_EQ(client_count, 1);
}

TEST_F(FreezeVolume, a_name_of_255_characters_exceeds_the_number_that_the_message_quotes) {
    clone_tool_answers("/dev/" + std::string(250, 'd') + "\n");
    EXPECT_EQ(freeze(), 11);
    expect_volume_failure("vol_to_device: Device name exceeds 1024 characters");
}

TEST_F(FreezeVolume, a_last_line_without_newline_is_too_long_as_well) {
    clone_tool_answers(std::string(raw_disk) + "\n/dev/qz/rdmp/disk_1");
    EXPECT_EQ(freeze(), 11);
    expect_volume_failure("vol_to_device: Device name exceeds 1024 characters");
}

TEST_F(FreezeVolume, a_line_that_begins_with_nul_has_no_newline) {
    clone_tool_answers(std::string("\0\n", 2));
    EXPECT_EQ(freeze(), 11);
    expect_volume_failure("vol_to_device: Device name exceeds 1024 characters");
}

TEST_F(FreezeVolume, an_empty_file_means_no_devices) {
    clone_tool_answers("");
    EXPECT_EQ(freeze(), 11);
    expect_volume_failure("vol_to_device: No devices associated with volume vol1");
}

class FreezeVolumeFile : public FreezeVolume {
  protected:
    // The tool leaves something else than a file under the name that it was given.
    void expect_cannot_open(const std::string &make, const std::string &reason) {
        write_script(clone_tool, "echo \"$6\" >/tool; " + make);
        EXPECT_EQ(freeze(), 11);
        std::string name = read_file("/tool");
        if (!name.empty()) name.pop_back();
        rmdir(name.c_str());
        expect_volume_failure("vol_to_device: Cannot open file " + name + ": " + reason);
    }
};

TEST_F(FreezeVolumeFile, a_missing_file_cannot_be_opened) {
    expect_cannot_open("exit 0", "No such file or directory");
}

TEST_F(FreezeVolumeFile, a_link_is_not_followed) {
    write_file("/elsewhere", std::string(raw_disk) + "\n");
    expect_cannot_open("ln -s /elsewhere \"$6\"", "Too many levels of symbolic links");
    EXPECT_TRUE(exists("/elsewhere"));
}

TEST_F(FreezeVolumeFile, a_folder_is_no_file) {
    write_script(clone_tool, "echo \"$6\" >/tool; mkdir \"$6\"");
    EXPECT_EQ(freeze(), 11);
    std::string name = read_file("/tool");
    name.pop_back();
    EXPECT_TRUE(logged("vol_to_device: Cannot open file " + name + ": Invalid argument"));
    EXPECT_EQ(rmdir(name.c_str()), 0);
}

TEST_F(FreezeVolumeFile, a_pipe_is_no_file_and_is_not_waited_for) {
    expect_cannot_open("mkfifo \"$6\"", "Invalid argument");
}

TEST_F(FreezeVolumeFile, a_file_that_cannot_be_looked_at_is_none) {
    const SystemFault fault("fstat", 1, EIO);
    expect_cannot_open("touch \"$6\"", "Input/output error");
}

TEST_F(FreezeVolumeFile, a_file_that_breaks_off_is_not_taken_for_the_whole_as_root) {
    if (!is_real_root()) GTEST_SKIP() << "needs root to mount over the file";
    // The process's own memory is a regular file that cannot be read from its start.
    write_script(clone_tool, "echo \"$6\" >/tool; touch \"$6\"; mount --bind /proc/" +
                                 std::to_string(getpid()) + "/mem \"$6\"");
    EXPECT_EQ(freeze(), 11);
    std::string name = read_file("/tool");
    name.pop_back();
    EXPECT_TRUE(logged("vol_to_device: Cannot open file " + name + ": Input/output error"))
        << whole_log();
    umount2(name.c_str(), MNT_DETACH);
    unlink(name.c_str());
}

TEST_F(FreezeVolume, without_a_name_for_the_tools_file_the_step_fails) {
    clone_tool_answers(std::string(raw_disk) + "\n");
    fail_temporary_name(4);  // behind the capture files' and the transfer file's
    EXPECT_EQ(freeze(), 11);
    no_more_faults();
    expect_volume_failure("vol_to_device: Memory allocation failure at line 1333");
    EXPECT_EQ(clone_tool_runs(), "");
}

TEST_F(FreezeVolume, without_memory_each_step_of_the_list_names_itself) {
    clone_tool_answers("");
    freeze();  // the mount table is in its cache from here on
    clone_tool_answers("/dev/qz/rdmp/disk_0\n/dev/qz/rdmp/disk_1\n");
    const char *const reports[] = {
        "vol_to_device: Cannot map raw device /dev/qz/rdmp/disk_0 to block device",
        "vol_to_device: Memory allocation failure at line 1397",
        "vol_to_device: Cannot map raw device /dev/qz/rdmp/disk_1 to block device"};
    int n = 5;  // behind the object's, the device's, the group's and the member's record
    for (const char *report : reports) {
        log_lines().clear();
        fail_allocation(n++);
        EXPECT_EQ(freeze(), 11);
        no_more_faults();
        expect_volume_failure(report);
    }
}

TEST_F(FreezeVolume, a_second_volume_of_an_imported_group_has_no_devices) {
    import_groups();
    clone_tool_answers(std::string(raw_disk) + "\n");
    ASSERT_EQ(freeze(with_client), 0) << errmsg;
    hdef *const first = handle;
    array.calls.clear();
    ASSERT_EQ(freeze(with_client), 0) << errmsg;
    ASSERT_NE(handle, nullptr);
    EXPECT_EQ(handle->pminfo_list, nullptr);
    EXPECT_EQ(handle->dgimport, 1);
    EXPECT_EQ(clone_tool_runs(), "-g datadg -f FILE -p DEFAULT\n");
    EXPECT_EQ(array.calls, (std::vector<std::string>{"SymPrefsSet 1 0"}));
    EXPECT_NE(first->pminfo_list, nullptr);
    EXPECT_EQ(dg_find("datadg")->vol_count, 2);
    EXPECT_EQ(client_count, 2);
    EXPECT_EQ(total_freeze_volumes, 2);
}

TEST_F(FreezeVolume, a_second_volume_of_a_group_without_import_finds_its_own_devices) {
    clone_tool_answers(std::string(raw_disk) + "\n");
    ASSERT_EQ(freeze(), 0);
    ASSERT_EQ(freeze(), 0);
    EXPECT_NE(handle->pminfo_list, nullptr);
    EXPECT_EQ(clone_tool_runs(),
              "-g datadg -n vol1 -f FILE -p DEFAULT\n-g datadg -n vol1 -f FILE -p DEFAULT\n");
}

TEST_F(FreezeVolume, a_failed_volume_leaves_its_group_as_it_was) {
    clone_tool_answers(std::string(raw_disk) + "\n");
    ASSERT_EQ(freeze(), 0);
    hdef *const first = handle;
    clone_tool_answers("");
    EXPECT_EQ(freeze(), 11);
    EXPECT_EQ(handle, nullptr);
    ASSERT_NE(dg_find("datadg"), nullptr);
    EXPECT_EQ(dg_find("datadg")->vol_count, 1);
    EXPECT_EQ(dg_find("datadg")->members->h, first);
    EXPECT_EQ(dg_find("datadg")->members->next, nullptr);
}

TEST_F(FreezeVolume, a_failed_first_volume_does_not_make_its_group_a_listed_one) {
    import_groups();
    clone_tool_answers("");
    EXPECT_EQ(freeze(with_client), 11);
    EXPECT_EQ(DG_LIST, nullptr);
    clone_tool_answers(std::string(raw_disk) + "\n");
    ASSERT_EQ(freeze(with_client), 0) << errmsg;
    EXPECT_NE(handle->pminfo_list, nullptr);
}

TEST_F(FreezeVolume, ten_thousand_devices_are_listed_in_their_order) {
    std::string answer;
    for (int i = 0; i < 10000; ++i) answer += "/dev/native/d" + std::to_string(i) + "\n";
    write_file("/tool/answer", answer);
    hdef *const h = static_cast<hdef *>(calloc(1, sizeof(hdef)));
    h->pminfo_list = static_cast<prim_mir_info *>(calloc(1, sizeof(prim_mir_info)));
    clone_tool_answers(answer);
    EXPECT_EQ(tf::vol_to_device(h), 0) << errmsg;
    const std::vector<std::string> names = raw_devices(h);
    ASSERT_EQ(names.size(), 10000U);
    EXPECT_EQ(names.front(), "/dev/native/d0");
    EXPECT_EQ(names.back(), "/dev/native/d9999");
    EXPECT_STREQ(h->pminfo_list->p_dev_raw_device, "/dev/native/d0");
    EXPECT_STREQ(h->pminfo_list->next->p_dev_raw_device, "/dev/native/d1");
    tf::free_hdef(h);
}

TEST_F(FreezeVolume, without_memory_for_a_name_the_tool_is_not_asked) {
    mount_device("/dev/qz/dsk/data;dg/vol;1");
    clone_tool_answers(std::string(raw_disk) + "\n");
    import_groups();
    // Its own file has a name that needs quotes, too.
    make_folders("/tmp/a b");
    setenv("TMPDIR", "/tmp/a b", 1);
    // What the tool was asked, without the file's name.
    const auto asked = [] {
        std::string text = read_file("/tool/arguments");
        const size_t from = text.find("-f "), to = text.find(" -p");
        if (from < to) text.replace(from, to - from, "FILE");
        return text;
    };
    for (const char *config : {"plexname=p 1", "plexname=p 1,alternate_backup_client=backup1"}) {
        const auto freeze_and_forget = [&] {
            write_file("/tool/arguments", "");
            handle = nullptr;
            const int32_t status = freeze(config);
            if (handle != nullptr) tf::remove_capture_files(handle);
            tf::free_all_records();
            return status;
        };
        no_more_faults();
        ASSERT_EQ(freeze_and_forget(), 0) << errmsg;
        const int allocations = allocations_seen();
        const std::string whole = asked();
        EXPECT_NE(whole.find("data;dg"), std::string::npos) << whole;
        int not_asked = 0;
        for (int n = 1; n <= allocations; ++n) {
            fail_allocation(n);
            freeze_and_forget();
            no_more_faults();
            const std::string ran = asked();
            if (ran.empty()) ++not_asked;
            EXPECT_TRUE(ran.empty() || ran == whole) << n << ": " << ran;
        }
        EXPECT_GE(not_asked, 3);
    }
    unsetenv("TMPDIR");
    rmdir("/tmp/a b");
}

TEST_F(FreezeVolume, a_list_of_a_tool_that_failed_is_not_believed) {
    write_script(clone_tool, "echo /dev/qz/rdmp/disk_0 >\"$6\"; exit 1");
    EXPECT_EQ(freeze(), 11);
    EXPECT_EQ(errnum, 3);
    EXPECT_EQ(handle, nullptr);
    EXPECT_TRUE(array.calls.empty());
}

}  // namespace
