// The copy of a plain device: shown, owned, mounted, and taken away again.
#include "conformance/contract.h"

namespace conformance {
namespace {

constexpr char script[] = "/usr/quill/tessera/bin/tqdgclone_script";

class Volumes : public Contract {
  protected:
    Words frozen(const std::string &source = "/data") { return freeze("-", source) + commit(); }
    void install_script(const std::string &lines) {
        host(std::string("printf '#!/bin/sh\\n") + lines + "\\n' >" + script + " && chmod 755 " +
             script);
    }
    void remove_script() { host(std::string("rm ") + script); }
    // A step that changes a field of the object's text, for a rebuild.
    Phase rebuilt_with(const std::string &from, const std::string &to, const Words &steps) {
        run(frozen() + ckpt("frozen"));
        std::string text = file("frozen");
        write_file("text", text.replace(text.find(from), from.size(), to));
        return run(rebuild() + steps);
    }
    void release_frozen() {
        array("clock advance 60");
        all_succeed(run(rebuild("frozen") + release()));
    }
};

TEST_F(Volumes, mounts_the_copy_of_a_file_system_with_the_state_of_the_split) {
    contract("volumes: a file system is checked and mounted; is_mount is 1");
    host("echo before >/data/file && sync");
    const Phase seen = run(frozen() + shell("echo after >/data/file") + volumes() + record() +
                           shell("cat /copy/file >/exchange/read") + release());
    all_succeed(seen);
    is("file of the copy", "before\n", file("read"));
    field_is(seen.at("whole_record"), "is_mount", "1");
}

TEST_F(Volumes, of_a_file_system_gives_the_raw_path_and_the_count_0) {
    contract("volumes: the path buffer gets the raw path; the count is 1 for a volume alone");
    const Phase seen = run(frozen() + volumes() + release());
    is("path", "/dev/sdq", seen.at("volumes").volpath);
    is("count", 0, seen.at("volumes").nvols);
}

TEST_F(Volumes, of_a_block_device_gives_the_block_path_and_mounts_nothing) {
    contract("volumes: kind 2 gets the block path");
    const Phase seen = run(frozen("/dev/qz/dmp/p0") + volumes() +
                           shell("! grep -q ' /copy ' /proc/mounts") + release());
    all_succeed(seen);
    is("path", "/dev/sdq", seen.at("volumes").volpath);
}

TEST_F(Volumes, gives_the_mirror_the_owner_of_the_primary) {
    contract("volumes: the mirror's devices get the owners of the primary's");
    host("chown 21:22 /dev/qz/dmp/p0 && chown 0:0 /dev/sdq");
    all_succeed(run(frozen("/dev/qz/dmp/p0") + volumes() + release()));
    is("owner of the mirror", "21:22\n", host("stat -c %u:%g /dev/sdq"));
    host("chown 0:0 /dev/qz/dmp/p0 /dev/sdq");
}

TEST_F(Volumes, of_a_mirror_that_is_gone_cannot_give_it_an_owner) {
    contract("volumes: \"set_owner_ids: Cannot chown %s to uid=%d, gid=%d: %s\", number 3, 11");
    const Phase seen = run(frozen("/dev/qz/dmp/p0") + shell("mv /dev/sdq /dev/away") + volumes() +
                           shell("mv /dev/away /dev/sdq") + release());
    fails(seen.at("volumes"), 3,
          "set_owner_ids: Cannot chown /dev/sdq to uid=0, gid=0: No such file or directory");
}

TEST_F(Volumes, whose_mount_point_is_not_there_are_checked_and_not_mounted) {
    contract("volumes: Q_mount() failed: number 3, 11; the path buffer holds the raw path");
    const Phase seen = run(freeze("-", "/data", "/nowhere") + commit() + volumes() + release());
    fails_beginning(seen.at("volumes"), 3, "TimeFinder_volumes: Q_mount() failed with status=");
    is("path", "/dev/sdq", seen.at("volumes").volpath);
    logs(seen.at("volumes"), "mount the file system");
}

TEST_F(Volumes, that_cannot_be_checked_dump_what_the_check_said) {
    contract("volumes: the capture files are dumped as stdout and stderr");
    const Phase seen = run(freeze() + volumes() + release());
    logs(seen.at("volumes"), "--- Dumping file /tmp/QfMS?????? (stdout):");
    logs(seen.at("volumes"), "--- Dumping file /tmp/QfMS?????? (stderr):");
    logs_not(seen.at("volumes"), "mount the file system");
}

TEST_F(Volumes, of_a_record_without_devices_fail_with_7) {
    contract("volumes: no device records and no import: \"%s: No device information\", number 7");
    write_file("text", "HDEF-object_type=3\n");
    const Phase seen = run(rebuild() + volumes() + thaw());
    fails(seen.at("volumes"), 7, "TimeFinder_volumes: No device information");
    is("count", 0, seen.at("volumes").nvols);
}

TEST_F(Volumes, of_an_unknown_kind_fail_with_13_as_does_the_thaw) {
    contract("volumes and thaw: \"%s: Unknown snapshot source type: %d\", number 13, 11");
    const Phase seen = rebuilt_with("object_type=3", "object_type=9",
                                    volumes() + thaw() + shell("rm -f /tmp/EMCTX* /tmp/QfMS*"));
    fails(seen.at("volumes"), 13, "TimeFinder_volumes: Unknown snapshot source type: 9");
    fails(seen.at("thaw"), 13, "TimeFinder_thaw: Unknown snapshot source type: 9");
    release_frozen();
}

TEST_F(Volumes, hand_the_sites_script_both_paths) {
    contract("volumes: \"%s RAW %s %s\" with the script, the raw path and the block path");
    install_script("echo \"$@\" >/exchange/called");
    const Phase seen = run(frozen() + volumes() + release());
    remove_script();
    all_succeed(seen);
    is("arguments", "RAW /dev/sdq /dev/sdq\n", file("called"));
    ran(seen.at("volumes"), {std::string(script) + " RAW /dev/sdq /dev/sdq"});
}

TEST_F(Volumes, end_where_the_sites_script_fails) {
    contract("volumes: a non-zero status of the script is returned");
    install_script("exit 3");
    const Phase seen = run(frozen() + volumes() + release());
    remove_script();
    fails_beginning(seen.at("volumes"), 3, "do_cmd: Command failed with status=3: ");
    is("path", "", seen.at("volumes").volpath);
}

TEST_F(Volumes, leave_no_capture_file_and_no_transfer_file) {
    contract("volumes: both capture files are deleted; the transfer file is consumed");
    run(frozen() + ckpt());
    all_succeed(
        run(rebuild() + volumes() + shell("ls -A /tmp >/exchange/left") + record() + release()));
    is("temporary files", "", file("left"));
}

TEST_F(Volumes, are_unmounted_by_the_thaw_of_the_process_that_mounted_them) {
    contract("thaw: a file system with is_mount 1 is unmounted");
    const Phase seen = run(frozen() + volumes() + thaw() +
                           shell("! grep -q ' /copy ' /proc/mounts") + thaw_commit());
    all_succeed(seen);
}

TEST_F(Volumes, are_unmounted_by_the_thaw_of_another_process) {
    contract("thaw of a rebuilt record: what is mounted on its mount point is unmounted");
    run(frozen() + volumes() + ckpt());
    all_succeed(
        run(rebuild() + thaw() + shell("! grep -q ' /copy ' /proc/mounts") + thaw_commit()));
}

TEST_F(Volumes, that_were_unmounted_by_somebody_else_are_thawed_by_another_process) {
    contract("thaw of a rebuilt record: no unmount where nothing is mounted");
    run(frozen() + volumes() + ckpt());
    host("umount /copy");
    all_succeed(run(rebuild() + release()));
}

TEST_F(Volumes, in_use_cannot_be_thawed_and_can_be_later) {
    contract("thaw: a failed unmount returns 11 at once with no further message");
    const Phase seen = run_with(
        frozen() + volumes(),
        [&] { host("(cd /copy && exec sleep 3) >/dev/null 2>&1 & sleep 0.1"); },
        thaw() + shell("while ! umount /copy 2>/dev/null; do sleep 0.05; done") + thaw_commit());
    is("status of the thaw", 11, seen.at("thaw").status);
    is("message of the thaw", "", seen.at("thaw").errmsg);
    succeeds(seen.at("thaw_commit"));
    host("rm -f /tmp/QfMS*");
}

TEST_F(Volumes, can_be_written_to_and_the_original_knows_nothing_of_it) {
    contract("the copy is a device of its own; a resynchronisation brings the original's state");
    host("echo original >/data/own && sync");
    all_succeed(run(frozen() + volumes() + shell("echo copy >/copy/own && sync") + release()));
    array("clock advance 60");
    is("file of the original", "original\n", host("cat /data/own"));
    all_succeed(run(frozen() + volumes() + shell("cat /copy/own >/exchange/read") + release()));
    is("file of the next copy", "original\n", file("read"));
}

}  // namespace
}  // namespace conformance
