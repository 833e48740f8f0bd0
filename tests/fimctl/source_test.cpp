// The paths that a user names.
#include "fimctl/source.h"

#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <unistd.h>

#include <fstream>

#include "fimctl/failure.h"
#include "tests/fimctl/world.h"
#include "tests/support/private_root.h"

namespace {

using fimctl::look_at_sources;
using fimctl::SourceKind;

class Sources : public test::FimctlWorld {
  protected:
    void expect_refused(const std::vector<std::string> &paths, const std::string &text) {
        try {
            look_at_sources(paths);
            FAIL() << "accepted";
        } catch (const fimctl::Failure &failure) {
            EXPECT_EQ(failure.code, fimctl::ExitCode::usage);
            EXPECT_NE(std::string(failure.what()).find(text), std::string::npos) << failure.what();
        }
    }
};

TEST_F(Sources, a_directory_belongs_to_the_file_system_mounted_above_it) {
    const auto one = add_file_system("one", "000184500123", "00A1", "00B1");
    test::make_folders(one + "/a/b");
    const auto sources = look_at_sources({one + "/a/b/"});
    ASSERT_EQ(sources.size(), 1U);
    EXPECT_EQ(sources[0].path, one + "/a/b");
    EXPECT_EQ(sources[0].kind, SourceKind::file_system);
    EXPECT_EQ(sources[0].mount_dir, one);
    EXPECT_EQ(sources[0].inside, "/a/b");
    EXPECT_FALSE(sources[0].is_volume());
}

TEST_F(Sources, a_mount_point_with_blanks_is_found) {
    const auto one = add_file_system("with blanks", "000184500123", "00A1", "00B1");
    EXPECT_EQ(look_at_sources({one})[0].mount_dir, one);
    EXPECT_EQ(look_at_sources({one})[0].inside, "");
}

TEST_F(Sources, a_file_system_on_a_volume_is_known_as_a_volume) {
    test::make_folders("/vol");
    ASSERT_EQ(mount("/dev/qz/dsk/g/v", "/vol", "tmpfs", 0, nullptr), 0);
    mounted_.push_back("/vol");
    EXPECT_TRUE(look_at_sources({"/vol"})[0].is_volume());
}

TEST_F(Sources, a_path_with_a_newline_is_refused_before_anything_is_frozen) {
    const auto one = add_file_system("one", "000184500123", "00A1", "00B1");
    test::make_folders(one + "/a\nb");
    expect_refused({one + "/a\nb"}, "newline");
    EXPECT_EQ(fimctl({"freeze", "--no-quiesce", one + "/a\nb"}).status, 2);
    EXPECT_TRUE(story().empty());
    EXPECT_FALSE(fimctl::Catalogue::exists(state_) &&
                 !fimctl::Catalogue(state_, false).all().empty())
        << "nothing was entered";
}

TEST_F(Sources, a_newline_in_the_working_directory_counts) {
    const auto one = add_file_system("one", "000184500123", "00A1", "00B1");
    test::make_folders(one + "/a\nb");
    ASSERT_EQ(chdir((one + "/a\nb").c_str()), 0);
    expect_refused({"."}, "newline");
    for (const std::vector<std::string> &words : std::vector<std::vector<std::string>>{
             {"freeze", "--no-quiesce", "--mount-at", "copy", one},
             {"--state", "state", "freeze", "--no-quiesce", one}}) {
        const auto ended = fimctl(words);
        EXPECT_EQ(ended.status, 2);
        EXPECT_NE(ended.err.find("a newline in the path"), std::string::npos) << ended.err;
    }
    EXPECT_TRUE(story().empty());
    ASSERT_EQ(chdir("/"), 0);
}

TEST_F(Sources, a_working_directory_that_is_gone_is_no_internal_error) {
    test::make_folders("/gone");
    ASSERT_EQ(chdir("/gone"), 0);
    ASSERT_EQ(rmdir("/gone"), 0);
    expect_refused({"file"}, "file: the working directory: No such file or directory");
    EXPECT_EQ(fimctl({"--state", "state", "list"}).status, 2);
    ASSERT_EQ(chdir("/"), 0);
}

TEST_F(Sources, missing_empty_and_too_long_paths_are_refused) {
    expect_refused({"/no/such/path"}, "/no/such/path: No such file or directory");
    expect_refused({""}, "empty path");
    expect_refused({"/" + std::string(1100, 'x')}, "longer than 1023 characters");
}

TEST_F(Sources, two_paths_of_one_file_system_are_refused) {
    const auto one = add_file_system("one", "000184500123", "00A1", "00B1");
    test::make_folders(one + "/a");
    expect_refused({one, one + "/a"}, "lie on one file system");
    expect_refused({one, one}, "lie on one file system");
}

TEST_F(Sources, root_device_nodes_are_devices) {
    if (!test::is_real_root()) GTEST_SKIP() << "needs root: makes device nodes";
    mknod("/dev/p0", S_IFBLK | 0600, makedev(7, 250));
    mknod("/dev/r0", S_IFCHR | 0600, makedev(1, 3));
    const auto sources = look_at_sources({"/dev/p0", "/dev/r0"});
    EXPECT_EQ(sources[0].kind, SourceKind::block_device);
    EXPECT_EQ(sources[1].kind, SourceKind::raw_device);
    EXPECT_EQ(sources[0].device, makedev(7, 250));
    expect_refused({"/dev/p0", "/dev/p0"}, "are one device");
}

TEST_F(Sources, the_copy_is_never_mounted_where_the_original_is) {
    const auto one = add_file_system("one", "000184500123", "00A1", "00B1");
    const auto ended = fimctl({"freeze", "--no-quiesce", "--mount-at", one + "/.", one});
    EXPECT_EQ(ended.status, 2);
    EXPECT_NE(ended.err.find("is where the original is mounted"), std::string::npos) << ended.err;
    EXPECT_TRUE(story().empty());
}

TEST_F(Sources, the_copy_is_not_mounted_over_another_mount) {
    const auto one = add_file_system("one", "000184500123", "00A1", "00B1");
    const auto two = add_file_system("two", "000184500123", "00A2", "00B2");
    const auto ended = fimctl({"freeze", "--no-quiesce", "--mount-at", two, one});
    EXPECT_EQ(ended.status, 2);
    EXPECT_NE(ended.err.find("is a mount point already"), std::string::npos) << ended.err;
}

TEST_F(Sources, none_of_several_copies_is_mounted_where_something_is_mounted) {
    const auto one = add_file_system("one", "000184500123", "00A1", "00B1");
    test::make_folders("/copies/1");
    test::make_folders("/copies/2");
    ASSERT_EQ(mount("/dev/qz/dmp/copies", "/copies/1", "tmpfs", 0, nullptr), 0);
    mounted_.push_back("/copies/1");
    const std::vector<std::string> words = {"freeze",  "--no-quiesce", "--mount-at",
                                            "/copies", "/copies/1",    one};
    const auto original = fimctl(words);
    EXPECT_EQ(original.status, 2);
    EXPECT_NE(original.err.find("/copies/1 is where the original is mounted"), std::string::npos)
        << original.err;
    const auto two = add_file_system("two", "000184500123", "00A2", "00B2");
    const auto other = fimctl({"freeze", "--no-quiesce", "--mount-at", "/copies", one, two});
    EXPECT_EQ(other.status, 2);
    EXPECT_NE(other.err.find("/copies/1 is a mount point already"), std::string::npos) << other.err;
    EXPECT_TRUE(story().empty());
}

TEST_F(Sources, a_directory_serves_one_snapshot_at_a_time) {
    const auto one = add_file_system("one", "000184500123", "00A1", "00B1");
    const auto two = add_file_system("two", "000184500123", "00A2", "00B2");
    ASSERT_EQ(fimctl({"freeze", "--no-quiesce", "--mount-at", "/copies", one}).status, 0);
    const auto second = fimctl({"freeze", "--no-quiesce", "--mount-at", "/copies", two});
    EXPECT_EQ(second.status, 2);
    EXPECT_NE(second.err.find("/copies is for the copy of snapshot 1"), std::string::npos)
        << second.err;
    ASSERT_EQ(fimctl({"release", "1"}).status, 0);
    EXPECT_EQ(fimctl({"freeze", "--no-quiesce", "--mount-at", "/copies", two}).status, 0);
}

TEST_F(Sources, mount_at_names_the_directory_of_the_copy_and_outlives_it_when_it_was_there) {
    const auto one = add_file_system("one", "000184500123", "00A1", "00B1");
    test::make_folders("/copies");
    ASSERT_EQ(fimctl({"freeze", "--no-quiesce", "--mount-at", "/copies", one}).status, 0);
    EXPECT_EQ(fimctl({"mount", "1"}).out, "/copies\n");
    EXPECT_EQ(fimctl({"release", "1"}).status, 0);
    EXPECT_TRUE(test::exists("/copies"));
}

TEST_F(Sources, mount_at_of_several_paths_has_a_directory_for_each) {
    const auto one = add_file_system("one", "000184500123", "00A1", "00B1");
    const auto two = add_file_system("two", "000184500123", "00A2", "00B2");
    ASSERT_EQ(fimctl({"freeze", "--no-quiesce", "--mount-at", "/copies", one, two}).status, 0);
    EXPECT_EQ(fimctl({"mount", "1"}).out, "/copies/1\n/copies/2\n");
    EXPECT_EQ(fimctl({"release", "1"}).status, 0);
}

TEST_F(Sources, a_symbolic_link_to_the_mount_directory_is_resolved_for_the_method) {
    // The method compares the directory with the mount table to the letter.
    const auto one = add_file_system("one", "000184500123", "00A1", "00B1");
    test::make_folders("/real");
    ASSERT_EQ(symlink("/real", "/link"), 0);
    ASSERT_EQ(fimctl({"freeze", "--no-quiesce", "--mount-at", "/link/copy", one}).status, 0);
    EXPECT_EQ(snapshot(1).objects[0].fifs, "/real/copy");
}

TEST_F(Sources, mount_at_takes_only_a_directory_that_is_missing_or_empty) {
    const auto one = add_file_system("one", "000184500123", "00A1", "00B1");
    test::write_file("/copies/precious", "data");
    for (const std::string taken : {"/copies", "/copies/precious", "/etc", "/"}) {
        const auto ended = fimctl({"freeze", "--no-quiesce", "--mount-at", taken, one});
        EXPECT_EQ(ended.status, 2) << taken;
        EXPECT_NE(ended.err.find("--mount-at: " + taken), std::string::npos) << ended.err;
        EXPECT_NE(ended.err.find("next: name "), std::string::npos) << ended.err;
        const auto planned = fimctl({"plan", "--no-quiesce", "--mount-at", taken, one});
        EXPECT_NE(planned.out.find("--mount-at: " + taken), std::string::npos) << planned.out;
    }
    EXPECT_TRUE(story().empty());
    EXPECT_EQ(fimctl({"list", "--all"}).out, "no snapshots\n");
}

TEST_F(Sources, an_empty_word_is_no_directory_for_a_copy) {
    const auto one = add_file_system("one", "000184500123", "00A1", "00B1");
    for (const std::string command : {"freeze", "plan"}) {
        const auto ended = fimctl({command, "--no-quiesce", "--mount-at", "", one});
        EXPECT_EQ(ended.status, 2);
        EXPECT_NE(ended.err.find("leave the option out"), std::string::npos) << ended.err;
    }
    EXPECT_TRUE(story().empty());
}

TEST_F(Sources, the_copy_is_never_mounted_in_at_or_above_the_state_folder) {
    const auto one = add_file_system("one", "000184500123", "00A1", "00B1");
    for (const std::string &taken :
         {state_, state_ + "/mnt", state_ + "/mnt/own", std::string("/var/lib")}) {
        const auto ended = fimctl({"freeze", "--no-quiesce", "--mount-at", taken, one});
        EXPECT_EQ(ended.status, 2) << taken;
        EXPECT_NE(ended.err.find("the state folder " + state_), std::string::npos) << ended.err;
        EXPECT_NE(ended.err.find("next: name a directory elsewhere"), std::string::npos);
    }
    EXPECT_TRUE(story().empty());
}

TEST_F(Sources, a_directory_that_has_filled_up_since_the_freeze_is_not_mounted_over) {
    const auto one = add_file_system("one", "000184500123", "00A1", "00B1");
    ASSERT_EQ(fimctl({"freeze", "--no-quiesce", "--mount-at", "/copies", one}).status, 0);
    test::write_file("/copies/precious", "data");
    const auto ended = fimctl({"mount", "1"});
    EXPECT_EQ(ended.status, 2);
    EXPECT_NE(ended.err.find("/copies, where the copy is to be mounted, is not empty"),
              std::string::npos)
        << ended.err;
    EXPECT_NE(ended.err.find("then: fimctl mount 1"), std::string::npos) << ended.err;
    unlink("/copies/precious");
    EXPECT_EQ(fimctl({"mount", "1"}).status, 0);
}

TEST_F(Sources, what_was_made_for_a_copy_goes_again_with_all_that_was_made_above_it) {
    const auto one = add_file_system("one", "000184500123", "00A1", "00B1");
    const auto two = add_file_system("two", "000184500123", "00A2", "00B2");
    const std::vector<std::string> words = {"freeze", "--no-quiesce", "--mount-at", "/nodir/a", one,
                                            two};
    script("freeze 1 fail 5 no");
    EXPECT_EQ(fimctl(words).status, 1);
    EXPECT_FALSE(test::exists("/nodir"));
    test::write_file("/var/fake/script", "");
    ASSERT_EQ(fimctl(words).status, 0);
    EXPECT_TRUE(test::exists("/nodir/a/2"));
    EXPECT_EQ(fimctl({"release", "2"}).status, 0);
    EXPECT_FALSE(test::exists("/nodir"));
    // The second of the two cannot be made: the first one goes as well.
    test::make_folders("/nodir");
    const std::string longest(1020, 'x');
    EXPECT_EQ(fimctl({"freeze", "--no-quiesce", "--mount-at", "/nodir/a/" + longest, one}).status,
              2);
    EXPECT_FALSE(test::exists("/nodir/a"));
}

}  // namespace
