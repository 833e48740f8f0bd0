// fimctl restore on real disk groups: destroyed file systems come back to the last byte, and
// whatever goes wrong half-way, nothing is lost.
#include "tests/lab_restore/restore.h"

namespace test {
namespace {

TEST_F(Restore, of_three_file_systems_brings_every_byte_back_needs_root) {
    const Objects objects = {vol1, vol2, vol4};
    make(objects);
    freeze_all(objects);
    for (const Object &object : objects) destroy(object);
    const std::string said = fim("restore 1 --confirm " + code());
    expect_said(said,
                "pair:         array 000184500123: mirror 01A1 (/dev/sdq) over primary 00A1 "
                "(/dev/qz/rdmp/p0), at most 512.0 MiB");
    expect_said(said, "/data/vol2 (xfs, datadg/vol2): unmounted, and mounted again");
    expect_restored(objects);
}

TEST_F(Restore, of_two_groups_brings_both_back_needs_root) {
    make({vol1, vol2, log1});
    freeze_all({vol1, vol2, log1});
    for (const Object &object : {vol1, vol2, log1}) destroy(object);
    host("umount /data/vol1");
    fim("restore 1 --yes");
    expect_restored({vol1, vol2, log1});
}

TEST_F(Restore, of_several_xfs_and_of_one_that_spans_disks_needs_root) {
    const Objects objects = {vol1, vol3};
    make(objects);
    freeze_all(objects);
    for (const Object &object : objects) destroy(object);
    fim("restore 1 --yes");
    expect_restored(objects);
}

TEST_F(Restore, of_a_device_and_a_file_system_needs_root) {
    make({vol1, vol4});
    host("umount /data/vol4");
    const std::string sum = host("sha256sum </dev/qz/dsk/datadg/vol4");
    ask_for_import();
    EXPECT_EQ(fim("-q freeze --config alternate_backup_client=backup1 /data/vol1 "
                  "/dev/qz/dsk/datadg/vol4"),
              "1\n");
    destroy(vol1);
    host("head -c 3000000 /dev/urandom >/dev/qz/dsk/datadg/vol4 && sync");
    fim("restore 1 --yes");
    EXPECT_EQ(host("sha256sum </dev/qz/dsk/datadg/vol4"), sum);
    EXPECT_EQ(mounts(), all_mounts({vol1}));
    expect_unchanged(vol1, "/data/vol1");
    EXPECT_EQ(state(), "restored");
}

TEST_F(Restore, measures_what_really_differs_needs_root) {
    make({vol1});
    freeze_all({vol1});
    Json plan =
        Json::parse(fim("restore 1 --plan-only --json --measure 2>/dev/null"), nullptr, false);
    const int64_t before = plan["pairs"][0]["differs"];
    host("head -c 5000000 /dev/urandom >/data/vol1/more && sync");
    plan = Json::parse(fim("restore 1 --plan-only --json --measure 2>/dev/null"), nullptr, false);
    const int64_t after = plan["pairs"][0]["differs"];
    EXPECT_LT(before, 1000000);
    EXPECT_GE(after, 5000000);
    EXPECT_LT(after, 8000000);
    EXPECT_EQ(plan["pairs"][0]["size"], 512 << 20);
    EXPECT_EQ(state(), "frozen");
}

TEST_F(Restore, is_refused_while_a_file_is_open_and_names_who_has_it_needs_root) {
    make({vol1, vol2});
    freeze_all({vol1, vol2});
    for (const Object &object : {vol1, vol2}) destroy(object);
    host(
        "exec 9</data/vol2/instead; sleep 60 <&9 >/dev/null 2>&1 & echo $! >/run/sleeper; exec "
        "9<&-");
    const std::string said = fim("restore 1 --yes", 2);
    expect_said(said, "/data/vol2 is in use by process ");
    expect_said(said, "(sleep)");
    expect_untouched({vol1, vol2});
    host("kill $(cat /run/sleeper)");
    fim("restore 1 --yes");
    expect_restored({vol1, vol2});
}

TEST_F(Restore, an_unmount_that_fails_loses_nothing_and_says_who_was_in_the_way_needs_root) {
    make({vol1, vol2});
    freeze_all({vol1, vol2});
    for (const Object &object : {vol1, vol2}) destroy(object);
    // Somebody opens a file after everybody was looked for.
    wrap("/usr/bin/umount", "*/data/vol2*",
         "exec 9</data/vol2/instead; sleep 60 <&9 >/dev/null 2>&1 & echo $! >/run/sleeper; exec "
         "9<&-",
         "");
    const std::string said = fim("restore 1 --yes", 1);
    expect_said(said, "; /data/vol2 is in use by process ");
    expect_said(said, "then: nothing was overwritten, and every file system is where it was");
    expect_untouched({vol1, vol2});
    host("kill -9 $(cat /run/sleeper); sleep 0.2");
    fim("restore 1 --yes");
    expect_restored({vol1, vol2});
}

TEST_F(Restore, a_bystander_of_the_group_is_not_overwritten_unasked_needs_root) {
    make({vol1, vol2});
    freeze_all({vol1});
    const std::string said = fim("restore 1 --yes", 2);
    expect_said(said,
                "volume vol2 of disk group datadg is no object of the snapshot and would be "
                "overwritten, too; it is mounted on /data/vol2");
    expect_said(said, "next: umount /data/vol2");
    host("umount /data/vol2");
    expect_said(fim("restore 1 --plan-only"), "overwritten with it: vol2");
}

// The method answers 0 in both of these.

TEST_F(Restore, a_session_that_does_not_end_restores_nothing_and_is_no_success_needs_root) {
    make({vol1, vol2});
    freeze_all({vol1, vol2});
    for (const Object &object : {vol1, vol2}) destroy(object);
    wrap("/usr/bin/umount", "*/data/vol2*", "", "tfarray fault add SymExit");
    const std::string said = fim("restore 1 --yes", 3);
    expect_said(said, "the method reports success, but the array has restored nothing");
    expect_untouched({vol1, vol2});
    fim("restore 1 --yes");
    expect_restored({vol1, vol2});
}

TEST_F(Restore, a_pair_that_was_established_meanwhile_is_no_success_needs_root) {
    make({vol1});
    freeze_all({vol1});
    destroy(vol1);
    wrap("/usr/sbin/qzdg", "*deport*", "",
         "tfarray establish 000184500123 00A1 01A1 && tfarray clock advance 60 >/dev/null");
    const std::string said = fim("restore 1 --yes", 3);
    expect_said(said, "pair 00A1/01A1 of array 000184500123 is synchronised");
    expect_said(said, "next: the copy is gone; end the snapshot: fimctl release 1");
    EXPECT_EQ(mounts(), all_mounts({vol1}));
    EXPECT_EQ(host("cat /data/vol1/instead"), "gone\n");
    EXPECT_EQ(state(), "frozen");
    expect_said(fim("show 1"), "void");
    fim("restore 1 --yes", 2);
    fim("release 1");
    EXPECT_EQ(state(), "released");
    expect_nothing_left();
}

TEST_F(Restore, a_pair_that_is_found_established_is_refused_needs_root) {
    make({vol1});
    freeze_all({vol1});
    host("umount /data/vol1 && qzvol -g datadg stopall");
    array("establish 000184500123 00A1 01A1");
    array("clock advance 60");
    host("qzvol -g datadg startall && mount /dev/qz/dsk/datadg/vol1 /data/vol1");
    expect_said(fim("restore 1 --yes", 2), "the method would pass it over and restore nothing");
    EXPECT_EQ(mounts(), all_mounts({vol1}));
}

TEST_F(Restore, an_array_that_refuses_leaves_everything_as_it_was_needs_root) {
    make({vol1, vol2});
    freeze_all({vol1, vol2});
    for (const Object &object : {vol1, vol2}) destroy(object);
    array("fault add SymDevListBcvControl");
    expect_said(fim("restore 1 --yes", 1), "not established");
    expect_untouched({vol1, vol2});
    fim("restore 1 --yes");
    expect_restored({vol1, vol2});
}

TEST_F(Restore, an_answer_that_is_lost_is_judged_by_the_array_needs_root) {
    make({vol1, vol2});
    freeze_all({vol1, vol2});
    for (const Object &object : {vol1, vol2}) destroy(object);
    array("fault add SymDevListBcvControl --after");
    fim("restore 1 --yes");
    expect_restored({vol1, vol2});
}

// A host that knows the mirrors' disks has every disk of the group twice.
TEST_F(Restore, put_back_takes_the_primaries_where_the_mirrors_are_known_too_needs_root) {
    make({vol1, vol2});
    freeze_all({vol1, vol2});
    for (const Object &object : {vol1, vol2}) destroy(object);
    for (const char *disk : {"sdq", "sdr", "sds"}) {
        host(std::string("qzdisk define ") + disk + "; qzdisk online " + disk);
    }
    array("fault add SymDevListBcvControl");
    fim("restore 1 --yes", 1);
    expect_untouched({vol1, vol2});
    // The method itself imports, and takes the mirrors.
    wrap("/usr/bin/umount", "*/data/vol2*", "", "tfarray fault add SymExit");
    for (const char *disk : {"sdq", "sdr", "sds"}) host(std::string("qzdisk online ") + disk);
    fim("restore 1 --yes", 3);
    expect_untouched({vol1, vol2});
    fim("restore 1 --yes");
    expect_restored({vol1, vol2});
}

TEST_F(Restore, a_plan_that_has_gone_stale_is_refused_needs_root) {
    make({vol1});
    freeze_all({vol1});
    const std::string seen = code();
    host("umount /data/vol1");
    const std::string said = fim("restore 1 --confirm " + seen, 2);
    expect_said(said, "not mounted now; will be mounted");
    expect_said(said, "this is not the plan of code");
    EXPECT_EQ(state(), "frozen");
    fim("restore 1 --confirm " + code());
    expect_restored({vol1});
}

TEST_F(Restore, the_next_snapshot_begins_from_the_restored_pairs_needs_root) {
    make({vol1, vol3});
    freeze_all({vol1, vol3});
    destroy(vol1);
    destroy(vol3);
    fim("restore 1 --yes");
    expect_restored({vol1, vol3});
    EXPECT_EQ(fim("-q freeze --config alternate_backup_client=backup1 /data/vol1 /data/vol3"),
              "2\n");
    expect_pairs({vol1, vol3}, 5);
    const Json shown = Json::parse(fim("show 2 --json 2>/dev/null"), nullptr, false);
    EXPECT_EQ(shown["copy"], "good") << shown.dump(2);
    // And is restored from in its turn.
    destroy(vol1);
    destroy(vol3);
    fim("restore 2 --yes");
    for (const Object &object : {vol1, vol3}) expect_unchanged(object, object.data());
    // Released, a later one is incremental again.
    EXPECT_EQ(fim("-q freeze --config alternate_backup_client=backup1 /data/vol1"), "3\n");
    host("head -c 200000 /dev/urandom >/data/vol1/little && sync");
    fim("release 3");
    array("clock advance 60");
    expect_pairs({vol1}, 2);
    EXPECT_LE(tracks_moved(), 64);
    expect_nothing_left();
}

TEST_F(Restore, a_copy_in_the_hands_of_the_backup_host_is_waited_for_needs_root) {
    make({vol1});
    freeze_all({vol1});
    host("fimctl -q export 1 >/exchange/there.json");
    destroy(vol1);
    expect_said(fim("restore 1 --yes", 2), "is not back: the backup host may be reading the copy");
    on("backup1");
    EXPECT_EQ(fim("-q import /exchange/there.json"), "1\n");
    const std::string copy = fim("-q mount 1");
    expect_unchanged(vol1, copy.substr(0, copy.size() - 1));
    expect_said(fim("restore 1 --yes", 2), "it belongs to the primary host client1");
    fim("-q release 1");
    host("fimctl -q export 1 >/exchange/back.json");
    on("client1");
    fim("-q import /exchange/back.json");
    fim("restore 1 --yes");
    expect_restored({vol1});
}

// Its mirrors carry the name of the copy, and so do the primaries after the restore.
TEST_F(Restore, after_the_backup_host_has_died_the_group_gets_its_name_back_needs_root) {
    make({vol1});
    freeze_all({vol1});
    host("fimctl -q export 1 >/exchange/there.json");
    on("backup1");
    fim("-q import /exchange/there.json");
    fim("-q mount 1");
    restart_host("backup1");
    on("client1");
    destroy(vol1);
    expect_said(fim("restore 1 --yes --abandoned", 3), "then go on: fimctl restore 1");
    fim("restore 1 --yes");
    expect_restored({vol1});
}

}  // namespace
}  // namespace test
