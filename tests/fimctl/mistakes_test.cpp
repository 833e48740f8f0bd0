// The mistakes that an operator makes: each answer says what to do.
#include <sys/mount.h>
#include <unistd.h>

#include "fimctl/paths.h"
#include "tests/fimctl/killing.h"
#include "tests/fimctl/world.h"
#include "tests/support/private_root.h"

namespace {

using test::Ended;

class Mistakes : public test::FimctlWorld {
  protected:
    void SetUp() override {
        FimctlWorld::SetUp();
        one_ = add_file_system("one", "000184500123", "00A1", "01A1");
    }
    void expect_told(const std::vector<std::string> &arguments, int status, const std::string &what,
                     const std::string &next) {
        const Ended ended = fimctl(arguments);
        EXPECT_EQ(ended.status, status);
        EXPECT_NE(ended.err.find(what), std::string::npos) << ended.err;
        EXPECT_NE(ended.err.find("next: " + next), std::string::npos) << ended.err;
        EXPECT_EQ(ended.out, "");
    }
    void freeze() { ASSERT_EQ(fimctl({"freeze", "--no-quiesce", one_}).status, 0); }

    std::string one_;
};

TEST_F(Mistakes, a_wrong_path) {
    expect_told({"freeze", "/data-on"}, 2, "/data-on: No such file or directory",
                "correct the path or the option, then try again");
}

TEST_F(Mistakes, a_path_on_no_device) {
    expect_told({"freeze", "/proc/sys"}, 2, "/proc/sys lies on no device (proc)",
                "name a path on a disk of the array");
    test::make_folders("/memory");
    ASSERT_EQ(mount("tmpfs", "/memory", "tmpfs", 0, nullptr), 0);
    expect_told({"run", one_, "/memory", "--", "true"}, 2, "/memory lies on no device (tmpfs)",
                "name a path on a disk of the array");
    umount("/memory");
    EXPECT_TRUE(story().empty());
    EXPECT_EQ(fimctl({"list", "--all"}).out, "no snapshots\n");
}

TEST_F(Mistakes, a_path_twice) {
    expect_told({"freeze", "--no-quiesce", one_, one_ + "/"}, 2, "lie on one file system",
                "name it once, then try again");
    const auto volume = add_volume("datadg", "vol01", "000184500123", "00A2", "01A2");
    expect_told({"freeze", volume, volume}, 2, "are one device", "name it once, then try again");
    EXPECT_TRUE(story().empty());
}

TEST_F(Mistakes, a_second_mount) {
    freeze();
    ASSERT_EQ(fimctl({"mount", "1"}).status, 0);
    ASSERT_EQ(mount("tmpfs", copy_folder(1, 1).c_str(), "tmpfs", 0, nullptr), 0);
    expect_told({"mount", "1"}, 2, "snapshot 1 cannot be mounted: it is mounted",
                "fimctl show 1 tells where its copy is mounted");
    expect_told({"restore", "1"}, 2, "was not taken with disk-group import",
                "copy what is needed out of the mounted copy (fimctl show 1 tells where); for");
    ASSERT_EQ(umount(copy_folder(1, 1).c_str()), 0);
    expect_told({"mount", "1"}, 2, "snapshot 1 cannot be mounted: it is mounted",
                "its copy was unmounted by others; end it (fimctl release 1), and take another");
    EXPECT_EQ(snapshot(1).state, fimctl::State::mounted);
}

TEST_F(Mistakes, a_mount_after_its_folder_was_tidied_away) {
    freeze();
    ASSERT_EQ(rmdir(copy_folder(1, 1).c_str()), 0);
    EXPECT_EQ(fimctl({"mount", "1"}).status, 0);
    EXPECT_TRUE(test::exists(copy_folder(1, 1)));
    ASSERT_EQ(fimctl({"release", "1"}).status, 0);
    EXPECT_FALSE(test::exists(copy_folder(1, 1)));
}

TEST_F(Mistakes, a_release_before_the_mount_is_none) {
    freeze();
    EXPECT_EQ(fimctl({"release", "1"}).status, 0);
}

TEST_F(Mistakes, a_mount_or_a_second_release_after_the_release) {
    freeze();
    ASSERT_EQ(fimctl({"release", "1"}).status, 0);
    expect_told({"mount", "1"}, 2, "it is released", "take another snapshot: fimctl freeze PATH");
    expect_told({"release", "1"}, 2, "snapshot 1 is over", "nothing is left to do for it");
}

TEST_F(Mistakes, a_mount_of_what_was_killed) {
    script("freeze_commit 1 die");
    ASSERT_EQ(fimctl({"freeze", "--no-quiesce", one_}).status, 3);
    expect_told({"mount", "1"}, 2, "it is cutting", "fimctl release 1");
}

TEST_F(Mistakes, a_number_that_is_none) {
    expect_told({"release", "7"}, 10, "there is no snapshot 7",
                "fimctl list --all shows the snapshots");
    expect_told({"export", "7"}, 10, "there is no snapshot 7",
                "fimctl list --all shows the snapshots");
}

TEST_F(Mistakes, a_release_while_the_backup_host_has_the_copy_mounted) {
    freeze();
    ASSERT_EQ(fimctl({"export", "1", "--output", "/away"}).status, 0);
    script("thaw_commit 1 fail 7 emc_tf_bcv_control_all: code: 401 (A host has mounted the BCV)");
    expect_told({"release", "1", "--abandoned"}, 3, "code: 401",
                "see that no host uses the mirrors, such as a backup host on which the copy is "
                "mounted, then: fimctl release 1 --abandoned");
    test::write_file("/var/fake/script", "");
    EXPECT_EQ(fimctl({"release", "1", "--abandoned"}).status, 0);
}

TEST_F(Mistakes, a_word_for_a_number) {
    for (const std::string word : {"abc", "-1", "1x", "0x1", "/data"}) {
        for (const std::string command :
             {"show", "mount", "release", "restore", "export", "cleanup"}) {
            const Ended ended = fimctl({command, word});
            EXPECT_EQ(ended.status, 2) << command << " " << word;
            EXPECT_NE(ended.err.find("\"" + word + "\" is no snapshot's number; fimctl list shows"),
                      std::string::npos)
                << command << " " << ended.err;
        }
    }
}

TEST_F(Mistakes, a_file_for_the_state_folder) {
    test::write_file("/notes", "text");
    expect_told({"--state", "/notes", "list"}, 1, "/notes/catalogue.db: Not a directory",
                "see that the state folder can be written");
}

TEST_F(Mistakes, an_unplugged_array) {
    array_fails("SymInitV", 520);
    expect_told({"freeze", "--no-quiesce", one_}, 12, "the array does not answer",
                "see that the array library is installed and that the array answers");
    unlink(fimctl::path::array_library);
    expect_told({"freeze", "--no-quiesce", one_}, 12, "cannot load the array library",
                "see that the array library is installed");
}

TEST_F(Mistakes, an_array_that_is_unplugged_before_the_release_leaves_the_snapshot) {
    freeze();
    script("rebuild 1 fail 12 emc_tf__SymInit: Failed - SymVersion = 1280, Error = 1 (x).");
    expect_told({"release", "1"}, 12, "step \"rebuild\" failed",
                "see that the array library is installed and that the array answers");
    EXPECT_EQ(snapshot(1).state, fimctl::State::frozen);
    test::write_file("/var/fake/script", "");
    EXPECT_EQ(fimctl({"release", "1"}).status, 0);
}

TEST_F(Mistakes, what_is_exported_is_ended_by_none_of_the_usual_ways) {
    freeze();
    ASSERT_EQ(fimctl({"export", "1", "--output", "/away"}).status, 0);
    const Ended ended = fimctl({"cleanup"});
    EXPECT_NE(ended.err.find("or fimctl release 1 --abandoned)"), std::string::npos) << ended.err;
    EXPECT_EQ(ended.err.find("fimctl cleanup 1 ends it"), std::string::npos) << ended.err;
    expect_told({"restore", "1"}, 2, "was not taken with disk-group import",
                "copy what is needed out of the mounted copy (on the backup host that has it)");
}

TEST_F(Mistakes, an_export_of_what_is_being_restored_is_told_to_go_on_with_that) {
    freeze();
    fimctl::Catalogue(state_, false).set_state(1, fimctl::State::restoring);
    expect_told({"export", "1"}, 2, "has no copy that another host could read", "fimctl restore 1");
}

TEST_F(Mistakes, a_restore_of_what_is_over_names_the_list_of_the_others) {
    freeze();
    ASSERT_EQ(fimctl({"release", "1"}).status, 0);
    expect_told({"restore", "1"}, 2, "it is over",
                "fimctl list shows the snapshots that are not over");
}

TEST_F(Mistakes, a_freeze_of_what_somebody_is_freezing_is_told_to_wait_for_him) {
    script("freeze 1 sleep 60000");
    const pid_t pid = start({"freeze", "--no-quiesce", one_});
    ASSERT_TRUE(wait_for_call("freeze"));
    expect_told({"freeze", "--no-quiesce", one_}, 2, "is held by snapshot 1 (begun)",
                "wait: another fimctl (process " + std::to_string(pid) + ") works on snapshot 1");
    expect_told({"release", "1"}, 11,
                "another fimctl (process " + std::to_string(pid) + ") works on snapshot 1",
                "wait until the other process has ended, then try again");
    test::kill_with_all(pid);
}

TEST_F(Mistakes, a_catalogue_that_is_no_database_is_named_also_by_doctor) {
    freeze();
    test::write_file(state_ + "/catalogue.db", std::string(8192, 'x'));
    const std::string told = "the catalogue " + state_ + "/catalogue.db is damaged";
    expect_told({"list"}, 1, told, "move it away and put a saved one in its place");
    const std::string examined = fimctl({"doctor"}).out;
    EXPECT_NE(examined.find(told), std::string::npos) << examined;
}

TEST_F(Mistakes, a_misspelt_keyword_of_the_configuration_is_told_by_the_freeze) {
    const Ended ended =
        fimctl({"freeze", "--no-quiesce", "--config", "sync_at_strat=1,keep_if=1", one_});
    EXPECT_EQ(ended.status, 0) << ended.err;
    for (const std::string keyword : {"sync_at_strat", "keep_if"}) {
        EXPECT_NE(ended.err.find("fimctl: the configuration string: the method knows no keyword " +
                                 keyword + ", and passes it over\n"),
                  std::string::npos)
            << ended.err;
    }
}

TEST_F(Mistakes, a_number_that_is_too_large_is_named_as_it_was_given) {
    for (const std::string command : {"release", "cleanup"}) {
        const Ended ended = fimctl({command, "99999999999999999999"});
        EXPECT_EQ(ended.status, 2);
        EXPECT_NE(ended.err.find("there is no snapshot 99999999999999999999"), std::string::npos)
            << ended.err;
    }
}

TEST_F(Mistakes, a_command_that_is_there_and_no_program) {
    const Ended ended = fimctl({"run", "--no-quiesce", one_, "--", "/etc/passwd"});
    EXPECT_EQ(ended.status, 2);
    EXPECT_NE(ended.err.find("/etc/passwd: not executable"), std::string::npos) << ended.err;
    EXPECT_TRUE(story().empty());
}

}  // namespace
