// Rebuilding from texts: as they were written, older, newer, reordered and damaged.
#include <functional>

#include "conformance/contract.h"

namespace conformance {
namespace {

class Rebuild : public Contract {
  protected:
    // The text of one frozen object, whose pair is split from then on.
    std::string frozen_text() {
        all_succeed(run(freeze() + commit() + ckpt("frozen")));
        return file("frozen");
    }
    // What a text gives: the rebuild, the record where there is one, and the release of the object.
    Phase rebuilt(const std::string &text) {
        write_file("text", text);
        return run(rebuild() + record() + Words{"rollback"});
    }
    // A rebuild that fails, and the release of what was frozen, from its own text.
    void is_refused(const std::string &text, int number, const std::string &message) {
        write_file("text", text);
        const Phase seen = run(rebuild() + Words{"rollback"});
        fails_beginning(seen.at("rebuild"), number, message);
        host("rm -f /tmp/EMCTX* /tmp/QfMS*");
    }
    void release_frozen() {
        array("clock advance 60");
        all_succeed(run(rebuild("frozen") + release()));
    }
};

std::string without(std::string text, const std::string &key) {
    const size_t begin = text.find(key + "=");
    return text.erase(begin, text.find('\n', begin) + 1 - begin);
}

std::string changed(std::string text, const std::string &from, const std::string &to) {
    return text.replace(text.find(from), from.size(), to);
}

TEST_F(Rebuild, gives_a_record_that_says_that_it_was_rebuilt) {
    contract("rebuild: is_rebuilt is 1 and every persisted field is back");
    const Phase seen = rebuilt(frozen_text());
    all_succeed(seen);
    const Call &record = seen.at("whole_record");
    field_is(record, "is_rebuilt", "1");
    field_is(record, "mount_point", "/copy");
    field_is(record, "primary_host", "client1");
    field_is(record, "pm.bcvdev_sym_devname", "01A1");
    field_is(record, "pm.sync_at_end", "1");
    field_is(record, "pm.lock_set", "1");
    field_is(record, "devices", "1");
}

TEST_F(Rebuild, derives_the_block_devices_and_the_mirrors_path_anew) {
    contract("rebuild: device paths come from this host and the array");
    const Phase seen =
        rebuilt(changed(frozen_text(), "bcv_raw_device=/dev/sdq", "bcv_raw_device=/x"));
    const Call &record = seen.at("whole_record");
    field_is(record, "pm.bcv_raw_device", "/dev/sdq");
    field_is(record, "pm.bcv_block_device", "/dev/sdq");
    field_is(record, "pm.bcv_pdevname", "/dev/sdq");
    field_is(record, "pm.dev_block_device", "/dev/qz/dmp/p0");
}

TEST_F(Rebuild, takes_the_lock_of_every_record_that_held_one) {
    contract("rebuild on the primary host takes the array lock again");
    frozen_text();
    const Phase seen =
        run(rebuild("frozen") +
            shell("ls /usr/quill/tessera/online_util/db_cntl >/exchange/locks") + release());
    all_succeed(seen);
    is("counter files", "__LOCKFILE_0001845001230000\n", file("locks"));
    is("counter files at the end", "", world().counter_files());
}

TEST_F(Rebuild, takes_no_lock_for_a_record_that_held_none) {
    contract("rebuild: the lock is taken only where lock_set is not 0");
    const std::string text = changed(frozen_text(), "lock_set=1", "lock_set=0");
    write_file("text", text);
    const Phase seen = run(rebuild() + release());
    all_succeed(seen);
    logs_not(seen.at("rebuild"), "setting lock");
    logs_not(seen.at("thaw_commit"), "clearing lock");
    release_frozen();
}

TEST_F(Rebuild, that_cannot_have_the_lock_fails_with_3) {
    contract("rebuild: \"%s: Cannot get lock on device: %s\", number 3, 11");
    frozen_text();
    const std::string counter =
        "/usr/quill/tessera/online_util/db_cntl/__LOCKFILE_0001845001230000";
    host("printf '\\1\\0\\0\\0\\1\\0\\0\\0\\1\\0\\0\\0' >" + counter);
    const Phase seen = run(rebuild("frozen"));
    fails(seen.at("rebuild"), 3, "TimeFinder_rebuild: Cannot get lock on device: /dev/qz/rdmp/p0");
    handle_is(seen.at("rebuild"), true);
    host("rm -f /tmp/EMCTX* /tmp/QfMS* " + counter);
    release_frozen();
}

TEST_F(Rebuild, creates_an_empty_transfer_file_for_its_owner_alone_and_thaw_removes_it) {
    contract("the transfer file is created by every rebuild, also without a clone block");
    frozen_text();
    const Phase seen =
        run(rebuild("frozen") + shell("stat -c '%a %s' /tmp/EMCTX* >/exchange/transfer") +
            record() + thaw() + shell("ls /tmp >/exchange/left") + thaw_commit());
    all_succeed(seen);
    is("transfer file", "600 0\n", file("transfer"));
    is("files after the thaw", "", file("left"));
}

TEST_F(Rebuild, of_an_older_text_takes_what_is_missing_for_0) {
    contract("an older text lacks keys; the fields stay 0");
    std::string text = frozen_text();
    for (const char *key : {"HDEF-keep_fi", "HDEF-dgimport", "HDEF-async_resync", "HDEF-fs_path",
                            "PMINFO-dev_raw_uid", "PMINFO-issplit"})
        text = without(text, key);
    const Phase seen = rebuilt(text);
    all_succeed(seen);
    field_is(seen.at("whole_record"), "fs_path", "");
    field_is(seen.at("whole_record"), "pm.dev_raw_uid", "0");
}

TEST_F(Rebuild, of_a_newer_text_passes_over_unknown_keys) {
    contract("an unknown key line is accepted silently");
    const std::string text = frozen_text();
    const Phase seen = rebuilt("HDEF-format=2\n" +
                               changed(text, "PMINFO-symid=", "PMINFO-colour=red\nPMINFO-symid=") +
                               "HDEF-signature=abc=def==\n");
    all_succeed(seen);
    is("messages", "", seen.at("rebuild").errmsg);
    field_is(seen.at("whole_record"), "devices", "1");
}

TEST_F(Rebuild, reads_the_objects_lines_in_any_order) {
    contract("rebuild: each line is looked up by its key");
    const std::string text = frozen_text();
    const size_t devices = text.find("PRIM_MIR_INFO=START");
    const Phase seen = rebuilt(text.substr(devices) + text.substr(0, devices));
    all_succeed(seen);
    field_is(seen.at("whole_record"), "mount_point", "/copy");
    field_is(seen.at("whole_record"), "devices", "1");
}

TEST_F(Rebuild, reads_the_lines_of_a_device_in_any_order) {
    contract("rebuild: a record's group is closed by its last line, not opened by its first");
    const std::string text = frozen_text();
    const std::string line = "PMINFO-symid=000184500123\n";
    const Phase seen = rebuilt(
        changed(changed(text, line, ""), "PRIM_MIR_INFO=NEXT", line + "PRIM_MIR_INFO=NEXT"));
    all_succeed(seen);
    field_is(seen.at("whole_record"), "pm.symid", "000184500123");
}

TEST_F(Rebuild, of_a_key_given_twice_keeps_the_last_value) {
    contract("rebuild: each line stores its value");
    const Phase seen = rebuilt(
        changed(frozen_text(), "HDEF-vol_name=\n", "HDEF-vol_name=one\nHDEF-vol_name=two\n"));
    all_succeed(seen);
    field_is(seen.at("whole_record"), "vol_name", "two");
}

TEST_F(Rebuild, cuts_a_value_to_the_size_of_its_field) {
    contract("a string value longer than its field is truncated");
    const Phase seen = rebuilt(
        changed(frozen_text(), "HDEF-vol_name=", "HDEF-vol_name=" + std::string(4096, 'v')));
    all_succeed(seen);
    field_is(seen.at("whole_record"), "vol_name", std::string(1023, 'v'));
}

TEST_F(Rebuild, reads_a_number_up_to_its_first_character_that_is_none) {
    contract("an integer value 12abc stores 12; one without digits stores 0");
    const std::string text = frozen_text();
    const Phase seen = rebuilt(changed(changed(text, "HDEF-keep_fi=0", "HDEF-keep_fi=12abc"),
                                       "HDEF-async_resync=0", "HDEF-async_resync=abc"));
    all_succeed(seen);
    field_is(seen.at("whole_record"), "keep_fi", "12");
    field_is(seen.at("whole_record"), "async_resync", "0");
}

TEST_F(Rebuild, passes_over_a_last_line_without_a_newline) {
    contract("a final piece without a newline is ignored");
    const Phase seen = rebuilt(frozen_text() + "HDEF-vol_name=late");
    all_succeed(seen);
    field_is(seen.at("whole_record"), "vol_name", "");
}

TEST_F(Rebuild, loses_a_device_whose_group_is_not_closed) {
    contract("a PMINFO group not followed by PRIM_MIR_INFO=NEXT is lost");
    const std::string text = changed(frozen_text(), "PRIM_MIR_INFO=NEXT\n", "");
    const Phase seen = rebuilt(text);
    field_is(seen.at("whole_record"), "devices", "0");
    release_frozen();
}

TEST_F(Rebuild, of_a_text_whose_last_line_is_no_pair_fails_with_1_and_quotes_it) {
    contract("rebuild: a line without an equals sign: number 1, \"%s: %s\", 11");
    is_refused(frozen_text() + "garbage\n", 1,
               "TimeFinder_rebuild: convert_internal: input string not name=value pair: garbage");
    release_frozen();
}

TEST_F(Rebuild, forgets_a_broken_line_when_a_later_one_can_be_read) {
    contract("rebuild: each later key line overwrites the kept status");
    const Phase seen = rebuilt("garbage\n" + frozen_text());
    succeeds(seen.at("rebuild"));
    is("number that stays", 1, seen.at("rebuild").number);
    logs(seen.at("rebuild"),
         "TimeFinder_rebuild: convert_internal: input string not name=value pair: garbage");
    succeeds(seen.at("thaw_commit"));
}

TEST_F(Rebuild, of_an_empty_line_fails_as_of_any_that_is_no_pair) {
    contract("rebuild: an empty line has no equals sign");
    is_refused(frozen_text() + "\n", 1,
               "TimeFinder_rebuild: convert_internal: input string not name=value pair: ");
    release_frozen();
}

TEST_F(Rebuild, of_an_empty_text_is_a_record_without_devices) {
    contract("rebuild: no line, no failure");
    write_file("text", "");
    const Phase seen = run(rebuild() + record() + Words{"run", "rm -f /tmp/EMCTX* /tmp/QfMS*"});
    all_succeed(seen);
    field_is(seen.at("whole_record"), "devices", "0");
    field_is(seen.at("whole_record"), "is_rebuilt", "1");
}

TEST_F(Rebuild, of_an_unknown_mirror_fails_with_3_and_names_it) {
    contract("rebuild: the array does not know the mirror: number 3, 11");
    const std::string text =
        changed(frozen_text(), "bcvdev_sym_devname=01A1", "bcvdev_sym_devname=0FFF");
    is_refused(text, 3,
               "TimeFinder_rebuild: SymAPI call to SymDevShow on device 0FFF failed with code ");
    release_frozen();
}

TEST_F(Rebuild, addresses_the_primary_by_its_raw_device_on_this_host) {
    contract("rebuild on the primary host copies dev_raw_device into p_dev_raw_device");
    const std::string text = changed(frozen_text(), "PMINFO-p_dev_raw_device=/dev/qz/rdmp/p0",
                                     "PMINFO-p_dev_raw_device=/dev/emcpowera");
    const Phase seen = rebuilt(text);
    all_succeed(seen);
    field_is(seen.at("whole_record"), "pm.p_dev_raw_device", "/dev/qz/rdmp/p0");
}

TEST_F(Rebuild, of_a_primary_that_this_host_does_not_have_gets_no_lock) {
    contract("rebuild: the lock is asked for by the raw device: number 3, 11");
    const std::string text = changed(frozen_text(), "PMINFO-dev_raw_device=/dev/qz/rdmp/p0",
                                     "PMINFO-dev_raw_device=/dev/qz/rdmp/none");
    is_refused(text, 3, "TimeFinder_rebuild: Cannot get lock on device: /dev/qz/rdmp/none");
    release_frozen();
}

TEST_F(Rebuild, for_a_restore_without_import_is_refused_with_7) {
    contract("rebuild: only a snapshot created with disk group import enabled can be restored");
    is_refused(frozen_text() + "HDEF-restore=1\n", 7,
               "TimeFinder_rebuild: only snapshot created with disk group import enabled can be "
               "restored");
    release_frozen();
}

TEST_F(Rebuild, for_another_host_takes_no_lock_and_keeps_the_path_of_the_text) {
    contract("rebuild with HDEF-is_tgt takes no locks; paths come from the array");
    write_file("text", "HDEF-is_tgt=1\n" + frozen_text());
    const Phase seen = run(rebuild() + record() + thaw());
    all_succeed(seen);
    field_is(seen.at("whole_record"), "is_tgt", "1");
    logs_not(seen.at("rebuild"), "setting lock");
    logs_not(seen.at("rebuild"), "Executing command");
    release_frozen();
}

TEST_F(Rebuild, writes_the_lines_of_the_clone_block_into_the_transfer_file) {
    contract("rebuild: lines of the clone block go into the transfer file, none into the record");
    write_file("text",
               "HDEF-CLONE_INFO_FILE=START\nline one\nHDEF-vol_name=no\n"
               "HDEF-CLONE_INFO_FILE=END\n" +
                   frozen_text());
    const Phase seen =
        run(rebuild() + shell("cat /tmp/EMCTX* >/exchange/transfer") + record() + release());
    all_succeed(seen);
    is("transfer file", "line one\nHDEF-vol_name=no\n", file("transfer"));
    field_is(seen.at("whole_record"), "vol_name", "");
}

TEST_F(Rebuild, removes_the_stale_transfer_file_that_the_clone_block_names) {
    contract("rebuild: TRANSFER_FILE= within the clone block is deleted, never as a folder");
    host("touch /tmp/EMCTXstale && mkdir -p /exchange/folder");
    write_file("text",
               "HDEF-CLONE_INFO_FILE=START\nTRANSFER_FILE=/tmp/EMCTXstale\n"
               "TRANSFER_FILE=/exchange/folder\nHDEF-CLONE_INFO_FILE=END\n" +
                   frozen_text());
    const Phase seen =
        run(rebuild() + shell("[ ! -e /tmp/EMCTXstale ] && [ -d /exchange/folder ]") + release());
    all_succeed(seen);
}

TEST_F(Rebuild, of_a_second_clone_block_cannot_write_it) {
    contract("a clone block's line while no transfer file is open is a failed write: line 2315");
    const std::string block = "HDEF-CLONE_INFO_FILE=START\nline\nHDEF-CLONE_INFO_FILE=END\n";
    is_refused(block + block + frozen_text(), 1,
               "TimeFinder_rebuild: Memory allocation failure at line 2315");
    release_frozen();
}

TEST_F(Rebuild, survives_a_text_cut_off_at_any_line) {
    contract("a truncated text gives a record with what was closed, or a failure; never an end");
    const std::string text = frozen_text();
    for (size_t end = 0; end != std::string::npos && end < text.size();
         end = text.find('\n', end + 200)) {
        write_file("text", text.substr(0, end));
        const Phase seen = run(rebuild() + record());
        is("calls at " + std::to_string(end), 2, static_cast<int64_t>(seen.calls.size()));
        field_is(seen.at("whole_record"), "devices",
                 text.substr(0, end).find("INFO=NEXT\n") < end ? "1" : "0");
        host("rm -f /tmp/EMCTX* /tmp/QfMS*");
    }
    release_frozen();
}

}  // namespace
}  // namespace conformance
