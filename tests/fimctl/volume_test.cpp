// Volumes: whole disk groups go with them, and the copies of two groups may get one name.
#include "fimctl/disk_group.h"
#include "fimctl/failure.h"
#include "fimctl/host.h"
#include "fimctl/judge.h"
#include "tests/fimctl/world.h"
#include "tests/support/private_root.h"

namespace {

using fimctl::clone_name;
using fimctl::judge_objects;
using fimctl::ObjectRecord;
using fimctl::refuse_equal_clone_names;
using fimctl::Source;
using fimctl::State;
using test::Ended;

const std::string array_id = "000184500123";
const std::string import_config = "alternate_backup_client=backup1";

class Volumes : public test::FimctlWorld {
  protected:
    // Two volumes of one group and one of another.
    void SetUp() override {
        FimctlWorld::SetUp();
        one_ = add_volume("datadg", "vol01", array_id, "00A1", "01A1");
        two_ = add_volume("datadg", "vol02", array_id, "00A2", "01A2");
        other_ = add_volume("logdg", "vol01", array_id, "00A3", "01A3");
    }
    std::string clone(const std::string &group) {
        return clone_name(fimctl::short_host_name(), group);
    }
    bool was_called(const std::string &call) {
        for (const std::string &line : calls()) {
            if (line == call) return true;
        }
        return false;
    }
    void expect_split(long state) {
        for (const char *device : {"00A1", "00A2", "00A3"}) {
            EXPECT_EQ(array_state(device), state) << device;
        }
    }

    std::string one_, two_, other_;
};

TEST_F(Volumes, one_goes_through_the_whole_cycle) {
    const Ended ended = fimctl({"run", one_, "--", "echo", "{}"});
    EXPECT_EQ(ended.status, 0) << ended.err;
    EXPECT_EQ(ended.out, "/dev/qz/dsk/" + clone("datadg") + "/vol01\n");
    EXPECT_TRUE(groups_up().empty());
    EXPECT_EQ(array_state("00A1"), 2);
    EXPECT_EQ(snapshot(1).objects[0].vol_group, "datadg");
    EXPECT_EQ(snapshot(1).objects[0].vol_name, "vol01");
}

TEST_F(Volumes, of_one_group_and_of_two_go_through_the_whole_cycle) {
    const Ended ended = fimctl({"freeze", one_, two_, other_});
    ASSERT_EQ(ended.status, 0) << ended.err;
    expect_split(5);
    const Ended mounted = fimctl({"mount", "1"});
    ASSERT_EQ(mounted.status, 0) << mounted.err;
    EXPECT_EQ(groups_up(),
              (std::vector<std::string>{clone("datadg") + " vol01", clone("datadg") + " vol02",
                                        clone("logdg") + " vol01"}));
    EXPECT_EQ(fimctl({"release", "1"}).status, 0);
    EXPECT_TRUE(groups_up().empty());
    expect_split(2);
}

TEST_F(Volumes, of_an_imported_group_go_through_the_whole_cycle) {
    const Ended ended = fimctl({"freeze", "--config", import_config, one_, two_, other_});
    ASSERT_EQ(ended.status, 0) << ended.err;
    const auto frozen = snapshot(1);
    EXPECT_TRUE(frozen.objects[0].is_imported_group());
    EXPECT_TRUE(frozen.objects[1].pairs.empty()) << "the first object names the group's pairs";
    ASSERT_EQ(fimctl({"mount", "1"}).status, 0);
    EXPECT_EQ(groups_up(),
              (std::vector<std::string>{clone("datadg") + " *", clone("logdg") + " *"}));
    EXPECT_EQ(fimctl({"release", "1"}).status, 0);
    EXPECT_TRUE(groups_up().empty());
    EXPECT_EQ(array_state("00A1"), 2);
}

TEST_F(Volumes, the_checkpoint_before_the_cut_is_left_out) {
    // It runs the clone tool, once in a process, and the copy that counts is made by the cut.
    ASSERT_EQ(fimctl({"freeze", one_, two_}).status, 0);
    EXPECT_EQ(story(), "freeze freeze ctl freeze_commit freeze_commit ckpt note ckpt");
    EXPECT_TRUE(was_called("note clone tool datadg"));
}

TEST_F(Volumes, the_clone_information_is_in_the_text_of_the_first_object_of_a_group) {
    ASSERT_EQ(fimctl({"freeze", one_, two_}).status, 0);
    EXPECT_NE(snapshot(1).objects[0].text.find("\nclone information of datadg\n"
                                               "HDEF-CLONE_INFO_FILE=END\n"),
              std::string::npos)
        << snapshot(1).objects[0].text;
    EXPECT_EQ(snapshot(1).objects[1].text.find("CLONE_INFO"), std::string::npos);
}

TEST_F(Volumes, a_pair_that_the_commit_left_alone_makes_the_copy_void) {
    script("freeze_commit 1 keep-split-from " + array_id);
    const Ended ended = fimctl({"freeze", one_});
    EXPECT_EQ(ended.status, 1);
    EXPECT_NE(ended.err.find("the copy is void: pair 00A1/01A1"), std::string::npos) << ended.err;
    EXPECT_EQ(snapshot(1).state, State::released);
}

TEST_F(Volumes, a_pair_that_was_split_before_is_found_by_the_methods_split_list) {
    // Without a state from before the cut, what the method says it has split is the evidence.
    script("freeze_commit 1 keep-split-from " + array_id);
    script("ckpt 1 copy /var/fake/split /var/fake/array");
    test::write_file("/var/fake/split", array_id + " 00A1 01A1 5\n");
    const Ended ended = fimctl({"freeze", one_});
    EXPECT_EQ(ended.status, 1);
    EXPECT_NE(ended.err.find("the copy is void: pair 00A1/01A1 of array " + array_id +
                             " was not split by this commit"),
              std::string::npos)
        << ended.err;
}

TEST_F(Volumes, a_failed_mount_takes_down_a_group_that_was_brought_up_in_part) {
    // The record forgets the group that it brought up when its volumes cannot be started.
    script("volumes 1 fail 11 do_cmd: startall failed");
    ASSERT_EQ(fimctl({"freeze", "--config", import_config, one_, two_}).status, 0);
    const Ended ended = fimctl({"mount", "1"});
    EXPECT_EQ(ended.status, 1) << ended.err;
    EXPECT_TRUE(was_called("note up " + clone("datadg") + " *"));
    EXPECT_TRUE(groups_up().empty());
    EXPECT_EQ(snapshot(1).state, State::frozen);
    test::write_file("/var/fake/script", "");
    EXPECT_EQ(fimctl({"mount", "1"}).status, 0);
    EXPECT_EQ(fimctl({"release", "1"}).status, 0);
}

TEST_F(Volumes, a_failed_mount_that_cannot_be_taken_down_is_left_to_a_release) {
    script("volumes 1 fail 11 do_cmd: startall failed");
    script("thaw 1 fail 11 TimeFinder_thaw: Unable to clean up disk group");
    ASSERT_EQ(fimctl({"freeze", one_}).status, 0);
    const Ended ended = fimctl({"mount", "1"});
    EXPECT_EQ(ended.status, 3) << ended.err;
    EXPECT_NE(ended.err.find("taking the copy down failed"), std::string::npos) << ended.err;
    EXPECT_EQ(snapshot(1).state, State::mounting);
    test::write_file("/var/fake/script", "");
    EXPECT_EQ(fimctl({"release", "1"}).status, 0);
    EXPECT_TRUE(groups_up().empty());
}

TEST_F(Volumes, a_mount_that_was_killed_is_taken_down_by_the_release) {
    for (const char *config : {"", import_config.c_str()}) {
        test::write_file("/var/fake/script", "");
        ASSERT_EQ(fimctl({"freeze", "--config", config, one_, two_}).status, 0);
        const std::string id = config[0] == '\0' ? "1" : "2";
        script("ckpt 1 die");
        EXPECT_EQ(fimctl({"mount", id}).status, 3);
        EXPECT_FALSE(groups_up().empty());
        test::write_file("/var/fake/script", "");
        const Ended ended = fimctl({"release", id});
        EXPECT_EQ(ended.status, 0) << ended.err;
        EXPECT_TRUE(groups_up().empty()) << groups_up()[0];
    }
}

TEST_F(Volumes, a_release_can_be_repeated_after_one_volume_was_busy) {
    for (const char *config : {"", import_config.c_str()}) {
        test::write_file("/var/fake/script", "");
        const std::string id = config[0] == '\0' ? "1" : "2";
        ASSERT_EQ(fimctl({"freeze", "--config", config, one_, two_}).status, 0);
        ASSERT_EQ(fimctl({"mount", id}).status, 0);
        script("thaw 2 fail 0 ");
        EXPECT_EQ(fimctl({"release", id}).status, 3);
        EXPECT_EQ(array_state("00A1"), 5);
        EXPECT_FALSE(groups_up().empty());
        test::write_file("/var/fake/script", "");
        EXPECT_EQ(fimctl({"release", id}).status, 0);
        EXPECT_TRUE(groups_up().empty());
    }
    expect_split(2);
}

TEST_F(Volumes, a_process_that_died_between_cut_and_checkpoint_is_undone_with_the_same_config) {
    script("ckpt 1 die");
    ASSERT_EQ(fimctl({"freeze", "--config", import_config, one_, two_}).status, 3);
    EXPECT_EQ(array_state("00A1"), 5);
    test::write_file("/var/fake/script", "");
    const Ended ended = fimctl({"release", "1"});
    EXPECT_EQ(ended.status, 0) << ended.err;
    EXPECT_EQ(array_state("00A1"), 2);
    EXPECT_TRUE(story().ends_with("freeze freeze ctl thaw thaw thaw_commit thaw_commit"))
        << story();
    int undone = 0;
    for (const std::string &call : calls()) {
        if (call.ends_with("config=" + import_config + ",sync_at_start=1")) ++undone;
    }
    EXPECT_EQ(undone, 2);
}

TEST_F(Volumes, an_undoing_keeps_the_backup_host_and_its_own_value_of_sync_at_start) {
    script("ckpt 1 die");
    const std::string config = "sync_at_start=0," + import_config;
    ASSERT_EQ(fimctl({"freeze", "--config", config, one_}).status, 3);
    test::write_file("/var/fake/script", "");
    ASSERT_EQ(fimctl({"release", "1"}).status, 0);
    bool found = false;
    for (const std::string &call : calls()) {
        found = found || call.ends_with("config=" + config + ",sync_at_start=1");
    }
    EXPECT_TRUE(found);
}

TEST_F(Volumes, an_undoing_of_a_full_config_keeps_what_decides_the_devices) {
    script("ckpt 1 die");
    const std::string config =
        "unknown=" + std::string(1024 - 9 - import_config.size(), 'x') + "," + import_config;
    ASSERT_EQ(config.size(), 1024U);
    ASSERT_EQ(fimctl({"freeze", "--config", config, one_}).status, 3);
    test::write_file("/var/fake/script", "");
    ASSERT_EQ(fimctl({"release", "1"}).status, 0);
    bool found = false;
    for (const std::string &call : calls()) {
        found = found || call.ends_with("config=sync_at_start=1," + import_config);
    }
    EXPECT_TRUE(found);
}

TEST_F(Volumes, a_group_that_another_snapshot_holds_is_not_taken_again) {
    // Its other volumes may lie on the same disks, and a second freeze would establish their
    // mirrors.
    ASSERT_EQ(fimctl({"freeze", one_}).status, 0);
    const Ended ended = fimctl({"freeze", two_});
    EXPECT_EQ(ended.status, 2);
    EXPECT_NE(ended.err.find("disk group datadg is held by snapshot 1 (frozen)"), std::string::npos)
        << ended.err;
    EXPECT_NE(ended.err.find("next: end that one first: fimctl release 1"), std::string::npos);
    EXPECT_EQ(fimctl({"freeze", other_}).status, 0) << "another group is free";
}

TEST_F(Volumes, two_groups_whose_copies_would_get_one_name_are_refused_before_anything_is_done) {
    const std::string stem(25, 'g');
    const auto first = add_volume(stem + "_one", "v", array_id, "00B1", "01B1");
    const auto second = add_volume(stem + "_two", "v", array_id, "00B2", "01B2");
    const Ended ended = fimctl({"freeze", first, second});
    EXPECT_EQ(ended.status, 2);
    EXPECT_NE(ended.err.find("the copies of disk groups " + stem + "_one and " + stem +
                             "_two would both be named "),
              std::string::npos)
        << ended.err;
    EXPECT_TRUE(story().empty());
    EXPECT_EQ(fimctl({"list", "--all"}).out, "no snapshots\n");
}

TEST_F(Volumes, a_copy_that_would_get_the_name_of_another_snapshots_copy_is_refused) {
    const std::string stem(25, 'g');
    const auto first = add_volume(stem + "_one", "v", array_id, "00B1", "01B1");
    const auto second = add_volume(stem + "_two", "v", array_id, "00B2", "01B2");
    ASSERT_EQ(fimctl({"freeze", first}).status, 0);
    const Ended ended = fimctl({"freeze", second});
    EXPECT_EQ(ended.status, 2);
    EXPECT_NE(ended.err.find("as that of disk group " + stem + "_one of snapshot 1 (frozen)"),
              std::string::npos)
        << ended.err;
    ASSERT_EQ(fimctl({"release", "1"}).status, 0);
    EXPECT_EQ(fimctl({"freeze", second}).status, 0) << "what is over holds no name";
}

Source volume_of(const std::string &group) {
    Source source;
    source.vol_group = group;
    source.vol_name = "v";
    return source;
}

TEST(CloneName, is_cut_after_25_characters_with_and_without_the_host) {
    EXPECT_EQ(clone_name("backuphost01", "datadg_production_2024"),
              "backuphost01_datadg_produ_clone");
    EXPECT_EQ(clone_name(std::string(24, 'g')), std::string(24, 'g') + "_clone");
    EXPECT_EQ(clone_name(std::string(26, 'g')), std::string(25, 'g') + "_clone");
}

TEST(CloneName, the_hosts_name_makes_shorter_groups_equal) {
    const std::string host = fimctl::short_host_name();
    ASSERT_LT(host.size(), 24U);
    const std::string stem(24 - host.size(), 'g');
    EXPECT_THROW(refuse_equal_clone_names({volume_of(stem + "a"), volume_of(stem + "b")}, {}),
                 fimctl::Failure);
    const std::string shorter = stem.substr(1);
    EXPECT_NO_THROW(
        refuse_equal_clone_names({volume_of(shorter + "a"), volume_of(shorter + "b")}, {}));
}

TEST(CloneName, two_volumes_of_one_group_share_its_name) {
    EXPECT_NO_THROW(refuse_equal_clone_names({volume_of("datadg"), volume_of("datadg")}, {}));
}

ObjectRecord object(const std::string &group, bool imported, bool with_pair) {
    ObjectRecord record;
    record.source = "/dev/qz/dsk/" + group + "/v";
    record.text = "HDEF-is_vol=1\nHDEF-vol_group=" + group +
                  "\nHDEF-dgimport=" + (imported ? "1" : "0") + "\nPRIM_MIR_INFO=START\n";
    if (with_pair) record.text += "PMINFO-symid=1\nPRIM_MIR_INFO=NEXT\n";
    record.text += "PRIM_MIR_INFO=END\n";
    return record;
}

TEST(JudgeObjects, a_later_volume_of_an_imported_group_is_covered_by_the_first_one) {
    EXPECT_TRUE(
        judge_objects({object("datadg", true, true), object("datadg", true, false)}).empty());
}

TEST(JudgeObjects, an_object_without_pairs_is_not_covered_by_another_group) {
    const auto reasons =
        judge_objects({object("datadg", true, true), object("logdg", true, false)});
    ASSERT_EQ(reasons.size(), 1U);
    EXPECT_EQ(reasons[0], "/dev/qz/dsk/logdg/v names no pair: nothing of it was split");
}

TEST(JudgeObjects, an_object_without_pairs_of_a_group_that_is_not_imported_is_not_covered) {
    EXPECT_EQ(judge_objects({object("datadg", false, true), object("datadg", false, false)}).size(),
              1U);
}

}  // namespace
