// doctor: each thing that a host lacks is named with its remedy, and nothing is changed.
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <nlohmann/json.hpp>
#include <set>

#include "fimctl/inspect/array_functions.h"
#include "fimctl/paths.h"
#include "tests/fimctl/world.h"
#include "tests/support/private_root.h"

namespace {

namespace fs = std::filesystem;
namespace path = fimctl::path;
using test::Ended;
using Json = nlohmann::json;

const std::string symid = "000184500123";

class Doctor : public test::FimctlWorld {
  protected:
    void SetUp() override {
        if (!test::is_real_root()) GTEST_SKIP() << "needs root: makes device nodes";
        FimctlWorld::SetUp();
        test::make_folders(path::host_lock_folder);
        test::make_folders(path::counter_folder);
        for (const char *tool :
             {path::device_information_tool, path::clone_tool, path::disk_group_tool,
              path::disk_tool, path::daemon_tool, path::volume_tool, path::volume_set_tool}) {
            test::write_script(tool, "exit 0");
        }
        test::make_folders("/dev/qz/rdmp");
        add_primary("p0", "00A1", "01A1", 5);
    }
    // A primary that this host sees, with a labelled BCV of its group that it sees too.
    static void add_primary(const std::string &disk, const std::string &name,
                            const std::string &bcv, long state,
                            const std::string &label = "TSR-BCV") {
        const std::string node = "/dev/qz/rdmp/" + disk;
        ASSERT_EQ(mknod(node.c_str(), S_IFCHR | 0600, 0x0103), 0);
        std::ofstream(std::string("/var/fake/devices"), std::ios::app)
            << symid << " " << name << " " << node << " datadg -\n"
            << symid << " " << bcv << " /dev/sd" << disk << " datadg " << label << "\n";
        std::ofstream(std::string("/var/fake/array"), std::ios::app)
            << symid << " " << name << " " << bcv << " " << state << "\n";
    }
    Json examine(const std::vector<std::string> &more = {}) {
        std::vector<std::string> words = {"doctor", "--json"};
        words.insert(words.end(), more.begin(), more.end());
        const Ended ended = fimctl(words);
        const Json all = Json::parse(ended.out);
        EXPECT_EQ(ended.status, all.at("verdict") == "fail" ? 1 : 0) << ended.out;
        return all;
    }
    // The first finding of a subject with this verdict; a null one when there is none.
    Json finding(const std::string &subject, const std::string &verdict,
                 const std::vector<std::string> &more = {}) {
        const Json all = examine(more);
        for (const Json &one : all.at("findings")) {
            if (one.at("subject") == subject && one.at("verdict") == verdict) return one;
        }
        ADD_FAILURE() << "no " << verdict << " about " << subject << " in " << all.dump(2);
        return {{"text", ""}, {"remedy", ""}};
    }
    static bool says(const Json &one, const std::string &text) {
        const auto whole =
            one.at("text").get<std::string>() + " -> " + one.at("remedy").get<std::string>();
        if (whole.find(text) != std::string::npos) return true;
        ADD_FAILURE() << whole;
        return false;
    }
};

TEST_F(Doctor, a_host_that_has_everything_gets_ok_in_every_line_and_0) {
    const Ended ended = fimctl({"doctor"});
    EXPECT_EQ(ended.status, 0) << ended.out;
    EXPECT_EQ(ended.err, "");
    std::istringstream lines(ended.out);
    for (std::string line; std::getline(lines, line);) EXPECT_EQ(line.substr(0, 6), "ok    ");
}

TEST_F(Doctor, a_missing_array_library_fails_and_says_where_it_belongs) {
    unlink(path::array_library);
    EXPECT_TRUE(says(finding("array library", "fail"), path::array_library));
    EXPECT_EQ(fimctl({"doctor"}).status, 1);
}

TEST_F(Doctor, every_missing_function_is_named_by_what_it_is_needed_for) {
    fs::copy_file(FAKE_OLD_SYMAPI, path::array_library, fs::copy_options::overwrite_existing);
    EXPECT_TRUE(says(finding("array library", "fail"), "lacks SymPrefsSet"));
    const Json all = examine();
    std::set<std::string> warnings;
    for (const Json &one : all["findings"]) {
        if (one["verdict"] == "warn") warnings.insert(one["text"].get<std::string>());
    }
    EXPECT_EQ(warnings, (std::set<std::string>{"lacks SymApiPatch: its texts will read \"unknown\"",
                                               "lacks SymPing: looked for, and not used"}));
}

TEST_F(Doctor, the_list_of_functions_is_the_method_s_own) {
    std::set<std::string> wanted, called = {"SymInitV",         "SymExit",
                                            "SymDiscover",      "SymApiVersion",
                                            "SymApiPatch",      "SymPerror",
                                            "SymPrefsSet",      "SymPdevShow",
                                            "SymDevShow",       "SymDevSync",
                                            "SymPdevSync",      "SymLdevBcvControl",
                                            "SymDevBcvControl", "SymDevListBcvControl"};
    constexpr unsigned load_group = 2;
#define TF_SYMAPI_FUNCTION(mask, name) \
    if ((static_cast<unsigned>(mask) & load_group) != 0) wanted.insert(#name);
#define TF_SYMAPI_UNBOUND(mask, name) TF_SYMAPI_FUNCTION(mask, name)
#include "symapi/symapi_functions.def"
    std::set<std::string> listed;
    for (const fimctl::ArrayFunction &function : fimctl::array_functions) {
        EXPECT_TRUE(listed.insert(function.name).second) << function.name;
        EXPECT_EQ(function.need != fimctl::Need::unused, called.count(function.name) == 1)
            << function.name;
    }
    EXPECT_EQ(listed, wanted);
}

TEST_F(Doctor, the_release_is_measured_at_the_method_s_gate) {
    EXPECT_TRUE(says(finding("array release", "ok"), "5.0 (0x05000000), patch level 7"));
    test::write_file("/var/fake/version", "0x04020099\n");
    EXPECT_TRUE(says(finding("array release", "fail"), "0x04020099"));
    test::write_file("/var/fake/version", "0x0402009A\n");
    finding("array release", "ok");
    test::write_file("/var/fake/version", "0x04030000\n");
    finding("array release", "ok");
    array_fails("SymApiVersion", 3);
    EXPECT_TRUE(says(finding("array release", "fail"), "unknown (0x00000000)"));
    EXPECT_TRUE(says(finding("array release", "fail"), "-> see that the array's daemon runs"))
        << "no other release would help";
}

TEST_F(Doctor, an_array_that_does_not_answer_fails_with_its_own_words) {
    array_fails("SymInitV", 6);
    EXPECT_TRUE(says(finding("array session", "fail"), "code 6 (scripted)"));
}

TEST_F(Doctor, a_library_that_kills_its_process_is_told_and_not_died_of) {
    test::write_file(path::array_library, "no library");
    finding("array library", "fail");
}

TEST_F(Doctor, without_a_database_no_session_is_tried_and_none_is_made) {
    unlink(path::array_database);
    EXPECT_TRUE(says(finding("array session", "ok"), "no database yet"));
    EXPECT_FALSE(test::exists(path::array_database));
    for (const std::string &call : calls()) EXPECT_EQ(call.find("SymInitV"), std::string::npos);
    fs::remove_all(path::array_root);
    EXPECT_TRUE(says(finding("array database", "fail"), "mkdir"));
}

TEST_F(Doctor, free_labelled_bcvs_are_counted) {
    add_primary("p1", "00A2", "01A2", 2);
    EXPECT_TRUE(says(finding("BCVs", "ok"), "2 of 2 primaries have a free BCV with the label"));
}

TEST_F(Doctor, a_bcv_that_is_shown_with_its_pair_is_not_taken_for_a_primary) {
    ASSERT_EQ(mknod("/dev/qz/rdmp/q0", S_IFCHR | 0600, 0x0103), 0);
    test::write_file("/var/fake/devices", symid + " 00A1 /dev/qz/rdmp/p0 datadg -\n" + symid +
                                              " 01A1 /dev/qz/rdmp/q0 datadg TSR-BCV\n");
    EXPECT_TRUE(says(finding("BCVs", "ok"), "1 of 1 primaries"));
}

TEST_F(Doctor, a_primary_without_a_labelled_bcv_is_named) {
    add_primary("p1", "00A2", "01A2", 2, "OTHER");
    EXPECT_TRUE(says(finding("BCV", "warn"), "00A2 (/dev/qz/rdmp/p1): no BCV of its group"));
    EXPECT_TRUE(says(finding("BCVs", "ok"), "1 of 2 primaries"));
}

TEST_F(Doctor, a_bcv_that_a_snapshot_holds_is_not_free) {
    const std::string one = add_file_system("one", symid, "00A1", "01A1");
    ASSERT_EQ(fimctl({"freeze", "--no-quiesce", one}).status, 0);
    EXPECT_TRUE(says(finding("BCV", "warn"), "held by snapshot 1 -> fimctl release 1"));
    EXPECT_TRUE(says(finding("BCVs", "ok"), "0 of 1 primaries"));
}

TEST_F(Doctor, a_bcv_that_this_host_does_not_see_is_named) {
    test::write_file("/var/fake/devices", symid + " 00A1 /dev/qz/rdmp/p0 datadg -\n" + symid +
                                              " 01A1 - datadg TSR-BCV\n");
    EXPECT_TRUE(says(finding("BCV", "warn"), "not visible on this host"));
}

TEST_F(Doctor, a_host_that_sees_mirrors_only_is_taken_for_a_backup_host) {
    test::write_file("/var/fake/array", "");
    EXPECT_TRUE(says(finding("BCVs", "ok"), "a backup host"));
    test::write_file("/var/fake/devices", "");
    EXPECT_TRUE(says(finding("BCVs", "warn"), "sees no device of an array"));
}

TEST_F(Doctor, a_tool_that_every_snapshot_needs_fails_and_one_of_volumes_warns) {
    unlink(path::device_information_tool);
    EXPECT_TRUE(says(finding("tool", "fail"), path::device_information_tool));
    unlink(path::clone_tool);
    EXPECT_TRUE(says(finding("tool", "warn"), path::clone_tool));
}

TEST_F(Doctor, a_site_script_that_cannot_be_executed_fails) {
    test::write_file(path::clone_script, "#!/bin/sh\n");
    EXPECT_TRUE(says(finding("site script", "fail"), "chmod 755"));
    chmod(path::clone_script, 0755);
    const Json report = examine();
    ASSERT_FALSE(report["findings"].empty());
    for (const Json &one : report["findings"]) EXPECT_NE(one["subject"], "site script");
}

TEST_F(Doctor, a_missing_or_open_lock_folder_is_told) {
    chmod(path::counter_folder, 0777);
    EXPECT_TRUE(
        says(finding("lock folder", "warn"), std::string("chmod go-w ") + path::counter_folder));
    rmdir(path::counter_folder);
    EXPECT_TRUE(says(finding("lock folder", "fail"),
                     std::string("mkdir -p -m 0755 ") + path::counter_folder));
}

TEST_F(Doctor, the_database_folder_s_mode_is_no_finding) {
    chmod(path::array_state, 0644);
    finding("array database", "ok");
}

TEST_F(Doctor, a_state_folder_that_is_open_is_told_and_a_missing_one_is_not_made) {
    EXPECT_TRUE(says(finding("state folder", "ok"), "not there yet"));
    EXPECT_FALSE(test::exists(state_));
    test::make_folders(state_);
    chmod(state_.c_str(), 0755);
    EXPECT_TRUE(says(finding("state folder", "warn"), "chmod 700 " + state_));
}

TEST_F(Doctor, a_mount_table_that_is_not_current_is_told) {
    const std::string kernel = test::read_file("/proc/self/mounts");
    test::write_mount_table(kernel + "/dev/qz/dmp/gone /gone ext4 rw 0 0\n");
    EXPECT_TRUE(says(finding("mount table", "warn"), "still lists /dev/qz/dmp/gone on /gone"));
    unlink("/etc/mtab");
    EXPECT_TRUE(says(finding("mount table", "fail"), "ln -sf ../proc/self/mounts /etc/mtab"));
}

TEST_F(Doctor, never_tells_to_write_into_what_hides_the_host_s_own_mount_table) {
    ASSERT_EQ(mount("tmpfs", "/etc", "tmpfs", 0, nullptr), 0);
    const Json told = finding("mount table", "fail");
    ASSERT_EQ(umount("/etc"), 0);
    EXPECT_EQ(told.dump().find("ln -sf"), std::string::npos) << told;
    EXPECT_TRUE(says(told, "umount /etc: what is mounted there hides the host's own"));
}

TEST_F(Doctor, a_hook_that_would_stop_a_freeze_is_told) {
    EXPECT_TRUE(says(finding("hooks", "ok"), "hooks.d: 0"));
    test::write_file("/etc/fimctl/hooks.d/README", "words", 0644);
    EXPECT_TRUE(says(finding("hooks", "fail"), "README: it is not executable"));
    EXPECT_TRUE(says(finding("hooks", "fail", {"--hooks", "/etc/none"}), "/etc/none: No such"));
}

TEST_F(Doctor, a_method_without_an_entry_point_fails) {
    fs::copy_file(FAKE_SYMAPI, "/other.so");
    EXPECT_TRUE(says(finding("method", "fail", {"--method", "/other.so"}), "TimeFinder_volumes"));
    EXPECT_TRUE(says(finding("method", "fail", {"--method", "/none.so"}), "cannot be loaded"));
}

TEST_F(Doctor, the_import_entries_are_told_as_they_work_together) {
    EXPECT_TRUE(says(finding("disk-group import", "ok"), "no entry"));
    test::write_file("/var/fake/conf", "dgimport_backup1\n");
    EXPECT_TRUE(says(finding("disk-group import", "ok", {"--client", "backup1"}),
                     "dgimport_backup1: imported on backup1"));
    EXPECT_TRUE(says(finding("disk-group import", "ok", {"--client", "backup2"}),
                     "no entry: not imported on backup2"));
    test::write_file("/var/fake/conf", "dgimport\nno_dgimport_backup1\n");
    EXPECT_TRUE(says(finding("disk-group import", "warn", {"--client", "backup1"}),
                     "contradict each other"));
    EXPECT_TRUE(says(finding("disk-group import", "warn", {"--client", "here"}), "is this host"));
}

TEST_F(Doctor, the_array_is_only_read) {
    fimctl({"doctor"});
    for (const std::string &call : calls()) {
        EXPECT_EQ(call.find("COMMAND"), std::string::npos) << call;
    }
    EXPECT_TRUE(story().empty()) << story();
}

}  // namespace
