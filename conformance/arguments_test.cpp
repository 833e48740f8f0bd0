// Null pointers, numbers at and beyond their limits, texts of any length.
#include <regex>

#include "conformance/contract.h"

namespace conformance {
namespace {

using Arguments = Contract;

std::string missing(const std::string &entry, const std::string &argument) {
    return "TimeFinder_" + entry + ": A required parameter is NULL: " + argument;
}

TEST_F(Arguments, a_freeze_without_nvols_fails_with_7_and_a_null_handle) {
    contract("freeze: nvols absent: number 7, 11, the handle output set to null");
    const Phase seen =
        run(Words{"foreign_handle"} + freeze_with("null", "/data", "/copy", "null", "1", "handle"));
    fails(seen.at("freeze"), 7, missing("freeze", "nvols"));
    handle_is(seen.at("freeze"), false);
}

TEST_F(Arguments, a_freeze_without_fifs_fails_with_7_and_a_null_handle) {
    contract("freeze: fifs absent: number 7, 11, the handle output set to null");
    const Phase seen =
        run(Words{"foreign_handle"} + freeze_with("null", "/data", "null", "nvols", "1", "handle"));
    fails(seen.at("freeze"), 7, missing("freeze", "fifs"));
    handle_is(seen.at("freeze"), false);
}

TEST_F(Arguments, a_freeze_without_a_place_for_the_handle_fails_with_7) {
    contract("a null handle where none is expected fails with number 7, naming the argument");
    const Phase seen = run(freeze_with("null", "/data", "/copy", "nvols", "1", "null"));
    fails(seen.at("freeze"), 7, missing("freeze", "handle"));
}

TEST_F(Arguments, a_freeze_takes_a_null_source_for_the_empty_path) {
    contract("a null source is the empty path");
    const Phase seen = run(freeze_with("null", "null", "/copy", "nvols", "1", "handle"));
    fails(seen.at("freeze"), 3,
          "TimeFinder_freeze: Cannot stat() file : No such file or directory");
    handle_is(seen.at("freeze"), false);
}

TEST_F(Arguments, a_freeze_takes_a_null_configuration_for_none) {
    contract("freeze: the configuration string may be absent");
    const Phase seen =
        run(freeze_with("null", "/data", "/copy", "nvols", "1", "handle") + release());
    all_succeed(seen);
    logs_not(seen.at("freeze"), "config =");
}

TEST_F(Arguments, a_freeze_sets_nvols_to_0) {
    contract("freeze: the pointed integer is set to 0");
    const Phase seen =
        run(freeze_with("null", "/data", "/copy", "nvols", "1", "handle") + release());
    is("nvols", 0, seen.at("freeze").nvols);
}

TEST_F(Arguments, a_freeze_sets_nvols_to_0_before_it_looks_at_the_rest) {
    contract("freeze: nvols is set as soon as it is known to be there");
    const Phase seen = run(freeze_with("null", "/data", "null", "nvols", "7", "handle"));
    is("nvols", 0, seen.at("freeze").nvols);
}

TEST_F(Arguments, of_a_freeze_are_checked_in_their_order) {
    contract("freeze: nvols, length of the configuration, fifs, flag, in this order");
    const std::string long_one(1025, 'c');
    const Phase seen = run(freeze_with(long_one, "/data", "null", "null", "2", "handle") +
                           freeze_with(long_one, "/data", "null", "nvols", "2", "handle") +
                           freeze_with("a=1", "/data", "null", "nvols", "2", "handle") +
                           freeze_with("a=1", "/data", "/copy", "nvols", "2", "handle"));
    fails(seen.at("freeze", 0), 7, missing("freeze", "nvols"));
    fails(seen.at("freeze", 1), 7, "TimeFinder_freeze: config parameter exceeds 1024 characters");
    fails(seen.at("freeze", 2), 7, missing("freeze", "fifs"));
    fails(seen.at("freeze", 3), 7, "TimeFinder_freeze: Invalid parameter value: flag=2");
}

TEST_F(Arguments, a_flag_that_is_neither_1_nor_3_is_rejected_with_its_value) {
    contract("freeze: any flag but 1 and 3: number 7 with \"flag\" and the value, handle null");
    Words steps = {"foreign_handle"};
    const Words flags = {"0", "2", "4", "-1", "2147483647", "-2147483648"};
    for (const std::string &flag : flags)
        steps = steps + freeze_with("null", "/data", "/copy", "nvols", flag, "handle");
    const Phase seen = run(steps);
    for (size_t i = 0; i < flags.size(); ++i) {
        fails(seen.at("freeze", i), 7,
              "TimeFinder_freeze: Invalid parameter value: flag=" + flags[i]);
        handle_is(seen.at("freeze", i), false);
    }
}

TEST_F(Arguments, flag_3_freezes_without_waiting_and_keeps_the_session) {
    contract("freeze: flag 3 makes no wait and leaves the session open");
    const Phase seen = run(freeze_no_wait() + commit() + release());
    all_succeed(seen);
    logs_not(seen.at("freeze"), "Waiting for SymExit");
    logs(seen.at("commit"), "Waiting for SymExit...");
}

TEST_F(Arguments, flag_3_queues_nothing_for_control_code_4) {
    contract("pair discovery without waiting ends when the paths of the BCV are known");
    split_the_pair();
    const Phase seen = run(freeze_no_wait() + ctl(4) + release());
    all_succeed(seen);
    log_is(seen.at("ctl"), {});
    world().synchronise();
}

TEST_F(Arguments, a_configuration_of_1024_characters_is_read) {
    contract("freeze: the configuration string has at most 1024 characters");
    const std::string config = "keep_fi=1,x=" + std::string(1024 - 12, 'y');
    const Phase seen = run(freeze(config) + record() + release());
    all_succeed(seen);
    field_is(seen.at("whole_record"), "max_snapshots", "1");
}

TEST_F(Arguments, a_configuration_of_1025_characters_is_rejected_and_one_of_4096_as_well) {
    contract("freeze: more than 1024 characters: number 7, nothing is parsed, handle null");
    const Phase seen = run(Words{"foreign_handle"} + freeze("x=" + std::string(1023, 'y')) +
                           freeze("x=" + std::string(4094, 'y')));
    for (size_t i = 0; i < 2; ++i) {
        fails(seen.at("freeze", i), 7,
              "TimeFinder_freeze: config parameter exceeds 1024 characters");
        handle_is(seen.at("freeze", i), false);
    }
}

TEST_F(Arguments, a_mount_point_of_1023_characters_is_kept_and_a_longer_one_is_cut_to_that) {
    contract("texts are held in 1024 bytes; every copy is bounded and truncates");
    for (const size_t length : {1023U, 1024U, 4096U}) {
        const std::string fifs = "/" + std::string(length - 1, 'm');
        const Phase seen = run(freeze("-", "/data", fifs) + record() + release());
        all_succeed(seen);
        field_is(seen.at("whole_record"), "mount_point", fifs.substr(0, 1023));
    }
}

TEST_F(Arguments, a_source_of_1023_1024_and_4096_characters_is_no_file_and_hurts_nothing) {
    contract("freeze: status of the source: number 3, the system's text, handle null");
    for (const size_t length : {1023U, 1024U, 4096U}) {
        const Phase seen = run(freeze("-", "/" + std::string(length - 1, 's')));
        fails_beginning(seen.at("freeze"), 3, "TimeFinder_freeze: Cannot stat() file /sssss");
        handle_is(seen.at("freeze"), false);
        is("message fits its buffer", 1, seen.at("freeze").errmsg.size() < 2048);
    }
}

TEST_F(Arguments, a_commit_without_a_handle_fails_with_7) {
    contract("freeze commit: a null handle: number 7 with \"fih\"");
    fails(run(no_object() + commit()).at("commit"), 7, missing("freeze_commit", "fih"));
}

TEST_F(Arguments, a_thaw_without_a_handle_fails_with_7) {
    contract("thaw: a null record: number 7 with \"fih\"");
    fails(run(no_object() + thaw()).at("thaw"), 7, missing("thaw", "fih"));
}

TEST_F(Arguments, a_thaw_commit_without_a_handle_fails_with_7_and_is_not_counted) {
    contract("thaw commit: a null record: number 7 with \"fih\", before the call is counted");
    const Phase seen = run(freeze() + object(1) + freeze() + commit() + no_object() +
                           thaw_commit() + object(0) + release() + object(1) + release());
    fails(seen.at("thaw_commit"), 7, missing("thaw_commit", "fih"));
    log_is(seen.at("thaw_commit", 1), {});
    logs(seen.at("thaw_commit", 2), "Resync end");
}

TEST_F(Arguments, a_checkpoint_without_a_handle_fails_with_7_and_gives_no_text) {
    contract("ckpt: a null record: number 7 with \"fih\"");
    fails(run(no_object() + ckpt()).at("ckpt"), 7, missing("ckpt", "fih"));
    is("text", "", file("text"));
}

TEST_F(Arguments, a_checkpoint_without_a_place_for_the_text_fails_with_7) {
    contract("a null text where none is expected fails with number 7, naming the argument");
    const Phase seen = run(freeze() + Words{"ckpt_with", "null"} + release());
    fails(seen.at("ckpt"), 7, missing("ckpt", "text"));
}

TEST_F(Arguments, a_rebuild_without_a_place_for_the_record_fails_with_7) {
    contract("a null fih where none is expected fails with number 7, naming the argument");
    const Phase seen = run({"rebuild_with", "null", "HDEF-is_vol=0\n"});
    fails(seen.at("rebuild"), 7, missing("rebuild", "fih"));
}

TEST_F(Arguments, a_rebuild_without_a_text_fails_with_7) {
    contract("a null text where none is expected fails with number 7, naming the argument");
    const Phase seen = run({"rebuild_with", "handle", "null"});
    fails(seen.at("rebuild"), 7, missing("rebuild", "text"));
}

TEST_F(Arguments, of_volumes_are_checked_in_their_order) {
    contract("volumes: record, path buffer, count, in this order, number 7 for each");
    const Phase seen =
        run(freeze() + commit() + no_object() + Words{"volumes_with", "null", "null"} + object(0) +
            Words{"volumes_with", "null", "null", "volumes_with", "path", "null"} + release());
    fails(seen.at("volumes", 0), 7, missing("volumes", "fih"));
    fails(seen.at("volumes", 1), 7, missing("volumes", "volpath"));
    fails(seen.at("volumes", 2), 7, missing("volumes", "nvols"));
}

TEST_F(Arguments, a_control_code_below_1_or_above_4_is_rejected_with_its_value) {
    contract("ctl: codes below 1 and above 4: number 7 with \"cmd\" and the code");
    const Words codes = {"0", "5", "-1", "2147483647", "-2147483648"};
    Words steps = freeze();
    for (const std::string &code : codes) steps = steps + Words{"ctl", code};
    const Phase seen = run(steps + release());
    for (size_t i = 0; i < codes.size(); ++i)
        fails(seen.at("ctl", i), 7, "TimeFinder_ctl: Invalid parameter value: cmd=" + codes[i]);
}

TEST_F(Arguments, control_codes_1_to_3_do_nothing_and_leave_the_queue) {
    contract("ctl: 1, 2 and 3 return 0 and leave the queue untouched");
    split_the_pair();
    const Phase seen = run(freeze() + ctl(1) + ctl(2) + ctl(3) + ctl(4) + release());
    all_succeed(seen);
    for (size_t i = 0; i < 3; ++i) log_is(seen.at("ctl", i), {});
    logs(seen.at("ctl", 3), "Total BCVs to resync at start : 1");
}

TEST_F(Arguments, a_locale_of_300_characters_is_taken) {
    contract("set_locale: a name is cut to 255 characters; always 0");
    const std::string name(300, 'l');
    const Phase seen = run(Words{"set_locale", name, name} + no_object() + thaw());
    succeeds(seen.at("set_locale"));
    fails(seen.at("thaw"), 7, missing("thaw", "fih"));
}

TEST_F(Arguments, a_source_on_a_file_system_is_kind_3_with_the_type_and_the_devices_below) {
    contract("freeze: anything but a device is a path on a file system");
    const Phase seen = run(freeze() + record() + release());
    field_is(seen.at("whole_record"), "object_type", "3");
    field_is(seen.at("whole_record"), "fstype", "ext4");
    field_is(seen.at("whole_record"), "fs_path", "/data");
    field_is(seen.at("whole_record"), "dev_block_device", "/dev/qz/dmp/p0");
    field_is(seen.at("whole_record"), "dev_raw_device", "/dev/qz/rdmp/p0");
}

TEST_F(Arguments, a_source_that_is_a_block_device_is_kind_2) {
    contract("freeze: a block device is the object's block device; no type is looked up");
    const Phase seen = run(freeze("-", "/dev/qz/dmp/p0") + record() + release());
    all_succeed(seen);
    field_is(seen.at("whole_record"), "object_type", "2");
    field_is(seen.at("whole_record"), "fstype", "");
    field_is(seen.at("whole_record"), "dev_raw_device", "/dev/qz/rdmp/p0");
}

TEST_F(Arguments, a_source_may_be_a_file_or_a_link_on_the_file_system) {
    contract("freeze: status of the path, following symbolic links");
    host("touch /data/file && ln -sfn /data/file /exchange/link");
    const Phase seen = run(freeze("-", "/exchange/link") + record() + release());
    all_succeed(seen);
    field_is(seen.at("whole_record"), "object_type", "3");
    field_is(seen.at("whole_record"), "fs_path", "/exchange/link");
    field_is(seen.at("whole_record"), "dev_block_device", "/dev/qz/dmp/p0");
}

TEST_F(Arguments, a_device_name_of_12_characters_or_fewer_cannot_be_told_from_a_volume) {
    contract("freeze: a block device name of 12 characters or fewer: number 3, handle null");
    const Phase seen = run(freeze("-", "/dev/sdq"));
    fails(seen.at("freeze"), 3,
          "TimeFinder_freeze: Cannot determine if device /dev/sdq is a volume");
    handle_is(seen.at("freeze"), false);
}

}  // namespace
}  // namespace conformance
