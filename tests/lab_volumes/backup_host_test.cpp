// Copies of volumes on another host, which sees the mirrors alone and under names of its own: made
// by the clone tool, or by importing the mirrors' disk group.
#include "tests/lab_volumes/volumes.h"

namespace test {
namespace {

const std::string clone_tool = "/usr/quill/tessera/bin/tqdgclone ";

struct VolumeOnTheBackupHost : VolumesOnTwoHosts {
    // The whole way: frozen here, read there, released here.
    void copy_without_import(const Objects &objects);
    void copy_with_import(const Objects &objects);
};

void VolumeOnTheBackupHost::copy_without_import(const Objects &objects) {
    make(objects);
    freeze(objects);
    for (const Object &object : objects) change(object);
    carry_clone_information(objects);
    const Phase up = bring_up_there(objects);
    for (size_t i = 0; i < objects.size(); ++i) {
        EXPECT_EQ(up.at("volumes", i).volpath,
                  "/dev/qz/rdsk/client1_" + objects[i].group + "_clone/" + objects[i].name);
        // Neither the array's locks nor the volume manager's commands are this way's.
        EXPECT_EQ(commands(up.at("rebuild", i)), Words());
        host("umount " + objects[i].copy());
        expect_sound(objects[i],
                     "/dev/qz/dsk/client1_" + objects[i].group + "_clone/" + objects[i].name);
    }
    thaw_there(objects);
    expect_no_copy_here();
    release_here(objects);
    expect_released(objects);
}

void VolumeOnTheBackupHost::copy_with_import(const Objects &objects) {
    make(objects);
    ask_for_import();
    freeze(objects, with_import);
    for (const Object &object : objects) change(object);
    const Phase up = bring_up_there(objects);
    for (size_t i = 0; i < objects.size(); ++i) {
        const std::string path = "client1_" + objects[i].group + "_clone/" + objects[i].name;
        EXPECT_EQ(up.at("volumes", i).volpath, "/dev/qz/rdsk/" + path);
        EXPECT_EQ(up.at("volumes", i).nvols, 1);
        EXPECT_EQ(host("grep ' " + objects[i].copy() + " ' /proc/self/mounts | cut -d' ' -f1,3"),
                  "/dev/qz/dsk/" + path + " " + objects[i].type + "\n");
        host("umount " + objects[i].copy());
        expect_sound(objects[i], "/dev/qz/dsk/" + path);
    }
    thaw_there(objects);
    expect_no_copy_here();
    release_here(objects);
    expect_released(objects);
}

TEST_F(VolumeOnTheBackupHost, of_ext4_is_read_without_import_needs_root) {
    copy_without_import({vol1});
}

TEST_F(VolumeOnTheBackupHost, of_xfs_is_read_without_import_needs_root) {
    copy_without_import({vol2});
}

TEST_F(VolumeOnTheBackupHost, with_two_others_of_its_group_is_read_without_import_needs_root) {
    copy_without_import({vol1, vol2, vol3});
}

TEST_F(VolumeOnTheBackupHost, and_one_of_another_group_are_read_without_import_needs_root) {
    copy_without_import({vol1, log1});
}

TEST_F(VolumeOnTheBackupHost, of_ext4_is_read_with_import_needs_root) {
    copy_with_import({vol1});
}

TEST_F(VolumeOnTheBackupHost, of_xfs_is_read_with_import_needs_root) {
    copy_with_import({vol2});
}

TEST_F(VolumeOnTheBackupHost, with_two_others_of_its_group_is_read_with_import_needs_root) {
    copy_with_import({vol1, vol2, vol3});
}

TEST_F(VolumeOnTheBackupHost, and_one_of_another_group_are_read_with_import_needs_root) {
    copy_with_import({vol1, log1});
}

TEST_F(VolumeOnTheBackupHost, is_cloned_by_the_given_commands_needs_root) {
    make({vol1, vol2});
    freeze({vol1, vol2});
    carry_clone_information({vol1, vol2});
    const Phase up = bring_up_there({vol1, vol2});
    EXPECT_EQ(
        commands(up),
        Words{clone_tool + "-g datadg -n vol2,vol1 -d /dev/qz/rdmp/p1,/dev/rdsk/c2t0d2:"
                           "/dev/qz/rdmp/p0,/dev/rdsk/c2t0d1 -i /tmp/EMCTX?????? -r client1"});
    EXPECT_EQ(commands(thaw_there({vol1, vol2})),
              (Words{clone_tool + "-g datadg -n vol1 -c client1_datadg_clone",
                     clone_tool + "-g datadg -n vol2 -c client1_datadg_clone"}));
    EXPECT_EQ(commands(release_here({vol1, vol2})), Words());
}

// The first object of a group brings its disks, and the last one gives the group back.
TEST_F(VolumeOnTheBackupHost, is_imported_by_the_given_commands_needs_root) {
    make({vol1, vol2, vol3});
    ask_for_import();
    const Phase frozen = freeze({vol1, vol2, vol3}, with_import);
    EXPECT_EQ(commands(frozen), Words{clone_tool + "-g datadg -f /tmp/EMCTF?????? -p DEFAULT"});
    const Phase up = bring_up_there({vol1, vol2, vol3});
    Words known;
    for (const char *disk : {"c2t0d1", "c2t0d2", "c2t0d3"}) {
        for (const char *action : {"list ", "define ", "online "}) {
            known.push_back(std::string("/usr/sbin/qzdisk ") + action + disk);
        }
    }
    EXPECT_EQ(commands(up.at("rebuild", 0)), known);
    EXPECT_EQ(commands(up.at("rebuild", 1)), Words());
    EXPECT_EQ(commands(up.at("volumes", 0)),
              (Words{"/usr/sbin/qzdg -C -n client1_datadg_clone import datadg",
                     "/usr/sbin/qzvol -g client1_datadg_clone startall"}));
    EXPECT_EQ(commands(up.at("volumes", 1)), Words());
    const Phase gone = thaw_there({vol1, vol2, vol3});
    EXPECT_EQ(commands(gone.at("thaw", 0)), Words());
    EXPECT_EQ(commands(gone.at("thaw", 1)), Words());
    EXPECT_EQ(commands(gone.at("thaw", 2)),
              (Words{"/usr/sbin/qzdg list client1_datadg_clone",
                     "/usr/sbin/qzdg -n datadg deport client1_datadg_clone"}));
    // Disks that are known need no definition.
    EXPECT_EQ(commands(gone.at("rebuild", 0)),
              (Words{"/usr/sbin/qzdisk list c2t0d1", "/usr/sbin/qzdisk online c2t0d1",
                     "/usr/sbin/qzdisk list c2t0d2", "/usr/sbin/qzdisk online c2t0d2",
                     "/usr/sbin/qzdisk list c2t0d3", "/usr/sbin/qzdisk online c2t0d3"}));
    EXPECT_EQ(commands(release_here({vol1, vol2, vol3})), Words());
}

// The disks of an imported group are the first object's. A commit of another one alone has nothing
// to split and says so by no status: every object has to be committed.
TEST_F(VolumeOnTheBackupHost, is_not_split_by_the_commit_of_a_sibling_alone_needs_root) {
    make({vol1, vol2});
    ask_for_import();
    Words steps = for_each({vol1, vol2}, {"freeze", with_import, "SOURCE", "COPY"});
    steps.insert(steps.end(), {"ctl", "4", "commit", "run", "tfarray show --json >/exchange/shown",
                               "object", "0", "commit"});
    const Phase frozen = phase(steps);
    expect_all_succeed(frozen);
    EXPECT_EQ(frozen.at("commit", 0).log, Words());
    EXPECT_NE(saved("shown").find("\"state\": 2"), std::string::npos) << saved("shown");
    EXPECT_TRUE(frozen.at("commit", 1).logged("Total BCVs to split : 2"));
    expect_pairs({vol1, vol2}, 5);
}

// A process ends the groups that it knows with the objects that it knows, so one that thaws a
// single object takes the whole group; what is mounted keeps it.
TEST_F(VolumeOnTheBackupHost, thawed_without_its_mounted_sibling_keeps_the_group_needs_root) {
    make({vol1, vol2});
    ask_for_import();
    freeze({vol1, vol2}, with_import);
    bring_up_there({vol1, vol2});
    const Phase alone = phase({"rebuild", "/exchange/0.up", "thaw"});
    expect_failure(alone.at("thaw"), 11,
                   "TimeFinder_thaw: Unable to clean up disk group client1_datadg_clone, volume"
                   " vol1");
    EXPECT_TRUE(alone.at("thaw").logged_part("mounted on /copy/vol2"));
    expect_unchanged(vol2, "/copy/vol2");
    host("rm /tmp/EMCTX*");
    thaw_there({vol1, vol2});
    expect_no_copy_here();
    release_here({vol1, vol2});
    expect_released({vol1, vol2});
}

// Only the first object's text makes the disks known there, and a group is imported once.
TEST_F(VolumeOnTheBackupHost, rebuilt_without_its_groups_first_object_is_not_shown_needs_root) {
    make({vol1, vol2});
    ask_for_import();
    freeze({vol1, vol2}, with_import);
    on("backup1");
    add_first({vol1, vol2}, "HDEF-is_tgt=1");
    const Phase early = phase({"rebuild", "/exchange/1", "volumes", "thaw"});
    EXPECT_NE(early.at("volumes").status, 0);
    EXPECT_EQ(commands(early.at("rebuild")), Words());
    expect_success(early.at("thaw"));
    host("mkdir -p /copy/vol1 /copy/vol2");
    expect_all_succeed(phase({"rebuild", "/exchange/0", "volumes"}));
    const Phase late = phase({"rebuild", "/exchange/1", "volumes", "thaw"});
    EXPECT_NE(late.at("volumes").status, 0);
    expect_success(late.at("thaw"));
    expect_unchanged(vol1, "/copy/vol1");
}

TEST_F(VolumeOnTheBackupHost, can_be_shown_again_after_a_thaw_with_import_needs_root) {
    make({vol1, vol2});
    ask_for_import();
    freeze({vol1, vol2}, with_import);
    bring_up_there({vol1, vol2});
    thaw_there({vol1, vol2});
    bring_up({vol1, vol2});
    add_first({vol1, vol2}, "HDEF-is_tgt=1", ".up");
    thaw_there({vol1, vol2});
    expect_no_copy_here();
    release_here({vol1, vol2});
    expect_released({vol1, vol2});
}

TEST_F(VolumeOnTheBackupHost, is_not_imported_where_its_primary_disk_is_visible_needs_root) {
    make({vol1, vol2});
    ask_for_import();
    freeze({vol1, vol2}, with_import);
    array("mask 000184500123 00A2 backup1 /dev/rdsk/c3t0d2");
    on("backup1");
    add_first({vol1}, "HDEF-is_tgt=1");
    const Phase refused = phase({"rebuild", "/exchange/0"});
    expect_failure(refused.at("rebuild"), 7,
                   "TimeFinder_rebuild: Primary disk /dev/qz/rdmp/p1 <00A2> is visible on alternate"
                   " backup client. disk group import method can not be used.");
    array("unmask 000184500123 00A2 backup1");
    const Phase good = phase({"rebuild", "/exchange/0"});
    expect_success(good.at("rebuild"));
}

TEST_F(VolumeOnTheBackupHost, is_cloned_where_its_primary_disk_is_visible_needs_root) {
    make({vol1});
    freeze({vol1});
    carry_clone_information({vol1});
    array("mask 000184500123 00A1 backup1 /dev/rdsk/c3t0d1");
    bring_up_there({vol1});
    thaw_there({vol1});
    release_here({vol1});
    expect_released({vol1});
}

TEST_F(VolumeOnTheBackupHost, is_imported_once_the_daemon_is_enabled_needs_root) {
    make({vol1});
    ask_for_import();
    freeze({vol1}, with_import);
    const Words all = {"/usr/sbin/qzdg -C -n client1_datadg_clone import datadg",
                       "/usr/sbin/qzdctl enable",
                       "/usr/sbin/qzdg -C -n client1_datadg_clone import datadg",
                       "/usr/sbin/qzvol -g client1_datadg_clone startall"};
    on("backup1");
    host("qzdctl disable");
    EXPECT_EQ(commands(bring_up_there({vol1}).at("volumes")), all);
    thaw_there({vol1});
    host("qzdctl stall");
    const Phase again = bring_up({vol1});
    EXPECT_EQ(commands(again.at("volumes")), all);
    add_first({vol1}, "HDEF-is_tgt=1", ".up");
    thaw_there({vol1});
    release_here({vol1});
    expect_released({vol1});
}

// The group has two disks, and this host sees the mirror of one.
TEST_F(VolumeOnTheBackupHost, of_a_group_that_is_not_seen_whole_is_not_imported_needs_root) {
    make({vol1, vol2});
    ask_for_import();
    freeze({vol1, vol2}, with_import);
    array("unmask 000184500123 01A2 backup1");
    on("backup1");
    add_first({vol1, vol2}, "HDEF-is_tgt=1");
    const Phase refused =
        phase({"object", "0", "rebuild", "/exchange/0", "object", "1", "rebuild", "/exchange/1",
               "object", "0", "volumes", "thaw", "object", "1", "thaw"});
    expect_success(refused.at("rebuild", 0));
    EXPECT_NE(refused.at("volumes").status, 0);
    EXPECT_EQ(
        commands(refused.at("volumes")),
        (Words{"/usr/sbin/qzdg -C -n client1_datadg_clone import datadg", "/usr/sbin/qzdctl enable",
               "/usr/sbin/qzdg -C -n client1_datadg_clone import datadg"}));
    // There is no clone group to give back.
    expect_success(refused.at("thaw", 0));
    expect_success(refused.at("thaw", 1));
    EXPECT_EQ(commands(refused.at("thaw", 1)), Words());
    expect_no_copy_here();
    array("mask 000184500123 01A2 backup1 /dev/rdsk/c2t0d2");
    bring_up({vol1, vol2});
}

TEST_F(VolumeOnTheBackupHost, that_is_not_seen_there_is_not_cloned_needs_root) {
    make({vol1});
    freeze({vol1});
    carry_clone_information({vol1});
    array("unmask 000184500123 01A1 backup1");
    on("backup1");
    add_first({vol1}, "HDEF-is_tgt=1");
    const Phase refused = phase({"rebuild", "/exchange/0", "volumes", "thaw"});
    EXPECT_NE(refused.at("volumes").status, 0);
    EXPECT_TRUE(refused.at("volumes").logged_part("/dev/rdsk/cXtXdX"));
    expect_success(refused.at("thaw"));
    expect_no_copy_here();
}

// The information is needed: what the carrier lost cannot be made up for.
TEST_F(VolumeOnTheBackupHost, whose_information_was_not_carried_is_not_cloned_needs_root) {
    make({vol1});
    freeze({vol1});
    on("backup1");
    add_first({vol1}, "HDEF-is_tgt=1");
    const Phase refused = phase({"rebuild", "/exchange/0", "volumes", "thaw"});
    EXPECT_NE(refused.at("volumes").status, 0);
    EXPECT_TRUE(refused.at("volumes").logged_part("it is empty"));
    expect_success(refused.at("thaw"));
    expect_no_copy_here();
}

TEST_F(VolumeOnTheBackupHost, that_is_in_use_there_keeps_its_group_until_it_is_not_needs_root) {
    make({vol1, vol2});
    ask_for_import();
    freeze({vol1, vol2}, with_import);
    bring_up_there({vol1, vol2});
    host("mkdir /other && mount /dev/qz/dsk/client1_datadg_clone/vol1 /other");
    const Phase busy = phase({"object", "0", "rebuild", "/exchange/0.up", "object", "1", "rebuild",
                              "/exchange/1.up", "object", "0", "thaw", "object", "1", "thaw"});
    expect_success(busy.at("thaw", 0));
    expect_failure(busy.at("thaw", 1), 11,
                   "TimeFinder_thaw: Unable to clean up disk group client1_datadg_clone, volume"
                   " vol2");
    // The failed thaw keeps its transfer file; the next process makes another one.
    host("test -b /dev/qz/dsk/client1_datadg_clone/vol2 && umount /other && rm /tmp/EMCTX*");
    thaw_there({vol1, vol2});
    expect_no_copy_here();
    release_here({vol1, vol2});
    expect_released({vol1, vol2});
}

// The mirrors keep the name that they were imported under, and the host that knew it is gone. There
// is no second look at this copy; its release on the primary host needs nothing of it.
TEST_F(VolumeOnTheBackupHost, whose_host_was_restarted_is_not_imported_again_needs_root) {
    make({vol1});
    ask_for_import();
    freeze({vol1}, with_import);
    start_host("backup2");
    array("unmask 000184500123 01A1 backup1");
    array("mask 000184500123 01A1 backup2 /dev/rdsk/c2t0d1");
    host("cp /exchange/0 /exchange/0.here");
    on("backup2");
    add_first({vol1}, "HDEF-is_tgt=1");
    bring_up({vol1});
    add_first({vol1}, "HDEF-is_tgt=1", ".up");
    restart_host("backup2");
    const Phase again = phase({"rebuild", "/exchange/0", "volumes", "thaw"});
    EXPECT_NE(again.at("volumes").status, 0);
    EXPECT_TRUE(again.at("volumes").logged_part("group datadg"));
    expect_success(again.at("thaw"));
    thaw({vol1}, false);
    EXPECT_EQ(
        host("grep ' /copy/' /proc/self/mounts; ls /dev/qz/dsk 2>/dev/null; ls -A /tmp; true"), "");
    release_here({vol1});
    expect_released({vol1});
}

// Not even the group that is imported there under its own name is touched.
TEST_F(VolumeOnTheBackupHost, is_not_imported_by_the_process_that_froze_it_needs_root) {
    make({vol1});
    ask_for_import();
    const Phase all = phase({"freeze", with_import, "/data/vol1", "/copy/vol1", "ctl", "4",
                             "commit", "volumes", "thaw", "thaw_commit"});
    EXPECT_NE(all.at("volumes").status, 0);
    EXPECT_EQ(commands(all.at("volumes")),
              (Words{"/usr/sbin/qzdg -C -n datadg_clone import datadg", "/usr/sbin/qzdctl enable",
                     "/usr/sbin/qzdg -C -n datadg_clone import datadg"}));
    expect_success(all.at("thaw"));
    expect_success(all.at("thaw_commit"));
    expect_unchanged(vol1, "/data/vol1");
    expect_released({vol1});
}

// Names of clone groups are cut, so two groups may have one; the second is refused, whichever it
// is.
TEST_F(VolumeOnTheBackupHost, whose_clone_name_is_taken_is_not_imported_needs_root) {
    const Object first = {"datadg_production_1", "vol1", "ext4", "p0"},
                 second = {"datadg_production_2", "vol2", "ext4", "p1"};
    make({first, second});
    ask_for_import();
    freeze({first, second}, with_import);
    on("backup1");
    add_first({first, second}, "HDEF-is_tgt=1");
    host("mkdir -p /copy/vol1 /copy/vol2");
    const Phase up = phase({"object",
                            "0",
                            "rebuild",
                            "/exchange/0",
                            "object",
                            "1",
                            "rebuild",
                            "/exchange/1",
                            "object",
                            "0",
                            "volumes",
                            "run",
                            check_step(first, "/copy/vol1"),
                            "object",
                            "1",
                            "volumes",
                            "object",
                            "0",
                            "run",
                            check_step(first, "/copy/vol1"),
                            "thaw",
                            "object",
                            "1",
                            "thaw"});
    expect_success(up.at("volumes", 0));
    EXPECT_EQ(up.at("volumes", 0).volpath, "/dev/qz/rdsk/client1_datadg_production_clone/vol1");
    EXPECT_NE(up.at("volumes", 1).status, 0);
    EXPECT_TRUE(up.at("volumes", 1).logged_part("client1_datadg_production_clone is imported"));
    expect_success(up.at("thaw", 0));
    expect_success(up.at("thaw", 1));
    expect_no_copy_here();
}

}  // namespace
}  // namespace test
