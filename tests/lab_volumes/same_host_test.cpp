// Copies of volumes on the host of the originals, made by the clone tool: within the process that
// froze them, and in a later one from the checkpoint text and the clone information in it.
#include <regex>

#include "tests/lab_volumes/volumes.h"

namespace test {
namespace {

struct VolumeOnItsHost : VolumesInTheLab {
    void copy_within_one_process(const Objects &objects);
    void copy_after_rebuild(const Objects &objects);
};

void VolumeOnItsHost::copy_within_one_process(const Objects &objects) {
    make(objects);
    Words steps = for_each(objects, {"freeze", "-", "SOURCE", "COPY"});
    steps.insert(steps.end(), {"ctl", "4"});
    const Words commits = for_each(objects, {"commit"});
    steps.insert(steps.end(), commits.begin(), commits.end());
    for (const Object &object : objects) {
        steps.insert(steps.end(), {"run", "echo x >" + object.data() + "/later && sync"});
    }
    for (const Words &more : {for_each(objects, {"volumes", "run", "CHECK"}),
                              for_each(objects, {"thaw"}), for_each(objects, {"thaw_commit"})}) {
        steps.insert(steps.end(), more.begin(), more.end());
    }
    const Phase all = phase(steps);
    expect_all_succeed(all);
    for (size_t i = 0; i < objects.size(); ++i) {
        const Object &object = objects[i];
        EXPECT_EQ(all.at("volumes", i).volpath,
                  "/dev/qz/rdsk/" + object.group + "_clone/" + object.name);
        EXPECT_EQ(all.at("volumes", i).nvols, 1);
        EXPECT_EQ(host("cat " + object.data() + "/later"), "x\n");
    }
    expect_released(objects);
}

void VolumeOnItsHost::copy_after_rebuild(const Objects &objects) {
    make(objects);
    freeze(objects);
    for (const Object &object : objects) change(object);
    carry_clone_information(objects);
    const Phase up = bring_up(objects);
    std::string mounted;
    for (size_t i = 0; i < objects.size(); ++i) {
        const std::string path = "client1_" + objects[i].group + "_clone/" + objects[i].name;
        EXPECT_EQ(up.at("volumes", i).volpath, "/dev/qz/rdsk/" + path);
        EXPECT_EQ(up.at("volumes", i).nvols, 1);
        EXPECT_EQ(host("grep ' " + objects[i].copy() + " ' /proc/self/mounts | cut -d' ' -f1,3"),
                  "/dev/qz/dsk/" + path + " " + objects[i].type + "\n");
    }
    // A second process finds the copies as they are, and their file systems sound.
    for (const Object &object : objects) {
        expect_unchanged(object, object.copy());
        host("umount " + object.copy());
        expect_sound(object, "/dev/qz/dsk/client1_" + object.group + "_clone/" + object.name);
    }
    release(objects);
    expect_released(objects);
    for (const Object &object : objects) EXPECT_NE(host("ls " + object.data() + "/new"), "");
}

TEST_F(VolumeOnItsHost, of_ext4_is_copied_within_one_process_needs_root) {
    copy_within_one_process({vol1});
}

TEST_F(VolumeOnItsHost, of_xfs_is_copied_within_one_process_needs_root) {
    copy_within_one_process({vol2});
}

TEST_F(VolumeOnItsHost, of_ext4_is_copied_after_a_rebuild_needs_root) {
    copy_after_rebuild({vol1});
}

TEST_F(VolumeOnItsHost, of_xfs_is_copied_after_a_rebuild_needs_root) {
    copy_after_rebuild({vol2});
}

TEST_F(VolumeOnItsHost, with_two_others_of_its_group_is_copied_within_one_process_needs_root) {
    copy_within_one_process({vol1, vol2, vol3});
}

TEST_F(VolumeOnItsHost, with_two_others_of_its_group_is_copied_after_a_rebuild_needs_root) {
    copy_after_rebuild({vol1, vol2, vol3});
}

TEST_F(VolumeOnItsHost, and_one_of_another_group_are_copied_within_one_process_needs_root) {
    copy_within_one_process({vol1, log1});
}

TEST_F(VolumeOnItsHost, and_one_of_another_group_are_copied_after_a_rebuild_needs_root) {
    copy_after_rebuild({vol1, log1});
}

// The tool is run once a group to describe and once to bring up, for all volumes and disks that the
// process knows, the newest first; and once a volume to clean up.
TEST_F(VolumeOnItsHost, is_cloned_by_the_given_commands_needs_root) {
    const Objects objects = {vol1, vol2, vol3, log1};
    make(objects);
    const std::string tool = "/usr/quill/tessera/bin/tqdgclone ";
    const std::string lists =
        "-g datadg -n vol3,vol2,vol1 -d /dev/qz/rdmp/p1,/dev/sdr:/dev/qz/rdmp/p2,/dev/sds:"
        "/dev/qz/rdmp/p0,/dev/sdq";
    const std::string log_lists = "-g logdg -n log1 -d /dev/qz/rdmp/p3,/dev/sdt";
    const Phase frozen = freeze(objects, "plexname=data");
    EXPECT_EQ(commands(frozen), (Words{tool + "-g datadg -n vol1 -f /tmp/EMCTF?????? -p data",
                                       tool + "-g datadg -n vol2 -f /tmp/EMCTF?????? -p data",
                                       tool + "-g datadg -n vol3 -f /tmp/EMCTF?????? -p data",
                                       tool + "-g logdg -n log1 -f /tmp/EMCTF?????? -p data",
                                       tool + lists + " -i /tmp/EMCTX?????? -p data",
                                       tool + log_lists + " -i /tmp/EMCTX?????? -p data"}));
    carry_clone_information(objects);
    const Phase up = bring_up(objects);
    EXPECT_EQ(commands(up), (Words{tool + lists + " -i /tmp/EMCTX?????? -r client1",
                                   tool + log_lists + " -i /tmp/EMCTX?????? -r client1"}));
    const Phase gone = release(objects);
    EXPECT_EQ(commands(gone), (Words{tool + "-g datadg -n vol1 -c client1_datadg_clone",
                                     tool + "-g datadg -n vol2 -c client1_datadg_clone",
                                     tool + "-g datadg -n vol3 -c client1_datadg_clone",
                                     tool + "-g logdg -n log1 -c client1_logdg_clone"}));
    expect_released(objects);
}

TEST_F(VolumeOnItsHost, is_cloned_by_one_command_within_one_process_needs_root) {
    make({vol1, vol2});
    Words steps = for_each({vol1, vol2}, {"freeze", "-", "SOURCE", "COPY"});
    for (const Words &more :
         {Words{"ctl", "4", "commit"}, for_each({vol1, vol2}, {"volumes"}),
          for_each({vol1, vol2}, {"thaw"}), for_each({vol1, vol2}, {"thaw_commit"})}) {
        steps.insert(steps.end(), more.begin(), more.end());
    }
    const Phase all = phase(steps);
    expect_all_succeed(all);
    const std::string tool = "/usr/quill/tessera/bin/tqdgclone ";
    EXPECT_EQ(commands(all.at("volumes", 0)),
              Words{tool + "-g datadg -n vol2,vol1 -d /dev/qz/rdmp/p1,/dev/sdr:/dev/qz/rdmp/p0,"
                           "/dev/sdq -p DEFAULT"});
    EXPECT_EQ(commands(all.at("volumes", 1)), Words());
    EXPECT_EQ(commands(all.at("thaw", 1)), Words{tool + "-g datadg -n vol2 -c datadg_clone"});
}

// The text of a copy that is up tells the later process what to end; it needs no clone block.
TEST_F(VolumeOnItsHost, copied_by_the_process_that_froze_it_is_released_by_another_needs_root) {
    make({vol1, vol2});
    const Objects objects = {vol1, vol2};
    Words steps = for_each(objects, {"freeze", "-", "SOURCE", "COPY"});
    steps.insert(steps.end(), {"ctl", "4"});
    for (const Words &more : {for_each(objects, {"commit"}), for_each(objects, {"volumes"}),
                              for_each(objects, {"ckpt", "TEXT.up"})}) {
        steps.insert(steps.end(), more.begin(), more.end());
    }
    expect_all_succeed(phase(steps));
    for (const Object &object : objects) expect_unchanged(object, object.copy());
    EXPECT_EQ(host("cat /exchange/?.up | grep -E 'CLONE_INFO|clone_group'"),
              "HDEF-clone_group=datadg_clone\nHDEF-clone_group=datadg_clone\n");
    release(objects);
    expect_released(objects);
}

TEST_F(VolumeOnItsHost, has_the_given_text_to_the_byte_needs_root) {
    make({vol3});
    freeze({vol3}, "keep_fi=1,plexname=data");
    const auto disk = [](const std::string &number) {
        return "PMINFO-symid=000184500123\nPMINFO-dev_sym_devname=00A" + number +
               "\nPMINFO-dev_raw_device=/dev/qz/rdmp/p" + (number == "2" ? "1" : "2") +
               "\nPMINFO-p_dev_raw_device=/dev/qz/rdmp/p" + (number == "2" ? "1" : "2") +
               "\nPMINFO-bcv_raw_device=/dev/sd" + (number == "2" ? "r" : "s") +
               "\nPMINFO-bcvdev_sym_devname=01A" + number +
               "\nPMINFO-issplit=" + (number == "2" ? "0" : "1") +
               "\nPMINFO-sync_at_end=1\nPMINFO-lock_set=1\nPRIM_MIR_INFO=NEXT\n";
    };
    EXPECT_EQ(std::regex_replace(saved("0"), std::regex("EMCTX[A-Za-z0-9]{6}"), "EMCTX??????"),
              "HDEF-sync_at_start=0\nHDEF-async_resync=0\nHDEF-is_vol=1\nHDEF-is_mount=0\n"
              "HDEF-object_type=3\nHDEF-mount_point=/copy/vol3\nHDEF-vol_group=datadg\n"
              "HDEF-vol_name=vol3\nHDEF-clone_group=\nHDEF-primary_host=client1\n"
              "HDEF-fstype=ext4\nHDEF-keep_fi=0\nHDEF-dgimport=0\nHDEF-fs_path=/data/vol3\n"
              "HDEF-dev_raw_device=/dev/qz/rdsk/datadg/vol3\n"
              "HDEF-dev_block_device=/dev/qz/dsk/datadg/vol3\n"
              "HDEF-CLONE_INFO_FILE=START\nTRANSFER_FILE=/tmp/EMCTX??????\n"
              "HDEF-CLONE_INFO_FILE=END\nPRIM_MIR_INFO=START\n" +
                  disk("2") + disk("3") + "PRIM_MIR_INFO=END\n");
}

TEST_F(VolumeOnItsHost, has_the_clone_block_in_its_groups_first_text_alone_needs_root) {
    const Objects objects = {vol1, vol2};
    make(objects);
    freeze(objects);
    carry_clone_information(objects);
    const std::string first = saved("0"), second = saved("1");
    const size_t start = first.find("HDEF-CLONE_INFO_FILE=START\nTRANSFER_FILE=/tmp/EMCTX"),
                 end = first.find("HDEF-CLONE_INFO_FILE=END\nPRIM_MIR_INFO=START\n");
    ASSERT_NE(start, std::string::npos) << first;
    ASSERT_NE(end, std::string::npos) << first;
    EXPECT_NE(first.find("\ntessera-clone-information 1\ngroup datadg ", start), std::string::npos);
    EXPECT_EQ(second.find("CLONE_INFO"), std::string::npos);
    EXPECT_EQ(second.find("TRANSFER_FILE"), std::string::npos);
}

// The clone information travels with the object whose checkpoint was taken first. Another object of
// the group that comes first has nothing to give to the tool.
TEST_F(VolumeOnItsHost, without_the_information_cannot_come_up_first_needs_root) {
    const Objects objects = {vol1, vol2};
    make(objects);
    freeze(objects);
    carry_clone_information(objects);
    const Phase wrong = phase({"object",
                               "0",
                               "rebuild",
                               "/exchange/0",
                               "object",
                               "1",
                               "rebuild",
                               "/exchange/1",
                               "volumes",
                               "object",
                               "0",
                               "volumes",
                               "object",
                               "1",
                               "volumes",
                               "run",
                               check_step(vol2, "/copy/vol2"),
                               "object",
                               "0",
                               "rollback",
                               "object",
                               "1",
                               "rollback"});
    EXPECT_NE(wrong.at("volumes", 0).status, 0);
    EXPECT_TRUE(wrong.at("volumes", 0).logged_part("it is empty"));
    expect_success(wrong.at("volumes", 1));
    expect_success(wrong.at("volumes", 2));
    for (size_t i = 0; i < 2; ++i) {
        expect_success(wrong.at("thaw", i));
        expect_success(wrong.at("thaw_commit", i));
    }
    expect_released(objects);
}

TEST_F(VolumeOnItsHost, is_cleaned_up_alone_while_its_siblings_are_mounted_needs_root) {
    const Objects objects = {vol1, vol2, vol3};
    make(objects);
    freeze(objects);
    carry_clone_information(objects);
    bring_up(objects);
    const Phase one = phase({"rebuild", "/exchange/1.up", "thaw"});
    expect_all_succeed(one);
    EXPECT_EQ(commands(one.at("thaw")), Words{"/usr/quill/tessera/bin/tqdgclone -g datadg -n vol2"
                                              " -c client1_datadg_clone"});
    EXPECT_EQ(host("ls /dev/qz/dsk/client1_datadg_clone"), "vol1\nvol3\n");
    EXPECT_EQ(host("qzvol -g client1_datadg_clone list | cut -d' ' -f1 | grep vol | sort"),
              "vol1\nvol3\n");
    for (const Object &object : {vol1, vol3}) expect_unchanged(object, object.copy());
    EXPECT_EQ(host("grep -c ' /copy/' /proc/self/mounts"), "2\n");
    // What is gone already is no trouble for the release of all three.
    release(objects);
    expect_released(objects);
}

TEST_F(VolumeOnItsHost, that_is_read_by_somebody_keeps_its_copy_and_is_thawed_later_needs_root) {
    make({vol1});
    freeze({vol1});
    carry_clone_information({vol1});
    bring_up({vol1});
    const Phase busy = phase({"rebuild", "/exchange/0.up", "run",
                              "exec 9</copy/vol1/file1; sleep 60 <&9 >/dev/null 2>&1 & echo $! "
                              ">/exchange/pid; exec 9<&-",
                              "thaw"});
    EXPECT_EQ(busy.at("thaw").status, 11);
    EXPECT_EQ(commands(busy.at("thaw")), Words());
    expect_unchanged(vol1, "/copy/vol1");
    host(
        "kill $(cat /exchange/pid); while kill -0 $(cat /exchange/pid) 2>/dev/null; do :; done;"
        " rm -f /tmp/*");
    release({vol1});
    expect_released({vol1});
}

// A mirror in use is not joined to its primary again, whoever asks.
TEST_F(VolumeOnItsHost, whose_copy_is_up_is_not_resynchronised_needs_root) {
    make({vol1});
    freeze({vol1});
    carry_clone_information({vol1});
    bring_up({vol1});
    int status = 0;
    host("tfarray establish 000184500123 00A1 01A1", &status);
    EXPECT_NE(status, 0);
    EXPECT_EQ(pair_state(), 5);
    expect_unchanged(vol1, "/copy/vol1");
    release({vol1});
    expect_released({vol1});
}

TEST_F(VolumeOnItsHost, itself_is_handed_out_when_it_was_the_source_needs_root) {
    make({vol1});
    const Phase all = phase({"freeze", "-", "/dev/qz/dsk/datadg/vol1", "/copy/vol1", "ctl", "4",
                             "commit", "run", "echo x >/data/vol1/later && sync", "volumes", "run",
                             "mount -r /dev/qz/dsk/datadg_clone/vol1 /copy/vol1 && " +
                                 check_step(vol1, "/copy/vol1") + " && cd / && umount /copy/vol1",
                             "thaw", "thaw_commit"});
    expect_all_succeed(all);
    EXPECT_EQ(all.at("volumes").volpath, "/dev/qz/dsk/datadg_clone/vol1");
    EXPECT_EQ(all.at("volumes").nvols, 1);
    expect_released({vol1});
}

TEST_F(VolumeOnItsHost, that_no_group_has_is_not_frozen_needs_root) {
    make({vol1});
    host("mknod /dev/qz/dsk/datadg/other b $(stat -c '0x%t 0x%T' /dev/qz/dmp/p3)");
    const Phase none = phase({"freeze", "-", "/dev/qz/dsk/datadg/other", "/copy", "rollback"});
    expect_failure(none.at("freeze"), 3,
                   "vol_to_device: Cannot discover devices associated with volume");
    EXPECT_FALSE(none.at("freeze").handle);
    EXPECT_EQ(counter_files() + host("ls -A /tmp"), "");
}

TEST_F(VolumeOnItsHost, whose_clone_name_is_taken_is_not_cloned_needs_root) {
    const Object first = {"datadg_production_1", "vol1", "ext4", "p0"},
                 second = {"datadg_production_2", "vol2", "ext4", "p1"};
    make({first, second});
    freeze({first, second});
    carry_clone_information({first, second});
    const Phase up = phase({"object",      "0",           "rebuild",
                            "/exchange/0", "object",      "1",
                            "rebuild",     "/exchange/1", "object",
                            "0",           "volumes",     "object",
                            "1",           "volumes",     "object",
                            "0",           "run",         check_step(first, "/copy/vol1"),
                            "rollback",    "object",      "1",
                            "rollback"});
    expect_success(up.at("volumes", 0));
    EXPECT_NE(up.at("volumes", 1).status, 0);
    EXPECT_TRUE(up.at("volumes", 1).logged_part("client1_datadg_production_clone"));
    for (size_t i = 0; i < 2; ++i) {
        expect_success(up.at("thaw", i));
        expect_success(up.at("thaw_commit", i));
    }
    expect_released({first, second});
}

// The copy's file system is damaged on the mirror. It is not mounted, and a thaw ends the copy.
TEST_F(VolumeOnItsHost, whose_copy_does_not_pass_its_check_is_not_mounted_needs_root) {
    make({vol1});
    freeze({vol1});
    carry_clone_information({vol1});
    host("dd if=/dev/urandom of=/dev/sdq bs=1M seek=1 count=8 conv=fsync status=none");
    const Phase bad = phase({"rebuild", "/exchange/0", "volumes", "rollback"});
    const Call &up = bad.at("volumes");
    EXPECT_EQ(up.status, 11);
    EXPECT_EQ(up.number, 3);
    EXPECT_EQ(up.errmsg.find("TimeFinder_volumes: Q_fsck(/dev/qz/rdsk/client1_datadg_clone/vol1,"
                             " ext4) failed with status=1, exit_status="),
              0U)
        << up.errmsg;
    EXPECT_EQ(up.volpath, "/dev/qz/rdsk/client1_datadg_clone/vol1");
    expect_success(bad.at("thaw"));
    expect_success(bad.at("thaw_commit"));
    expect_unchanged(vol1, "/data/vol1");
    expect_released({vol1});
}

TEST_F(VolumeOnItsHost, is_not_frozen_without_the_clone_tool_needs_root) {
    make({vol1});
    host("mv /usr/quill/tessera/bin/tqdgclone /exchange/");
    const Phase none = phase({"freeze", "-", "/data/vol1", "/copy/vol1"});
    expect_failure(none.at("freeze"), 3,
                   "vol_to_device: Cannot discover devices associated with volume");
    EXPECT_EQ(counter_files() + host("ls -A /tmp"), "");
    host("mv /exchange/tqdgclone /usr/quill/tessera/bin/");
    freeze({vol1});
}

}  // namespace
}  // namespace test
