// Disk groups restored from their mirrors after the originals were destroyed, with what a framework
// has to do for it: it appends lines to the texts, ends the objects in the order in which it
// rebuilt them, and mounts all file systems but the last object's itself.
#include "tests/lab_volumes/volumes.h"

namespace test {
namespace {

const Object vol4 = {"datadg", "vol4", "xfs", "p2"};

struct RestoreOfAGroup : VolumesOnTwoHosts {
    void freeze_with_import(const Objects &objects);
    // Takes everything from the original that a user can take.
    void destroy(const Object &object);
    void prepare_texts(const Objects &objects);
    // Rebuild of all, thaw of all, thaw commit of all, with a step before the last call.
    Phase restore(const Objects &objects, const std::string &before_last = "true");
    // What a failed command wrote stays for the administrator.
    void remove_captures() { host("rm /tmp/QfMS*"); }
    void expect_restored(const Objects &objects);
};

void RestoreOfAGroup::freeze_with_import(const Objects &objects) {
    ask_for_import();
    freeze(objects, with_import);
    expect_pairs(objects, 5);
}

void RestoreOfAGroup::destroy(const Object &object) {
    host("umount " + object.data() + " && mkfs." + object.type +
         (object.type == "xfs" ? " -f" : " -F") + " -q " + object.block() + " && mount " +
         object.block() + " " + object.data() + " && echo gone >" + object.data() +
         "/instead && sync");
}

void RestoreOfAGroup::prepare_texts(const Objects &objects) {
    for (size_t i = 0; i < objects.size(); ++i) {
        host("printf 'HDEF-restore=1\\nHDEF-mount_point=" + objects[i].data() +
             "\\nHDEF-is_mount=0\\n' >>" + text(i));
    }
}

Phase RestoreOfAGroup::restore(const Objects &objects, const std::string &before_last) {
    Words steps = for_each(objects, {"rebuild", "TEXT"});
    const Words thaws = for_each(objects, {"thaw"}), commits = for_each(objects, {"thaw_commit"});
    steps.insert(steps.end(), thaws.begin(), thaws.end());
    steps.insert(steps.end(), commits.begin(), commits.end() - 1);
    steps.insert(steps.end(), {"run", before_last, "thaw_commit"});
    return phase(steps);
}

void RestoreOfAGroup::expect_restored(const Objects &objects) {
    for (size_t i = 0; i + 1 < objects.size(); ++i) {
        host("mount " + objects[i].block() + " " + objects[i].data());
    }
    for (const Object &object : objects) {
        expect_unchanged(object, object.data());
        host("test ! -e " + object.data() + "/instead && umount " + object.data());
        expect_sound(object, object.block());
    }
    expect_pairs(objects, 8);
    EXPECT_EQ(counter_files() + host("ls -A /tmp"), "");
}

TEST_F(RestoreOfAGroup, of_one_volume_brings_every_byte_back_needs_root) {
    make({vol1});
    freeze_with_import({vol1});
    destroy(vol1);
    prepare_texts({vol1});
    const Phase back = restore({vol1});
    expect_all_succeed(back);
    EXPECT_EQ(commands(back),
              (Words{"/usr/sbin/qzdg deport datadg", "/usr/sbin/qzdg -C import datadg",
                     "/usr/sbin/qzvol -g datadg startall"}));
    for (const char *line : {"Adding <00A1, 01A1> to resync list", "Restoring from mirror",
                             "Total BCVs to resync : 1", "Resync started ...", "Resync end"}) {
        EXPECT_TRUE(back.at("thaw_commit").logged(line)) << line;
    }
    EXPECT_EQ(mounts(), "/dev/qz/dsk/datadg/vol1 /data/vol1 ext4\n");
    expect_restored({vol1});
}

TEST_F(RestoreOfAGroup, of_xfs_brings_every_byte_back_needs_root) {
    make({vol2});
    freeze_with_import({vol2});
    destroy(vol2);
    prepare_texts({vol2});
    expect_all_succeed(restore({vol2}));
    expect_restored({vol2});
}

// The last call's object is checked and mounted first; the others are checked, and mounted by the
// framework. Three disks are restored in one call.
TEST_F(RestoreOfAGroup, of_several_file_systems_mounts_the_last_one_needs_root) {
    const Objects objects = {vol1, {"datadg", "vol2", "ext4", "p1"}, vol3};
    make(objects);
    freeze_with_import(objects);
    for (const Object &object : objects) destroy(object);
    prepare_texts(objects);
    const Phase back = restore(objects);
    expect_all_succeed(back);
    EXPECT_EQ(commands(back.at("thaw_commit", 0)), Words());
    EXPECT_EQ(commands(back.at("thaw_commit", 1)), Words());
    EXPECT_EQ(commands(back.at("thaw_commit", 2)).size(), 3U);
    EXPECT_TRUE(back.at("thaw_commit", 2).logged("Total BCVs to resync : 3"));
    EXPECT_EQ(mounts(), "/dev/qz/dsk/datadg/vol3 /data/vol3 ext4\n");
    expect_restored(objects);
}

TEST_F(RestoreOfAGroup, of_several_xfs_mounts_the_last_one_needs_root) {
    make({vol2, vol4});
    freeze_with_import({vol2, vol4});
    destroy(vol2);
    destroy(vol4);
    prepare_texts({vol2, vol4});
    expect_all_succeed(restore({vol2, vol4}));
    EXPECT_EQ(mounts(), "/dev/qz/dsk/datadg/vol4 /data/vol4 xfs\n");
    expect_restored({vol2, vol4});
}

// Ended in another order, the object of the last call is walked later: it is mounted by then, and a
// mounted file system is not checked.
TEST_F(RestoreOfAGroup, ended_in_another_order_fails_with_all_data_back_needs_root) {
    const Objects objects = {vol1, {"datadg", "vol2", "ext4", "p1"}};
    make(objects);
    freeze_with_import(objects);
    for (const Object &object : objects) destroy(object);
    prepare_texts(objects);
    const Phase back =
        phase({"object", "0", "rebuild", "/exchange/0", "object", "1", "rebuild", "/exchange/1",
               "thaw", "thaw_commit", "object", "0", "thaw", "thaw_commit"});
    expect_success(back.at("thaw_commit", 0));
    const Call &last = back.at("thaw_commit", 1);
    EXPECT_EQ(last.status, 11);
    EXPECT_EQ(last.number, 3);
    EXPECT_EQ(last.errmsg.find("TimeFinder_thaw_commit: Q_fsck(/dev/qz/rdsk/datadg/vol1, ext4)"
                               " failed with status=1, exit_status=8("),
              0U)
        << last.errmsg;
    EXPECT_EQ(mounts(), "/dev/qz/dsk/datadg/vol1 /data/vol1 ext4\n");
    remove_captures();
    expect_restored({objects[1], objects[0]});
}

// Every file system is checked as one of the last call's type, but the checking program looks for
// itself what it has to check. So a group may hold several types, in any order.
TEST_F(RestoreOfAGroup, of_two_types_mounts_the_last_one_needs_root) {
    make({vol1, vol2});
    freeze_with_import({vol1, vol2});
    destroy(vol1);
    destroy(vol2);
    prepare_texts({vol1, vol2});
    expect_all_succeed(restore({vol1, vol2}));
    EXPECT_EQ(mounts(), "/dev/qz/dsk/datadg/vol2 /data/vol2 xfs\n");
    expect_restored({vol1, vol2});
}

TEST_F(RestoreOfAGroup, of_two_types_in_the_other_order_mounts_the_last_one_needs_root) {
    make({vol2, vol1});
    freeze_with_import({vol2, vol1});
    destroy(vol1);
    destroy(vol2);
    prepare_texts({vol2, vol1});
    expect_all_succeed(restore({vol2, vol1}));
    EXPECT_EQ(mounts(), "/dev/qz/dsk/datadg/vol1 /data/vol1 ext4\n");
    expect_restored({vol2, vol1});
}

// Each group is deported by its last object; what was rebuilt last is mounted.
TEST_F(RestoreOfAGroup, together_with_another_brings_both_back_needs_root) {
    make({vol1, log1});
    freeze_with_import({vol1, log1});
    destroy(vol1);
    destroy(log1);
    prepare_texts({vol1, log1});
    const Phase back = restore({vol1, log1});
    expect_all_succeed(back);
    EXPECT_EQ(commands(back.at("thaw_commit", 0)), Words{"/usr/sbin/qzdg deport datadg"});
    EXPECT_EQ(commands(back.at("thaw_commit", 1)),
              (Words{"/usr/sbin/qzdg deport logdg", "/usr/sbin/qzdg -C import logdg",
                     "/usr/sbin/qzvol -g logdg startall", "/usr/sbin/qzdg -C import datadg",
                     "/usr/sbin/qzvol -g datadg startall"}));
    EXPECT_EQ(mounts(), "/dev/qz/dsk/logdg/log1 /data/log1 ext4\n");
    expect_restored({vol1, log1});
}

// The mirrors were another host's meanwhile, which gave them their group's name back.
TEST_F(RestoreOfAGroup, after_its_copy_was_read_on_the_backup_host_needs_root) {
    make({vol1, vol3});
    freeze_with_import({vol1, vol3});
    bring_up_there({vol1, vol3});
    thaw_there({vol1, vol3});
    on("client1");
    destroy(vol1);
    destroy(vol3);
    for (const char *number : {"0", "1"}) {
        host(std::string("mv /exchange/") + number + ".here /exchange/" + number);
    }
    prepare_texts({vol1, vol3});
    expect_all_succeed(restore({vol1, vol3}));
    expect_restored({vol1, vol3});
}

TEST_F(RestoreOfAGroup, can_be_snapshot_again_afterwards_needs_root) {
    make({vol1, vol3});
    freeze_with_import({vol1, vol3});
    destroy(vol1);
    destroy(vol3);
    prepare_texts({vol1, vol3});
    expect_all_succeed(restore({vol1, vol3}));
    host("mount /dev/qz/dsk/datadg/vol1 /data/vol1");
    host("rm /usr/quill/tessera/tq.conf");
    freeze({vol1, vol3});
    carry_clone_information({vol1, vol3});
    bring_up({vol1, vol3});
    release({vol1, vol3});
    expect_released({vol1, vol3});
}

TEST_F(RestoreOfAGroup, is_refused_for_a_snapshot_without_import_needs_root) {
    make({vol1});
    freeze({vol1});
    change(vol1);
    const std::string before = mounts();
    prepare_texts({vol1});
    const Phase refused = phase({"rebuild", "/exchange/0"});
    expect_failure(refused.at("rebuild"), 7,
                   "TimeFinder_rebuild: only snapshot created with disk group import enabled can"
                   " be restored");
    EXPECT_EQ(pair_state(), 5);
    EXPECT_EQ(mounts(), before);
    host("test -e /data/vol1/new");
}

// Another volume of the group is in use, so the group stays and nothing is overwritten.
TEST_F(RestoreOfAGroup, does_nothing_while_a_sibling_is_mounted_needs_root) {
    make({vol1, vol2});
    freeze_with_import({vol1});
    change(vol1);
    prepare_texts({vol1});
    const Phase refused = restore({vol1});
    EXPECT_NE(refused.at("thaw_commit").status, 0);
    EXPECT_EQ(commands(refused.at("thaw_commit")), Words{"/usr/sbin/qzdg deport datadg"});
    EXPECT_TRUE(refused.at("thaw_commit").logged_part("vol2"));
    EXPECT_EQ(pair_state(), 5);
    EXPECT_EQ(pair_state("00A2", "01A2"), 5);
    expect_unchanged(vol2, "/data/vol2");
    // Its own file system was unmounted before.
    EXPECT_EQ(mounts(), "/dev/qz/dsk/datadg/vol2 /data/vol2 xfs\n");
    host("mount /dev/qz/dsk/datadg/vol1 /data/vol1 && test -e /data/vol1/new");
}

// Somebody established the pair after the split: there is no copy any more to restore from, and the
// method finds nothing to do.
TEST_F(RestoreOfAGroup, of_an_established_pair_succeeds_and_restores_nothing_needs_root) {
    make({vol1});
    freeze_with_import({vol1});
    change(vol1);
    host("umount /data/vol1 && qzvol -g datadg stopall");
    array("establish 000184500123 00A1 01A1");
    array("clock advance 60");
    host("qzvol -g datadg startall && mount /dev/qz/dsk/datadg/vol1 /data/vol1");
    prepare_texts({vol1});
    const Phase back = restore({vol1});
    expect_all_succeed(back);
    EXPECT_TRUE(back.at("thaw_commit").logged("device /dev/qz/rdmp/p0 already established"));
    EXPECT_FALSE(back.at("thaw_commit").logged("Restoring from mirror"));
    EXPECT_EQ(commands(back),
              (Words{"/usr/sbin/qzdg deport datadg", "/usr/sbin/qzdg -C import datadg",
                     "/usr/sbin/qzvol -g datadg startall"}));
    EXPECT_EQ(pair_state(), 2);
    host("test -e /data/vol1/new");
}

// Behind a session that does not end no object is touched; the group comes back up, and its last
// status is what is answered.
TEST_F(RestoreOfAGroup, whose_session_does_not_end_succeeds_and_restores_nothing_needs_root) {
    make({vol1});
    freeze_with_import({vol1});
    change(vol1);
    prepare_texts({vol1});
    const Phase back = restore({vol1}, "tfarray fault add SymExit");
    const Call &last = back.at("thaw_commit");
    EXPECT_EQ(last.status, 0);
    EXPECT_EQ(last.number, 3);
    EXPECT_EQ(last.errmsg.find("TimeFinder_thaw_commit: SymAPI call to SymExit failed with code"),
              0U)
        << last.errmsg;
    EXPECT_FALSE(last.logged("Restoring from mirror"));
    EXPECT_EQ(commands(last),
              (Words{"/usr/sbin/qzdg deport datadg", "/usr/sbin/qzdg -C import datadg",
                     "/usr/sbin/qzvol -g datadg startall"}));
    EXPECT_EQ(pair_state(), 5);
    host("test -e /data/vol1/new");
    // The lock is still this process's; its end frees it for the next owner.
    EXPECT_NE(counter_files(), "");
    host("umount /data/vol1");
    const Phase again = phase({"rebuild", "/exchange/0", "thaw", "thaw_commit"});
    expect_all_succeed(again);
    expect_restored({vol1});
}

TEST_F(RestoreOfAGroup, imports_once_the_daemon_is_enabled_needs_root) {
    make({vol1});
    freeze_with_import({vol1});
    destroy(vol1);
    prepare_texts({vol1});
    const Phase back = restore({vol1}, "qzdctl disable");
    expect_all_succeed(back);
    EXPECT_EQ(commands(back),
              (Words{"/usr/sbin/qzdg deport datadg", "/usr/sbin/qzdg -C import datadg",
                     "/usr/sbin/qzdctl enable", "/usr/sbin/qzdg -C import datadg",
                     "/usr/sbin/qzvol -g datadg startall"}));
    expect_restored({vol1});
}

// A mirror carries the name that it was imported under. Restored before the backup host gave it
// back, the primary disks have that name: the import under the old one fails, and an administrator
// imports them under both.
TEST_F(RestoreOfAGroup, while_the_mirrors_have_the_clones_name_needs_the_administrator_needs_root) {
    make({vol1});
    freeze_with_import({vol1});
    host("cp /exchange/0 /exchange/0.restore");
    bring_up_there({vol1});
    host("umount /copy/vol1 && qzdg deport client1_datadg_clone");
    on("client1");
    destroy(vol1);
    host("mv /exchange/0.restore /exchange/0");
    prepare_texts({vol1});
    const Phase back = restore({vol1});
    EXPECT_NE(back.at("thaw_commit").status, 0);
    EXPECT_EQ(mounts(), "");
    remove_captures();
    host(
        "qzdg -C -n datadg import client1_datadg_clone && qzvol -g datadg startall"
        " && mount /dev/qz/dsk/datadg/vol1 /data/vol1");
    expect_restored({vol1});
}

}  // namespace
}  // namespace test
