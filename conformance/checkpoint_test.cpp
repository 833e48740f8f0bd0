// The checkpoint text, byte by byte, and what it survives.
#include "conformance/contract.h"

namespace conformance {
namespace {

class Checkpoint : public Contract {
  protected:
    void furnish() override {
        Contract::furnish();
        host("chown 11:12 /dev/qz/rdmp/p0 && chown 13:14 /dev/qz/dmp/p0");
    }
    static std::string text(const std::string &is_mount, const std::string &kind,
                            const std::string &type, const std::string &source) {
        return "HDEF-sync_at_start=0\nHDEF-async_resync=0\nHDEF-is_vol=0\nHDEF-is_mount=" +
               is_mount + "\nHDEF-object_type=" + kind +
               "\nHDEF-mount_point=/copy\nHDEF-vol_group=__NOT_VOL__GRP__\nHDEF-vol_name=\n"
               "HDEF-clone_group=\nHDEF-primary_host=client1\nHDEF-fstype=" +
               type + "\nHDEF-keep_fi=0\nHDEF-dgimport=0\nHDEF-fs_path=" + source +
               "\nHDEF-dev_raw_device=/dev/qz/rdmp/p0\nHDEF-dev_block_device=/dev/qz/dmp/p0\n"
               "PRIM_MIR_INFO=START\nPMINFO-dev_raw_uid=11\nPMINFO-dev_raw_gid=12\n"
               "PMINFO-dev_blk_uid=13\nPMINFO-dev_blk_gid=14\nPMINFO-symid=000184500123\n"
               "PMINFO-dev_sym_devname=00A1\nPMINFO-dev_raw_device=/dev/qz/rdmp/p0\n"
               "PMINFO-p_dev_raw_device=/dev/qz/rdmp/p0\nPMINFO-bcv_raw_device=/dev/sdq\n"
               "PMINFO-bcvdev_sym_devname=01A1\nPMINFO-issplit=0\nPMINFO-sync_at_end=1\n"
               "PMINFO-lock_set=1\nPRIM_MIR_INFO=NEXT\nPRIM_MIR_INFO=END\n";
    }
};

TEST_F(Checkpoint, of_a_file_system_is_this_text_to_the_byte) {
    contract("checkpoint: the keys, their order and the marker lines");
    all_succeed(run(freeze() + commit() + ckpt() + release()));
    is("text", text("0", "3", "ext4", "/data"), file("text"));
}

TEST_F(Checkpoint, of_a_block_device_is_this_text_to_the_byte) {
    contract("checkpoint: an object without a file system has an empty type");
    all_succeed(run(freeze("-", "/dev/qz/dmp/p0") + commit() + ckpt() + release()));
    is("text", text("0", "2", "", "/dev/qz/dmp/p0"), file("text"));
}

TEST_F(Checkpoint, of_a_mounted_copy_tells_that_it_is_mounted) {
    contract("volumes sets is_mount; a checkpoint writes the record as it is");
    all_succeed(run(freeze() + commit() + volumes() + ckpt() + release()));
    is("text", text("1", "3", "ext4", "/data"), file("text"));
}

TEST_F(Checkpoint, is_the_same_text_in_every_process_that_takes_it) {
    contract("checkpoint: nothing in the text belongs to one process");
    run(freeze() + commit() + ckpt("one") + release() +
        shell("tfarray clock advance 60 >/dev/null"));
    run(freeze() + commit() + ckpt("two") + release());
    is("second text", file("one"), file("two"));
}

TEST_F(Checkpoint, of_a_rebuilt_record_is_the_text_that_it_was_rebuilt_from) {
    contract("what is written and what is read back agree");
    run(freeze() + commit() + ckpt());
    all_succeed(run(rebuild() + ckpt("again") + release()));
    is("second text", file("text"), file("again"));
}

TEST_F(Checkpoint, does_not_carry_max_snapshots_and_backup_copy) {
    contract("max_snapshots and backup_copy are not checkpointed");
    all_succeed(run(freeze("max_snapshots=5,backup_copy=6") + commit() + ckpt() + release()));
    is("text", text("0", "3", "ext4", "/data"), file("text"));
}

TEST_F(Checkpoint, carries_sync_at_start_and_async_resync) {
    contract("checkpoint: lines 1 and 2");
    all_succeed(run(freeze("sync_at_start=1,async_resync=1") + ckpt() + release()));
    has_line("text", "HDEF-sync_at_start=1");
    has_line("text", "HDEF-async_resync=1");
}

TEST_F(Checkpoint, writes_a_mount_point_of_1023_characters_whole) {
    contract("checkpoint: strings are written as they are, up to their end");
    const std::string fifs = "/" + std::string(1022, 'm');
    all_succeed(run(freeze("-", "/data", fifs) + ckpt() + release()));
    has_line("text", "HDEF-mount_point=" + fifs);
}

TEST_F(Checkpoint, keeps_an_equals_sign_in_a_value) {
    contract("key=value: a value may itself contain an equals sign");
    run(freeze("-", "/data", "/copy=HDEF-is_vol=1") + commit() + ckpt());
    const Phase seen = run(rebuild() + record() + release());
    all_succeed(seen);
    field_is(seen.at("whole_record"), "mount_point", "/copy=HDEF-is_vol=1");
    field_is(seen.at("whole_record"), "is_vol", "0");
}

TEST_F(Checkpoint, of_a_text_with_a_newline_is_refused_and_names_the_key) {
    contract("checkpoint: a record of which any text holds a newline: number 1, 11, no text");
    const Phase seen =
        run(freeze("-", "/data", "/copy\nHDEF-restore=1") + commit() + ckpt() + release());
    fails_beginning(seen.at("ckpt"), 1, "TimeFinder_ckpt: ");
    is("message names the key", 1,
       seen.at("ckpt").errmsg.find("HDEF-mount_point") < seen.at("ckpt").errmsg.size());
    is("text", "", file("text"));
    succeeds(seen.at("thaw_commit"));
}

TEST_F(Checkpoint, removes_the_files_that_commands_wrote_to) {
    contract("checkpoint: both capture files are not needed any more and are deleted");
    all_succeed(run(freeze() + shell("ls /tmp | wc -l >/exchange/before") + ckpt() +
                    shell("ls /tmp | wc -l >/exchange/after") + release()));
    is("files before", "2\n", file("before"));
    is("files after", "0\n", file("after"));
}

}  // namespace
}  // namespace conformance
