// A snapshot's way to the backup host and back.
#include <sys/mount.h>
#include <sys/stat.h>

#include <filesystem>
#include <nlohmann/json.hpp>

#include "fimctl/travel_document.h"
#include "tests/fimctl/travel_fixture.h"

namespace {

using fimctl::Direction;
using fimctl::State;
using fimctl::TravelDocument;
using test::Ended;
using test::Words;

const std::string array_id = "000184500123";
const std::string import_config = "alternate_backup_client=backup1";

class Travel : public test::TwoHosts {};

TEST_F(Travel, leads_to_the_backup_host_and_back) {
    carry();
    EXPECT_TRUE(snapshot(1).is_away());
    EXPECT_EQ(there(1).origin, "client1:1");
    EXPECT_EQ(there(1).uuid, snapshot(1).uuid);
    EXPECT_EQ(there(1).created, snapshot(1).created);
    const Ended mounted = on_backup({"mount", "1"});
    ASSERT_EQ(mounted.status, 0) << mounted.err;
    EXPECT_EQ(mounted.out, "/var/lib/fimctl/mnt/client1-1-1\n");
    EXPECT_EQ(test::read_file("/var/lib/fimctl/mnt/client1-1-1/copied"), "copy of " + one_ + "\n");
    ASSERT_EQ(on_backup({"release", "1"}).status, 0);
    EXPECT_FALSE(test::exists("/var/lib/fimctl/mnt/client1-1-1/copied"));
    EXPECT_EQ(count_of("thaw_commit"), 0) << "the primary ends the snapshot on the array";
    EXPECT_EQ(array_state("00A1"), 5);
    const Ended back = on_backup({"export", "1", "--output", back_file});
    ASSERT_EQ(back.status, 0) << back.err;
    const Ended returned = on_client({"import", back_file});
    ASSERT_EQ(returned.status, 0) << returned.err;
    EXPECT_EQ(returned.out, "1\n");
    EXPECT_FALSE(snapshot(1).is_away());
    EXPECT_NE(snapshot(1).returned, "");
    ASSERT_EQ(on_client({"release", "1"}).status, 0);
    EXPECT_EQ(array_state("00A1"), 2);
    EXPECT_EQ(snapshot(1).state, State::released);
}

TEST_F(Travel, takes_the_volumes_of_an_imported_group_along) {
    const auto vol1 = add_volume("datadg", "vol01", array_id, "00B1", "01B1");
    const auto vol2 = add_volume("datadg", "vol02", array_id, "00B2", "01B2");
    ASSERT_EQ(on_client({"freeze", "--config", import_config, vol1, vol2}).status, 0);
    ASSERT_EQ(on_client({"export", "1", "--output", file}).status, 0);
    ASSERT_EQ(on_backup({"import", file}).status, 0);
    const Ended mounted = on_backup({"mount", "1"});
    ASSERT_EQ(mounted.status, 0) << mounted.err;
    EXPECT_EQ(groups_up(), Words{"client1_datadg_clone *"}) << "named after its primary host";
    ASSERT_EQ(on_backup({"release", "1"}).status, 0);
    EXPECT_TRUE(groups_up().empty());
    ASSERT_EQ(on_backup({"export", "1", "--output", back_file}).status, 0);
    ASSERT_EQ(on_client({"import", back_file}).status, 0);
    ASSERT_EQ(on_client({"release", "1"}).status, 0);
    EXPECT_EQ(array_state("00B1"), 2);
}

TEST_F(Travel, carries_the_clone_information_and_marks_the_text_for_the_backup_host) {
    const auto vol1 = add_volume("datadg", "vol01", array_id, "00B1", "01B1");
    ASSERT_EQ(on_client({"freeze", vol1}).status, 0);
    const Ended ended = on_client({"export", "1"});
    ASSERT_EQ(ended.status, 0) << ended.err;
    const auto json = nlohmann::json::parse(ended.out);
    const std::string text = json.at("objects")[0].at("checkpoint");
    EXPECT_TRUE(text.starts_with("HDEF-is_tgt=1\n")) << text;
    EXPECT_NE(text.find("\nclone information of datadg\nHDEF-CLONE_INFO_FILE=END\n"),
              std::string::npos)
        << text;
    EXPECT_EQ(json.at("objects")[0].at("pairs")[0].at("device"), "00B1");
    test::write_file(file, ended.out);
    ASSERT_EQ(on_backup({"import", file}).status, 0);
    EXPECT_EQ(on_backup({"mount", "1"}).status, 0);
    EXPECT_EQ(groups_up(), Words{"client1_datadg_clone vol01"});
    EXPECT_EQ(on_backup({"release", "1"}).status, 0);
}

TEST_F(Travel, a_copy_that_was_mounted_on_the_backup_host_is_never_committed_there) {
    // The checkpoint taken there does not hold the mark that the framework has put in.
    carry();
    ASSERT_EQ(on_backup({"mount", "1"}).status, 0);
    EXPECT_TRUE(fimctl::CheckpointText(there(1).objects[0].mounted_text).is_target());
    ASSERT_EQ(on_backup({"release", "1"}).status, 0);
    EXPECT_EQ(count_of("thaw_commit"), 0);
    EXPECT_EQ(array_state("00A1"), 5);
}

TEST_F(Travel, brings_back_the_text_as_the_backup_host_left_it_without_its_mark) {
    carry();
    ASSERT_EQ(on_backup({"mount", "1"}).status, 0);
    ASSERT_EQ(on_backup({"release", "1"}).status, 0);
    ASSERT_EQ(on_backup({"export", "1", "--output", back_file}).status, 0);
    ASSERT_EQ(on_client({"import", back_file}).status, 0);
    const fimctl::CheckpointText text(snapshot(1).objects[0].returned_text);
    EXPECT_EQ(text.value("HDEF-is_mount"), "1");
    EXPECT_EQ(text.value("HDEF-is_tgt"), "");
    EXPECT_EQ(snapshot(1).objects[0].mounted_text, "")
        << "the primary goes on with its own text: nothing of the copy is up here";
}

TEST_F(Travel, one_that_was_never_mounted_there_comes_back_too) {
    carry();
    expect_refused(on_backup({"export", "1"}), "snapshot 1 (frozen) has not been released here",
                   "fimctl release 1, then: fimctl export 1");
    ASSERT_EQ(on_backup({"release", "1"}).status, 0);
    ASSERT_EQ(on_backup({"export", "1", "--output", back_file}).status, 0);
    EXPECT_EQ(on_client({"import", back_file}).status, 0);
}

TEST_F(Travel, a_document_goes_through_standard_output_and_input_as_well) {
    freeze();
    const Ended ended = on_client({"export", "1"});
    ASSERT_EQ(ended.status, 0) << ended.err;
    test::write_file(file, ended.out);
    be("backup1");
    const pid_t pid = fork();
    if (pid == 0) {
        if (freopen(file.c_str(), "r", stdin) == nullptr) _exit(99);
        const pid_t inner = start({"--state", backup_state, "import", "-"});
        _exit(finish(inner).status);
    }
    EXPECT_EQ(finish(pid).status, 0);
    EXPECT_EQ(there(1).state, State::frozen);
}

// --- files ---

TEST_F(Travel, a_document_is_its_owners_alone_and_never_overwritten_unasked) {
    umask(0);
    freeze();
    test::write_file(file, "mine");
    expect_refused(on_client({"export", "1", "--output", file}), file + ": File exists",
                   "name another file, or overwrite this one with --force");
    EXPECT_EQ(test::read_file(file), "mine");
    EXPECT_FALSE(snapshot(1).is_away());
    ASSERT_EQ(on_client({"export", "1", "--output", file, "--force"}).status, 0);
    EXPECT_EQ(nlohmann::json::parse(test::read_file(file)).at("format"), "fimctl snapshot");
    struct stat status = {};
    ASSERT_EQ(stat(file.c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & 07777, 0600U);
    EXPECT_EQ(std::distance(std::filesystem::directory_iterator("/exchange"), {}), 1)
        << "nothing of the writing is left beside it";
}

TEST_F(Travel, a_document_that_cannot_be_written_leaves_the_snapshot_here) {
    freeze();
    EXPECT_EQ(on_client({"export", "1", "--output", "/no/such/folder/file"}).status, 2);
    EXPECT_FALSE(snapshot(1).is_away());
    EXPECT_EQ(on_client({"export", "1", "--output", "/exchange"}).status, 2);
    EXPECT_FALSE(snapshot(1).is_away());
    EXPECT_EQ(on_client({"release", "1"}).status, 0);
}

TEST_F(Travel, a_full_disk_leaves_the_snapshot_here) {
    ASSERT_EQ(mount("tmpfs", "/exchange", "tmpfs", 0, "size=4k"), 0);
    freeze();
    test::write_file("/exchange/full", std::string(4096, 'x'));
    const Ended ended = on_client({"export", "1", "--output", file});
    EXPECT_EQ(ended.status, 1);
    EXPECT_NE(ended.err.find("No space left on device"), std::string::npos) << ended.err;
    EXPECT_FALSE(snapshot(1).is_away());
    EXPECT_FALSE(test::exists(file));
    umount("/exchange");
}

TEST_F(Travel, a_file_that_is_not_there_is_named) {
    expect_refused(on_backup({"import", "/exchange/nothing"}),
                   "/exchange/nothing: No such file or directory", "name a file that can be used");
    expect_refused(on_backup({"import", "/exchange"}), "/exchange: Is a directory",
                   "name a file that can be used");
}

// --- what is refused on the primary host ---

TEST_F(Travel, what_is_away_is_neither_mounted_nor_released_and_both_ways_out_are_named) {
    hand_out();
    for (const char *command : {"mount", "release"}) {
        const Ended ended = on_client({command, "1"});
        expect_refused(ended, "snapshot 1 was exported at ",
                       "on the backup host: fimctl release, then fimctl export; here: fimctl "
                       "import FILE, then fimctl " +
                           std::string(command) + " 1");
        EXPECT_NE(ended.err.find("fimctl release 1 --abandoned"), std::string::npos);
    }
    EXPECT_EQ(snapshot(1).state, State::frozen);
    EXPECT_EQ(array_state("00A1"), 5);
}

TEST_F(Travel, what_is_abandoned_can_be_released) {
    hand_out();
    EXPECT_EQ(on_client({"release", "1", "--abandoned"}).status, 0);
    EXPECT_EQ(array_state("00A1"), 2);
    EXPECT_EQ(snapshot(1).state, State::released);
}

TEST_F(Travel, a_return_of_what_was_abandoned_comes_too_late) {
    carry();
    ASSERT_EQ(on_client({"release", "1", "--abandoned"}).status, 0);
    ASSERT_EQ(on_backup({"release", "1"}).status, 0);
    ASSERT_EQ(on_backup({"export", "1", "--output", back_file}).status, 0);
    expect_refused(on_client({"import", back_file}), "snapshot 1 (released) is over",
                   "nothing is left to do for it");
}

TEST_F(Travel, one_snapshot_goes_to_one_host_at_a_time) {
    hand_out();
    expect_refused(on_client({"export", "1"}), "it goes to one host at a time",
                   "import its return: fimctl import FILE. If the document was lost before any "
                   "host imported it: fimctl export 1 --force");
}

TEST_F(Travel, of_two_documents_only_the_later_one_may_come_back) {
    carry();
    const Ended again = on_client({"export", "1", "--force", "--output", "/exchange/again"});
    ASSERT_EQ(again.status, 0) << again.err;
    EXPECT_NE(again.err.find("the earlier document of snapshot 1 must not be used any more"),
              std::string::npos)
        << again.err;
    ASSERT_EQ(on_backup({"release", "1"}).status, 0);
    ASSERT_EQ(on_backup({"export", "1", "--output", back_file}).status, 0);
    expect_refused(on_client({"import", back_file}),
                   "this is the return of export 1 of snapshot 1; it was exported again since, as "
                   "export 2",
                   "import the return of the latest export");
    ASSERT_EQ(on_backup({"import", "/exchange/again"}).out, "2\n") << "the earlier one is over";
    ASSERT_EQ(on_backup({"release", "2"}).status, 0);
    ASSERT_EQ(on_backup({"export", "2", "--output", back_file, "--force"}).status, 0);
    EXPECT_EQ(on_client({"import", back_file}).status, 0);
}

TEST_F(Travel, what_has_come_back_can_go_out_again) {
    carry();
    ASSERT_EQ(on_backup({"release", "1"}).status, 0);
    ASSERT_EQ(on_backup({"export", "1", "--output", back_file}).status, 0);
    ASSERT_EQ(on_client({"import", back_file}).status, 0);
    expect_refused(on_client({"import", back_file}), "snapshot 1 came back already, at ",
                   "fimctl show 1 tells about it");
    const Ended ended = on_client({"export", "1", "--output", "/exchange/second"});
    EXPECT_EQ(ended.status, 0) << ended.err;
    EXPECT_TRUE(snapshot(1).is_away());
    EXPECT_EQ(on_backup({"import", "/exchange/second"}).out, "2\n");
}

TEST_F(Travel, a_copy_that_is_mounted_here_goes_nowhere) {
    freeze();
    ASSERT_EQ(on_client({"mount", "1"}).status, 0);
    expect_refused(on_client({"export", "1"}), "snapshot 1 (mounted) is in use on this host",
                   "end it here (fimctl release 1)");
    ASSERT_EQ(on_client({"release", "1"}).status, 0);
    expect_refused(on_client({"export", "1"}), "has no copy that another host could read",
                   "take another snapshot");
}

TEST_F(Travel, a_copy_that_is_still_mounted_there_does_not_come_back) {
    carry();
    ASSERT_EQ(on_backup({"mount", "1"}).status, 0);
    expect_refused(on_backup({"export", "1"}), "snapshot 1 (mounted) has not been released here",
                   "fimctl release 1, then: fimctl export 1");
    // Not even in a document that says so itself.
    TravelDocument document;
    document.direction = Direction::back;
    document.origin_host = "client1";
    document.origin_id = 1;
    document.writer = "backup1";
    document.snapshot = there(1);
    test::write_file(back_file, write_document(document));
    expect_refused(on_client({"import", back_file}),
                   "the copy of snapshot 1 is still in use on backup1 (mounted)",
                   "on backup1: fimctl release, then fimctl export");
    EXPECT_TRUE(snapshot(1).is_away());
    ASSERT_EQ(on_backup({"release", "1"}).status, 0);
}

TEST_F(Travel, a_snapshot_that_does_not_exist_is_not_exported) {
    EXPECT_EQ(on_client({"export", "7"}).status, 10);
    freeze();
    EXPECT_EQ(on_client({"export", "7"}).status, 10);
}

// --- what is refused on the backup host ---

TEST_F(Travel, a_document_is_not_imported_where_it_was_written) {
    hand_out();
    expect_refused(on_client({"import", file}),
                   "this document goes to the backup host, and this host has written it",
                   "carry it to the backup host and import it there");
    ASSERT_EQ(on_backup({"import", file}).status, 0);
    ASSERT_EQ(on_backup({"release", "1"}).status, 0);
    ASSERT_EQ(on_backup({"export", "1", "--output", back_file}).status, 0);
    expect_refused(on_backup({"import", back_file}),
                   "this document goes to client1, and this host has written it",
                   "carry it to client1 and import it there");
}

TEST_F(Travel, a_return_is_not_taken_by_a_third_host) {
    carry();
    ASSERT_EQ(on_backup({"release", "1"}).status, 0);
    ASSERT_EQ(on_backup({"export", "1", "--output", back_file}).status, 0);
    be("other");
    expect_refused(fimctl({"--state", "/var/other-state", "import", back_file}),
                   "this host knows nothing of snapshot client1:1",
                   "carry the document to client1");
}

TEST_F(Travel, a_document_is_imported_once) {
    carry();
    expect_refused(on_backup({"import", file}),
                   "it has been imported already, as snapshot 1 (frozen)", "fimctl mount 1");
    ASSERT_EQ(on_backup({"mount", "1"}).status, 0);
    expect_refused(on_backup({"import", file}), "as snapshot 1 (mounted)", "fimctl show 1");
    ASSERT_EQ(on_backup({"release", "1"}).status, 0);
    expect_refused(on_backup({"import", file}), "as snapshot 1 (released)",
                   "send it back to client1: fimctl export 1");
}

TEST_F(Travel, a_released_one_is_mounted_no_more_but_sent_back) {
    carry();
    ASSERT_EQ(on_backup({"release", "1"}).status, 0);
    expect_refused(on_backup({"mount", "1"}), "it is released",
                   "send it back to client1:1: fimctl export 1");
}

TEST_F(Travel, the_directories_of_the_copies_are_made_and_go_with_the_release) {
    hand_out();
    const std::string folder = "/var/lib/fimctl/mnt/client1-1-1";
    ASSERT_EQ(rmdir(folder.c_str()), 0);
    ASSERT_EQ(on_backup({"import", file}).status, 0);
    struct stat status = {};
    ASSERT_EQ(stat(folder.c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & 07777, 0700U);
    ASSERT_EQ(on_backup({"release", "1"}).status, 0);
    EXPECT_FALSE(test::exists(folder));
}

TEST_F(Travel, a_directory_that_is_in_use_there_is_not_hidden_by_a_copy) {
    hand_out();
    const std::string folder = "/var/lib/fimctl/mnt/client1-1-1";
    test::write_file(folder + "/mine", "x");
    expect_refused(on_backup({"import", file}),
                   folder + ", where the copy would be mounted, is not", "move away what is there");
    unlink((folder + "/mine").c_str());
    ASSERT_EQ(mount("tmpfs", folder.c_str(), "tmpfs", 0, nullptr), 0);
    expect_refused(on_backup({"import", file}), "is a mount point already",
                   "unmount what is there");
    ASSERT_EQ(umount(folder.c_str()), 0);
    EXPECT_EQ(on_backup({"list", "--all"}).out, "no snapshots\n");
    EXPECT_EQ(on_backup({"import", file}).status, 0);
}

TEST_F(Travel, a_group_whose_copy_would_get_the_name_of_another_ones_is_not_taken_in) {
    const std::string stem(25, 'g');
    const auto vol1 = add_volume(stem + "_one", "v", array_id, "00B1", "01B1");
    const auto vol2 = add_volume(stem + "_two", "v", array_id, "00B2", "01B2");
    ASSERT_EQ(on_client({"freeze", vol1}).status, 0);
    ASSERT_EQ(on_client({"export", "1", "--output", file}).status, 0);
    ASSERT_EQ(on_backup({"import", file}).status, 0);
    // Another client of the same name, or one whose catalogue was lost.
    ASSERT_EQ(on_client({"--state", "/var/second", "freeze", vol2}).status, 0);
    ASSERT_EQ(on_client({"--state", "/var/second", "export", "1", "--output", back_file}).status,
              0);
    expect_refused(on_backup({"import", back_file}), "would be named client1_" + stem.substr(0, 17),
                   "end that one first: fimctl release 1");
}

// --- what is told ---

TEST_F(Travel, list_and_show_tell_whose_hands_a_snapshot_is_in) {
    carry();
    EXPECT_NE(on_client({"list"}).out.find("(exported)"), std::string::npos);
    EXPECT_NE(on_backup({"list"}).out.find("(from client1:1)"), std::string::npos);
    const auto here = nlohmann::json::parse(on_client({"show", "1", "--json"}).out);
    const auto there = nlohmann::json::parse(on_backup({"show", "1", "--json"}).out);
    EXPECT_EQ(here.at("uuid"), there.at("uuid"));
    EXPECT_EQ(here.at("role"), "primary");
    EXPECT_EQ(there.at("role"), "backup");
    EXPECT_EQ(there.at("origin"), "client1:1");
    EXPECT_EQ(here.at("arrays")[0], array_id);
    EXPECT_NE(here.at("exported"), "");
    EXPECT_EQ(there.at("copy"), "good") << "what is known of the copy travels with it";
}

TEST_F(Travel, an_object_of_another_host_holds_none_of_this_one) {
    carry();
    const auto local = add_file_system("two", array_id, "00A7", "01A7");
    EXPECT_EQ(on_backup({"freeze", "--no-quiesce", local}).status, 0);
}

}  // namespace
