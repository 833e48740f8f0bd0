// Volumes of a disk group: copied on their own host, copied and imported on a backup host,
// restored.
#include "conformance/contract.h"

namespace conformance {
namespace {

const std::string tool = "/usr/quill/tessera/bin/tqdgclone ";
constexpr char with_import[] = "alternate_backup_client=backup1";

// Volumes vol1 and vol2 of the group datadg, each on a disk of its own, with an ext4 file system on
// /data/NAME. backup1 sees the mirrors alone.
class DiskGroups : public Contract {
  protected:
    DiskGroups() : Contract("volumes", {"client1", "backup1"}) {}
    void furnish() override;
    void TearDown() override {
        host("rm -f /usr/quill/tessera/tq.conf");
        Contract::TearDown();
    }

    static std::string data(int number) { return "/data/vol" + std::to_string(number + 1); }
    static std::string copy(int number) { return "/copy/vol" + std::to_string(number + 1); }
    // The same step for one object, or for both.
    static Words frozen(int number, const std::string &config) {
        return object(number) + freeze(config, data(number), copy(number));
    }
    static Words freeze_both(const std::string &config = "-") {
        return frozen(0, config) + frozen(1, config) + object(0);
    }
    static Words each(Words (*step)()) { return object(0) + step() + object(1) + step(); }
    static Words ckpt_both() { return object(0) + ckpt("0") + object(1) + ckpt("1"); }
    static Words rebuild_both() { return object(0) + rebuild("0") + object(1) + rebuild("1"); }
    void ask_for_import() { host("echo dgimport=1 >/usr/quill/tessera/tq.conf"); }
    // What a framework does to texts between the hosts: the transfer file's lines go into the clone
    // block, and HDEF-is_tgt=1 in front. The texts as they were are kept as 0.here and 1.here.
    void carry();
    void put_back() { host("cd /exchange && for n in 0 1; do cp $n.here $n; done"); }
    // Both were split: release them on the primary host.
    void release_here() {
        world().on("client1");
        put_back();
        array("clock advance 60");
        all_succeed(run(rebuild_both() + each(thaw) + each(thaw_commit)));
    }
    void frozen_with_import() {
        ask_for_import();
        all_succeed(run(freeze_both(with_import) + each(commit) + ckpt_both()));
        host("rm /usr/quill/tessera/tq.conf");
    }
};

void DiskGroups::furnish() {
    host(
        "set -e; qzdg init datadg p0 p1\n"
        "qzvol -g datadg make vol1 64M --fstype ext4 --disk p0\n"
        "qzvol -g datadg make vol2 64M --fstype ext4 --disk p1\n"
        "qzvol -g datadg startall\n"
        "for v in vol1 vol2; do mkfs.ext4 -q /dev/qz/dsk/datadg/$v; mkdir -p /data/$v /copy/$v\n"
        "mount /dev/qz/dsk/datadg/$v /data/$v; echo before >/data/$v/file; done; sync");
    for (const char *number : {"1", "2", "3", "4"})
        array(std::string("establish --full 000184500123 00A") + number + " 01A" + number);
    array("clock advance 60");
    world().on("backup1");
    host("mkdir -p /copy/vol1 /copy/vol2");
    world().on("client1");
}

void DiskGroups::carry() {
    host(
        "cd /exchange && for n in 0 1; do file=$(sed -n 's/^TRANSFER_FILE=//p' $n)\n"
        "[ -z \"$file\" ] || sed -i \"/^TRANSFER_FILE=/r $file\" $n\n"
        "cp $n $n.here; sed -i '1i HDEF-is_tgt=1' $n; done");
}

TEST_F(DiskGroups, give_a_volume_its_group_its_name_and_its_disks) {
    contract(
        "freeze: a block device below /dev/qz/dsk/ is a volume; the clone tool names its disks");
    const Phase seen = run(frozen(0, "-") + record() + release());
    all_succeed(seen);
    const Call &record = seen.at("whole_record");
    field_is(record, "is_vol", "1");
    field_is(record, "vol_group", "datadg");
    field_is(record, "vol_name", "vol1");
    field_is(record, "pm.dev_raw_device", "/dev/qz/rdmp/p0");
    field_is(record, "devices", "1");
    ran(seen.at("freeze"), {tool + "-g datadg -n vol1 -f /tmp/EMCTF?????? -p DEFAULT"});
}

TEST_F(DiskGroups, hand_the_plex_name_to_the_clone_tool) {
    contract("freeze: \"plexname\" is the -p argument of the clone tool");
    const Phase seen = run(frozen(0, "plexname=data-01") + release());
    ran(seen.at("freeze"), {tool + "-g datadg -n vol1 -f /tmp/EMCTF?????? -p data-01"});
}

TEST_F(DiskGroups, of_a_volume_without_a_name_cannot_be_told) {
    contract("freeze: disk group or volume missing: \"Cannot determine if device %s is a volume\"");
    host("mknod /dev/qz/dsk/lonely b 7 99");
    const Phase seen = run(freeze("-", "/dev/qz/dsk/lonely"));
    host("rm /dev/qz/dsk/lonely");
    fails(seen.at("freeze"), 3,
          "TimeFinder_freeze: Cannot determine if device /dev/qz/dsk/lonely is a volume");
    handle_is(seen.at("freeze"), false);
}

TEST_F(DiskGroups, whose_clone_tool_fails_end_the_freeze_with_3) {
    contract("freeze: any failure of vol_to_device is followed by QfMEtf1340N, number 3");
    host(
        "mv /usr/quill/tessera/bin/tqdgclone /exchange/tool && printf '#!/bin/sh\\nexit 4\\n' "
        ">/usr/quill/tessera/bin/tqdgclone && chmod 755 /usr/quill/tessera/bin/tqdgclone");
    const Phase seen = run(frozen(0, "-"));
    host("cp /exchange/tool /usr/quill/tessera/bin/tqdgclone");
    fails(seen.at("freeze"), 3, "vol_to_device: Cannot discover devices associated with volume");
    handle_is(seen.at("freeze"), false);
}

TEST_F(DiskGroups, whose_clone_tool_names_no_device_end_the_freeze_with_3) {
    contract("freeze: an empty answer is QfMCmn0250N with the volume, then QfMEtf1340N");
    host(
        "mv /usr/quill/tessera/bin/tqdgclone /exchange/tool && printf '#!/bin/sh\\n: >$6\\n' "
        ">/usr/quill/tessera/bin/tqdgclone && chmod 755 /usr/quill/tessera/bin/tqdgclone");
    const Phase seen = run(frozen(0, "-"));
    host("cp /exchange/tool /usr/quill/tessera/bin/tqdgclone");
    fails(seen.at("freeze"), 3, "vol_to_device: Cannot discover devices associated with volume");
    logs(seen.at("freeze"), "vol_to_device: No devices associated with volume vol1");
}

TEST_F(DiskGroups, are_described_by_the_clone_tool_once_at_the_checkpoint) {
    contract("checkpoint: the clone runs once per disk group, for all its volumes, newest first");
    const Phase seen = run(freeze_both() + each(commit) + ckpt_both() + each(release));
    all_succeed(seen);
    ran(seen.at("ckpt", 0), {tool + "-g datadg -n vol2,vol1 -d /dev/qz/rdmp/p1,/dev/sdr:"
                                    "/dev/qz/rdmp/p0,/dev/sdq -i /tmp/EMCTX?????? -p DEFAULT"});
    ran(seen.at("ckpt", 1), {});
}

TEST_F(DiskGroups, have_one_clone_block_in_the_first_objects_text) {
    contract("checkpoint: lines 17 to 19 stand in the text whose clone step ran");
    all_succeed(run(freeze_both() + each(commit) + ckpt_both() + each(release)));
    const std::string first = fixed_names({file("0")}).front(), second = file("1");
    const std::string block =
        "HDEF-dev_block_device=/dev/qz/dsk/datadg/vol1\nHDEF-CLONE_INFO_FILE=START\n"
        "TRANSFER_FILE=/tmp/EMCTX??????\nHDEF-CLONE_INFO_FILE=END\nPRIM_MIR_INFO=START\n"
        "PMINFO-symid=";
    is("block in the first text", 1, first.find(block) < first.size());
    is("block in the second text", 0, second.find("CLONE_INFO") < second.size());
}

TEST_F(DiskGroups, are_copied_within_one_process_by_one_command) {
    contract("volumes: the clone group is brought up once; the count is 1 for each");
    const Phase seen = run(freeze_both() + each(commit) + each(volumes) +
                           shell("cat /copy/vol1/file /copy/vol2/file >/exchange/read") +
                           each(thaw) + each(thaw_commit));
    all_succeed(seen);
    is("path", "/dev/qz/rdsk/datadg_clone/vol1", seen.at("volumes", 0).volpath);
    is("count", 1, seen.at("volumes", 0).nvols);
    is("count", 1, seen.at("volumes", 1).nvols);
    ran(seen.at("volumes", 0), {tool + "-g datadg -n vol2,vol1 -d /dev/qz/rdmp/p1,/dev/sdr:"
                                       "/dev/qz/rdmp/p0,/dev/sdq -p DEFAULT"});
    ran(seen.at("volumes", 1), {});
    is("files of the copies", "before\nbefore\n", file("read"));
}

TEST_F(DiskGroups, are_cleaned_up_volume_by_volume) {
    contract("thaw without import: the clone tool's clean-up mode, for each volume");
    const Phase seen =
        run(freeze_both() + each(commit) + each(volumes) + each(thaw) + each(thaw_commit));
    ran(seen.at("thaw", 0), {tool + "-g datadg -n vol1 -c datadg_clone"});
    ran(seen.at("thaw", 1), {tool + "-g datadg -n vol2 -c datadg_clone"});
}

TEST_F(DiskGroups, that_were_never_shown_are_thawed_without_a_command) {
    contract("thaw: an empty clone group: no command runs");
    const Phase seen = run(freeze_both() + each(commit) + each(thaw) + each(thaw_commit));
    all_succeed(seen);
    ran(seen.at("thaw", 0), {});
}

TEST_F(DiskGroups, are_named_after_their_host_when_another_process_shows_them) {
    contract("volumes of a rebuilt record: the clone group is HOST_GROUP_clone");
    all_succeed(run(freeze_both() + each(commit) + ckpt_both()));
    carry();
    put_back();
    const Phase seen = run(rebuild_both() + each(volumes) + each(thaw) + each(thaw_commit));
    all_succeed(seen);
    is("path", "/dev/qz/rdsk/client1_datadg_clone/vol1", seen.at("volumes", 0).volpath);
    ran(seen.at("volumes", 0),
        {tool + "-g datadg -n vol2,vol1 -d /dev/qz/rdmp/p1,/dev/sdr:/dev/qz/rdmp/p0,/dev/sdq "
                "-i /tmp/EMCTX?????? -r client1"});
}

TEST_F(DiskGroups, are_copied_on_the_backup_host_by_the_clone_tool) {
    contract("volumes on another host: the clone tool with the carried clone information");
    all_succeed(run(freeze_both() + each(commit) + ckpt_both()));
    carry();
    world().on("backup1");
    const Phase seen =
        run(rebuild_both() + each(volumes) +
            shell("cat /copy/vol1/file /copy/vol2/file >/exchange/read") + each(thaw));
    all_succeed(seen);
    is("files of the copies", "before\nbefore\n", file("read"));
    ran(seen.at("volumes", 0),
        {tool + "-g datadg -n vol2,vol1 -d /dev/qz/rdmp/p1,/dev/rdsk/c2t0d2:"
                "/dev/qz/rdmp/p0,/dev/rdsk/c2t0d1 -i /tmp/EMCTX?????? -r client1"});
    release_here();
}

TEST_F(DiskGroups, to_be_imported_belong_to_the_object_that_lists_them_first) {
    contract("freeze with import: a second volume of a listed group has no devices of its own");
    ask_for_import();
    const Phase seen = run(frozen(0, with_import) + record() + frozen(1, with_import) + record() +
                           each(thaw) + each(thaw_commit));
    all_succeed(seen);
    ran(seen.at("freeze", 0), {tool + "-g datadg -f /tmp/EMCTF?????? -p DEFAULT"});
    ran(seen.at("freeze", 1), {});
    field_is(seen.at("whole_record", 0), "devices", "2");
    field_is(seen.at("whole_record", 1), "devices", "0");
}

TEST_F(DiskGroups, to_be_imported_are_split_by_the_commit_of_the_object_with_the_devices) {
    contract("freeze commit: no devices and import: 0, and the process has not committed yet");
    ask_for_import();
    const Phase seen = run(freeze_both(with_import) + object(1) + commit() + object(0) + commit() +
                           each(thaw) + each(thaw_commit));
    all_succeed(seen);
    log_is(seen.at("commit", 0), {});
    logs(seen.at("commit", 1), "Total BCVs to split : 2");
}

TEST_F(DiskGroups, are_imported_on_the_backup_host_once) {
    contract("volumes with import: import under the clone name, then startall; once per group");
    frozen_with_import();
    carry();
    world().on("backup1");
    const Phase seen =
        run(rebuild_both() + each(volumes) +
            shell("cat /copy/vol1/file /copy/vol2/file >/exchange/read") + each(thaw));
    all_succeed(seen);
    is("files of the copies", "before\nbefore\n", file("read"));
    ran(seen.at("volumes", 0), {"/usr/sbin/qzdg -C -n client1_datadg_clone import datadg",
                                "/usr/sbin/qzvol -g client1_datadg_clone startall"});
    ran(seen.at("volumes", 1), {});
    release_here();
}

TEST_F(DiskGroups, are_deported_by_the_last_thaw_alone) {
    contract("thaw with import: only the thaw that reaches the object count lists and deports");
    frozen_with_import();
    carry();
    world().on("backup1");
    const Phase seen = run(rebuild_both() + each(volumes) + each(thaw));
    all_succeed(seen);
    ran(seen.at("thaw", 0), {});
    ran(seen.at("thaw", 1), {"/usr/sbin/qzdg list client1_datadg_clone",
                             "/usr/sbin/qzdg -n datadg deport client1_datadg_clone"});
    release_here();
}

TEST_F(DiskGroups, are_imported_after_the_daemon_was_enabled) {
    contract("volumes: a failed import, the daemon enabled, the import once more");
    frozen_with_import();
    carry();
    world().on("backup1");
    host("qzdctl disable");
    const Phase seen = run(rebuild_both() + each(volumes) + each(thaw));
    all_succeed(seen);
    ran(seen.at("volumes", 0),
        {"/usr/sbin/qzdg -C -n client1_datadg_clone import datadg", "/usr/sbin/qzdctl enable",
         "/usr/sbin/qzdg -C -n client1_datadg_clone import datadg",
         "/usr/sbin/qzvol -g client1_datadg_clone startall"});
    release_here();
}

TEST_F(DiskGroups, make_their_disks_known_on_the_backup_host) {
    contract("rebuild with import there: list, define where that fails, online, for each disk");
    frozen_with_import();
    carry();
    world().on("backup1");
    const Phase seen = run(rebuild_both() + each(thaw));
    all_succeed(seen);
    const Words lines = commands(seen.at("rebuild", 0));
    is("first", "/usr/sbin/qzdisk list c2t0d1", lines.empty() ? "" : lines.front());
    is("last", "/usr/sbin/qzdisk online c2t0d2", lines.empty() ? "" : lines.back());
    release_here();
}

TEST_F(DiskGroups, are_not_imported_where_a_primary_disk_is_seen) {
    contract("rebuild with import there: a visible primary: number 7, 11, with path and name");
    frozen_with_import();
    carry();
    array("mask 000184500123 00A1 backup1 /dev/rdsk/c3t0d1");
    world().on("backup1");
    const Phase seen = run(rebuild("0"));
    host("rm -f /tmp/EMCTX* /tmp/QfMS*");
    fails(seen.at("rebuild"), 7,
          "TimeFinder_rebuild: Primary disk /dev/qz/rdmp/p0 <00A1> is visible on alternate backup "
          "client. disk group import method can not be used.");
    world().on("client1");
    array("unmask 000184500123 00A1 backup1");
    release_here();
}

TEST_F(DiskGroups, frozen_with_import_are_restored_from_their_mirrors) {
    contract("thaw commit with restore: deport, restore, import, start, check, mount");
    frozen_with_import();
    carry();
    put_back();
    host(
        "echo after >/data/vol1/file; echo after >/data/vol2/file; sync; umount /data/vol2; cd "
        "/exchange; for n in 0 1; do printf 'HDEF-restore=1\\nHDEF-is_mount=0\\nHDEF-mount_point=/"
        "data/vol'$((n + 1))'\\n' >>$n; done");
    const Phase seen = run(rebuild_both() + each(thaw) + each(thaw_commit));
    all_succeed(seen);
    ran(seen.at("thaw_commit", 0), {});
    ran(seen.at("thaw_commit", 1),
        {"/usr/sbin/qzdg deport datadg", "/usr/sbin/qzdg -C import datadg",
         "/usr/sbin/qzvol -g datadg startall"});
    logs(seen.at("thaw_commit", 1), "Restoring from mirror");
    host("mount /dev/qz/dsk/datadg/vol1 /data/vol1");
    is("files", "before\nbefore\n", host("cat /data/vol1/file /data/vol2/file"));
    host(
        "umount /data/vol1 /data/vol2; mount /dev/qz/dsk/datadg/vol1 /data/vol1; mount "
        "/dev/qz/dsk/datadg/vol2 /data/vol2");
    array("establish 000184500123 00A1 01A1 00A2 01A2");
}

TEST_F(DiskGroups, that_no_object_listed_cannot_be_thawed_or_shown) {
    contract("thaw and volumes: \"%s: %s: disk group not listed\", number 11");
    write_file("text",
               "HDEF-is_vol=1\nHDEF-object_type=3\nHDEF-vol_group=nodg\nHDEF-dgimport=1\n"
               "garbage\n");
    const Phase seen = run(rebuild() + volumes() + thaw());
    fails(seen.at("volumes"), 11, "TimeFinder_volumes: nodg: disk group not listed");
    fails(seen.at("thaw"), 11, "TimeFinder_thaw: nodg: disk group not listed");
    host("rm -f /tmp/EMCTX* /tmp/QfMS*");
}

TEST_F(DiskGroups, with_long_names_have_a_clone_group_cut_after_25_characters) {
    contract("clone group: cut after its 25th character, then _clone appended");
    write_file("text",
               "HDEF-is_vol=1\nHDEF-object_type=2\nHDEF-primary_host=backuphost01\n"
               "HDEF-vol_group=datadg_production_2024\nHDEF-vol_name=vol\n"
               "HDEF-dgimport=1\n");
    const Phase seen = run(rebuild() + volumes() + thaw());
    const Words lines = commands(seen.at("volumes"));
    is("first command",
       "/usr/sbin/qzdg -C -n backuphost01_datadg_produ_clone import datadg_production_2024",
       lines.empty() ? "" : lines.front());
    host("rm -f /tmp/EMCTX* /tmp/QfMS*");
}

}  // namespace
}  // namespace conformance
