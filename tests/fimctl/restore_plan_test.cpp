// What a restore shows before it does anything, and what it refuses.
#include <sys/mount.h>
#include <unistd.h>

#include <nlohmann/json.hpp>

#include "fimctl/restore/host_view.h"
#include "tests/fimctl/fake_method/script.h"
#include "tests/fimctl/restore_world.h"
#include "tests/support/private_root.h"

namespace {

using fimctl::State;
using test::Ended;
using Json = nlohmann::json;

class RestorePlan : public test::RestoreWorld {
  protected:
    Ended plan(std::vector<std::string> more = {}) {
        more.insert(more.begin(), "--plan-only");
        return restore(more);
    }
    // Refused with 2, the reason and the remedy told, and nothing touched.
    void expect_refused(const std::string &why, const std::string &next,
                        const std::vector<std::string> &more = {"--yes"}) {
        const Ended ended = restore(more);
        EXPECT_EQ(ended.status, 2) << ended.err;
        EXPECT_NE(ended.err.find(why), std::string::npos) << ended.err;
        const size_t at = ended.err.find("next: ");
        ASSERT_NE(at, std::string::npos) << ended.err;
        EXPECT_NE(ended.err.find(next, at), std::string::npos) << ended.err;
        EXPECT_TRUE(calls_of("rebuild").empty());
        EXPECT_EQ(plan().status, 2) << "the plan alone says it, too";
    }
    void change_text(const std::string &from, const std::string &to) {
        fimctl::Catalogue catalogue(state_, false);
        std::string text = catalogue.find(1)->objects[0].text;
        const size_t at = text.find(from);
        ASSERT_NE(at, std::string::npos) << from;
        catalogue.set_text(1, 0, text.replace(at, from.size(), to));
    }
};

TEST_F(RestorePlan, names_pairs_groups_file_systems_and_the_quality_of_the_copy) {
    NEEDS_VOLUME("datadg", "one", "00A1");
    NEEDS_VOLUME("datadg", "two", "00A2");
    enter();
    unmount("/data-two");
    const Ended ended = plan();
    EXPECT_EQ(ended.status, 0) << ended.err;
    for (const char *part :
         {"restore:      snapshot 1\n", "quiesced, frozen for 12.5 ms",
          "disk group:   datadg: deported, its disks overwritten, imported again; volumes one "
          "two\n",
          "pair:         array 000184500123: mirror 0BA1 over primary 00A1 (/dev/qz/rdmp/00A1)",
          "file system:  /data-one (ext4, datadg/one): unmounted, and mounted again\n",
          "file system:  /data-two (ext4, datadg/two): not mounted now; will be mounted\n",
          "\ncode:         "}) {
        EXPECT_NE(ended.out.find(part), std::string::npos) << part << "\n" << ended.out;
    }
    EXPECT_EQ(snapshot(1).state, State::frozen);
    EXPECT_TRUE(is_imported("datadg"));
}

TEST_F(RestorePlan, is_one_json_document) {
    NEEDS_VOLUME("datadg", "one", "00A1");
    enter();
    const Ended ended = plan({"--json"});
    EXPECT_EQ(ended.status, 0);
    EXPECT_EQ(ended.err, "");
    const Json json = Json::parse(ended.out, nullptr, false);
    ASSERT_TRUE(json.is_object()) << ended.out;
    EXPECT_EQ(json["snapshot"], 1);
    EXPECT_EQ(json["quiesced"], true);
    EXPECT_EQ(json["groups"][0]["group"], "datadg");
    EXPECT_EQ(json["groups"][0]["imported"], true);
    EXPECT_EQ(json["pairs"][0]["device"], "00A1");
    EXPECT_EQ(json["pairs"][0]["bcv"], "0BA1");
    EXPECT_EQ(json["pairs"][0]["state"], 5);
    EXPECT_EQ(json["pairs"][0]["size"], nullptr) << "the device is not seen";
    EXPECT_EQ(json["objects"][0]["directory"], "/data-one");
    EXPECT_EQ(json["objects"][0]["mounted"], true);
    EXPECT_TRUE(json["against_it"].empty());
    EXPECT_EQ(restore({"--json", "--yes"}).status, 2) << "a document is of the plan alone";
}

TEST_F(RestorePlan, tells_sizes_and_measures_what_differs_where_both_are_seen) {
    NEEDS_VOLUME("datadg", "one", "00A1");
    NEEDS_VOLUME("datadg", "two", "00A2");
    enter();
    const std::string primary = restorable_[0]->file_system->device();
    const std::string mirror = restorable_[1]->file_system->device();
    change_text("PMINFO-dev_raw_device=/dev/qz/rdmp/00A1", "PMINFO-dev_raw_device=" + primary);
    change_text("PMINFO-bcv_raw_device=/dev/sdX", "PMINFO-bcv_raw_device=" + mirror);
    Json json = Json::parse(plan({"--json"}).out, nullptr, false);
    EXPECT_EQ(json["pairs"][0]["size"], 16 << 20);
    EXPECT_EQ(json["pairs"][0]["differs"], nullptr) << "only when asked";
    EXPECT_EQ(json["pairs"][0]["mirror"], mirror);
    json = Json::parse(plan({"--json", "--measure"}).out, nullptr, false);
    // Two file systems of the same size, made one after the other: their identifiers differ.
    EXPECT_GT(json["pairs"][0]["differs"], 0);
    EXPECT_LT(json["pairs"][0]["differs"], 16 << 20);
    EXPECT_EQ(json["pairs"][0]["differs"].get<int>() % 4096, 0);
    EXPECT_NE(plan({"--measure"}).out.find("at most 16.0 MiB"), std::string::npos);
    EXPECT_NE(plan({"--measure"}).out.find("not measured: this host does not see both"),
              std::string::npos);
}

TEST_F(RestorePlan, no_such_snapshot_is_10) {
    EXPECT_EQ(restore().status, 10);
}

TEST_F(RestorePlan, an_array_that_does_not_answer_is_12) {
    NEEDS_VOLUME("datadg", "one", "00A1");
    enter();
    array_fails("SymInitV", 5);
    EXPECT_EQ(restore().status, 12);
    EXPECT_EQ(snapshot(1).state, State::frozen);
}

TEST_F(RestorePlan, a_snapshot_without_import_is_refused_before_the_method_would) {
    NEEDS_VOLUME("datadg", "one", "00A1");
    enter();
    change_text("HDEF-dgimport=1", "HDEF-dgimport=0");
    expect_refused("/data-one was not taken with disk-group import", "fimctl mount 1");
}

TEST_F(RestorePlan, a_void_copy_is_refused) {
    NEEDS_VOLUME("datadg", "one", "00A1");
    enter();
    fimctl::Catalogue(state_, false).set_void(1, "torn");
    expect_refused("its copy is void: torn", "fimctl release 1");
}

TEST_F(RestorePlan, a_snapshot_that_is_over_or_has_no_copy_or_is_being_released_is_refused) {
    NEEDS_VOLUME("datadg", "one", "00A1");
    enter();
    for (const State state : {State::released, State::failed, State::restored, State::begun,
                              State::cutting, State::releasing}) {
        fimctl::Catalogue(state_, false).set_state(1, state);
        const Ended ended = restore();
        EXPECT_EQ(ended.status, 2) << name_of(state);
        EXPECT_NE(ended.err.find("next: fimctl "), std::string::npos) << ended.err;
    }
    EXPECT_TRUE(calls_of("rebuild").empty());
}

TEST_F(RestorePlan, a_snapshot_of_another_host_is_refused) {
    NEEDS_VOLUME("datadg", "one", "00A1");
    enter();
    change_text("PRIM_MIR_INFO=START", "HDEF-is_tgt=1\nPRIM_MIR_INFO=START");
    expect_refused("it belongs to the primary host", "fimctl export");
}

TEST_F(RestorePlan, an_exported_copy_is_refused_until_it_is_back_or_given_up) {
    NEEDS_VOLUME("datadg", "one", "00A1");
    enter();
    fimctl::Catalogue(state_, false).set_exported(1);
    expect_refused("is not back: the backup host may be reading the copy", "--abandoned");
    EXPECT_EQ(plan({"--abandoned"}).status, 0);
    fimctl::Catalogue(state_, false).set_returned(1);
    EXPECT_EQ(restore().status, 0);
    EXPECT_EQ(snapshot(1).state, State::restored);
}

TEST_F(RestorePlan, a_copy_whose_mount_was_killed_may_be_imported_without_a_text_that_says_so) {
    NEEDS_VOLUME("datadg", "one", "00A1");
    enter();
    fimctl::Catalogue(state_, false).set_state(1, State::mounting);
    std::ofstream(fake::folder + "/imported", std::ios::app) << "client1_datadg_clone\n";
    expect_refused("its copy's disk group client1_datadg_clone is imported here",
                   "/usr/sbin/qzdg -n datadg deport client1_datadg_clone");
}

TEST_F(RestorePlan, a_copy_that_is_mounted_or_imported_here_is_refused) {
    NEEDS_VOLUME("datadg", "one", "00A1");
    enter();
    test::make_folders("/copies/one");
    ASSERT_EQ(mount("tmpfs", "/copies/one", "tmpfs", 0, nullptr), 0);
    std::ofstream(fake::folder + "/imported", std::ios::app) << "datadg_clone\n";
    {
        fimctl::Catalogue catalogue(state_, false);
        const std::string text = catalogue.find(1)->objects[0].text;
        catalogue.set_mounted(1, 0, text + "HDEF-clone_group=datadg_clone\n", "/copies/one");
        catalogue.set_state(1, State::mounted);
    }
    expect_refused("its copy is mounted on /copies/one",
                   "umount /copies/one; /usr/sbin/qzdg -n datadg deport datadg_clone; "
                   "fimctl restore 1");
    unmount("/copies/one");
    expect_refused("its copy's disk group datadg_clone is imported here",
                   "/usr/sbin/qzdg -n datadg deport datadg_clone");
    // Taken down by hand, as told, it can be restored from.
    test::write_file(fake::folder + "/imported", "datadg\n");
    EXPECT_EQ(restore().status, 0);
    EXPECT_EQ(snapshot(1).state, State::restored);
}

TEST_F(RestorePlan, a_pair_that_is_not_split_is_refused) {
    NEEDS_VOLUME("datadg", "one", "00A1");
    enter();
    for (const auto &[state, next] :
         {std::pair<const char *, const char *>{"2", "fimctl release 1"},
          {"1", "fimctl release 1"},
          {"3", "wait until"},
          {"8", "look at the pair"}}) {
        test::write_file(fake::folder + "/array",
                         "000184500123 00A1 0BA1 " + std::string(state) + "\n");
        expect_refused("not split: the method would pass it over and restore nothing", next);
    }
}

TEST_F(RestorePlan, one_device_name_on_two_arrays_is_refused) {
    NEEDS_VOLUME("datadg", "one", "00A1", "000184500123");
    NEEDS_VOLUME("twodg", "two", "00A1", "000184500999");
    enter();
    expect_refused("device 00A1 is a name on two arrays", "by hand");
}

TEST_F(RestorePlan, a_group_that_is_not_imported_is_refused) {
    NEEDS_VOLUME("datadg", "one", "00A1");
    enter();
    test::write_file(fake::folder + "/imported", "");
    expect_refused("disk group datadg is not imported here",
                   "/usr/sbin/qzdg import datadg && /usr/sbin/qzvol -g datadg startall");
}

TEST_F(RestorePlan, a_file_system_in_use_is_refused_by_the_name_of_the_user) {
    NEEDS_VOLUME("datadg", "one", "00A1");
    enter();
    ASSERT_EQ(chdir("/data-one"), 0);
    expect_refused("/data-one is in use by process ", "end what uses it");
    ASSERT_EQ(chdir("/"), 0);
    EXPECT_EQ(plan().status, 0);
}

TEST_F(RestorePlan, a_second_mount_of_a_file_system_is_refused) {
    NEEDS_VOLUME("datadg", "one", "00A1");
    enter();
    test::make_folders("/elsewhere");
    ASSERT_EQ(mount("/data-one", "/elsewhere", nullptr, MS_BIND, nullptr), 0);
    expect_refused("is mounted on /elsewhere as well as on /data-one", "umount /elsewhere");
    unmount("/elsewhere");
}

TEST_F(RestorePlan, what_is_mounted_on_top_or_in_the_place_is_refused) {
    NEEDS_VOLUME("datadg", "one", "00A1");
    enter();
    test::make_folders("/data-one/on-top");
    ASSERT_EQ(mount("tmpfs", "/data-one/on-top", "tmpfs", 0, nullptr), 0);
    expect_refused("/data-one/on-top is mounted on top of /data-one", "umount /data-one/on-top");
    unmount("/data-one/on-top");
    unmount("/data-one");
    ASSERT_EQ(mount("tmpfs", "/data-one", "tmpfs", 0, nullptr), 0);
    expect_refused("something else is mounted on /data-one", "umount /data-one");
    unmount("/data-one");
}

TEST_F(RestorePlan, a_directory_that_is_gone_is_refused) {
    NEEDS_VOLUME("datadg", "one", "00A1");
    enter();
    unmount("/data-one");
    ASSERT_EQ(rmdir("/data-one"), 0);
    expect_refused("there is no directory /data-one", "mkdir -p /data-one");
    test::make_folders("/data-one");
}

TEST_F(RestorePlan, another_volume_of_the_group_is_named_and_must_not_be_mounted) {
    NEEDS_VOLUME("datadg", "one", "00A1");
    enter();
    NEEDS_VOLUME("datadg", "other", "00A2");
    expect_refused(
        "volume other of disk group datadg is no object of the snapshot and would be "
        "overwritten, too; it is mounted on /data-other",
        "umount /data-other");
    unmount("/data-other");
    const Ended ended = plan();
    EXPECT_EQ(ended.status, 0) << ended.err;
    EXPECT_NE(ended.out.find("overwritten with it: other"), std::string::npos) << ended.out;
}

TEST_F(RestorePlan, a_device_that_is_mounted_is_refused) {
    NEEDS_VOLUME("datadg", "raw", "00A1", "000184500123", 2);
    enter();
    ASSERT_EQ(mount(restorable_[0]->block().c_str(), "/data-raw", "ext4", 0, nullptr), 0);
    expect_refused("was frozen as a device, and is mounted on /data-raw", "umount /data-raw");
}

TEST_F(RestorePlan, a_pair_that_the_snapshot_did_not_split_is_refused) {
    NEEDS_VOLUME("datadg", "one", "00A1");
    enter();
    change_text("PMINFO-sync_at_end=1", "PMINFO-sync_at_end=0");
    expect_refused("pair 00A1/0BA1 was not split by this snapshot", "fimctl release 1");
}

TEST_F(RestorePlan, types_that_no_check_fits_are_refused) {
    NEEDS_VOLUME("datadg", "one", "00A1");
    restorable_[0]->fstype = "vfat";
    NEEDS_VOLUME("datadg", "two", "00A2");
    enter();
    expect_refused("types that no single check fits", "one type of file system");
}

}  // namespace
