// The entry points in every order, and each of them twice.
#include "conformance/contract.h"

namespace conformance {
namespace {

using CallOrder = Contract;

Words let_the_pair_rest() {
    return shell("tfarray clock advance 60 >/dev/null");
}

TEST_F(CallOrder, the_query_may_come_first_and_writes_three_fields_of_the_record) {
    contract("query: 44, 1 and 0 at the byte offsets 0, 32 and 36; every other byte stays");
    const Phase seen = run({"bare", "query"});
    succeeds(seen.at("query"));
    is("fields written", "0=44 32=1 36=0 ", [&] {
        std::string all;
        for (const std::string &field : seen.at("query").fields) all += field + " ";
        return all;
    }());
}

TEST_F(CallOrder, the_sink_may_be_set_before_init_and_gets_the_version_line) {
    contract("set_logf: the version line is written when a sink is set with level 0 or more");
    const Phase seen = run({"bare", "set_logf", "sink", "0"});
    succeeds(seen.at("set_logf"));
    log_is(seen.at("set_logf"), {"TimeFinder FIM $Revision$"});
}

TEST_F(CallOrder, the_locales_may_be_set_before_init) {
    contract("set_locale: null stands for \"C\"; always 0");
    const Phase seen = run({"bare", "set_locale", "null", "null", "set_locale", "de", "fr"});
    all_succeed(seen);
}

TEST_F(CallOrder, before_init_a_failure_is_a_status_and_nothing_else) {
    contract("init: a null pointer is never written through, and before init all three are null");
    const Phase seen =
        run(Words{"bare"} + no_object() + commit() + ckpt() + volumes() + thaw() + thaw_commit());
    for (const Call &call : seen.calls) {
        is("status of " + call.step, 11, call.status);
        is("message of " + call.step, "", call.errmsg + call.logmsg);
    }
    is("calls that came back", 5, static_cast<int64_t>(seen.calls.size()));
}

TEST_F(CallOrder, init_takes_null_pointers_and_never_writes_through_them) {
    contract("init: nothing is checked; nothing is written through a null pointer");
    const Phase seen = run(Words{"init", "null", "null", "null"} + no_object() + thaw());
    succeeds(seen.at("init"));
    is("status of thaw", 11, seen.at("thaw").status);
    is("error number of thaw", -1, seen.at("thaw").number);
    is("messages of thaw", "", seen.at("thaw").errmsg + seen.at("thaw").logmsg);
}

TEST_F(CallOrder, init_takes_the_number_then_the_log_buffer_then_the_user_buffer) {
    contract("init (errnop, logmsg_buffer, errmsg_buffer), in that order");
    const std::string text = "TimeFinder_thaw: A required parameter is NULL: fih";
    const Phase seen = run(no_object() + Words{"init", "number", "null", "errmsg"} + thaw() +
                           Words{"init", "null", "logmsg", "null"} + thaw());
    is("number", 7, seen.at("thaw").number);
    is("user's message", text, seen.at("thaw").errmsg);
    is("log's message", "", seen.at("thaw").logmsg);
    is("number", -1, seen.at("thaw", 1).number);
    is("user's message", "", seen.at("thaw", 1).errmsg);
    is("log's message", text, seen.at("thaw", 1).logmsg);
}

TEST_F(CallOrder, a_second_init_takes_the_place_of_the_first) {
    contract("init stores the three pointers and returns 0");
    const Phase seen =
        run(Words{"init", "null", "null", "null", "init", "number", "logmsg", "errmsg"} +
            no_object() + commit());
    succeeds(seen.at("init", 1));
    fails(seen.at("commit"), 7, "TimeFinder_freeze_commit: A required parameter is NULL: fih");
}

TEST_F(CallOrder, a_snapshot_in_the_ordinary_order_succeeds_call_by_call) {
    contract(
        "freeze, ctl, commit, ckpt, volumes, thaw, thaw commit: 0 each, no number, no message");
    const Phase seen = run(freeze() + ctl(4) + commit() + ckpt() + volumes() + release());
    for (const Call &call : seen.calls) {
        succeeds(call);
        is("error number of " + call.step, -1, call.number);
        is("messages of " + call.step, "", call.errmsg + call.logmsg);
    }
    is("calls", 7, static_cast<int64_t>(seen.calls.size()));
}

TEST_F(CallOrder, a_second_commit_returns_0_and_leaves_the_array_alone) {
    contract("freeze commit runs once per process; every later call returns 0 at once");
    const Phase seen = run(freeze() + commit() + commit() + release());
    succeeds(seen.at("commit", 1));
    log_is(seen.at("commit", 1), {});
}

TEST_F(CallOrder, a_second_commit_returns_0_before_it_looks_at_its_handle) {
    contract("freeze commit: step 1 is the flag of the process, step 2 the handle");
    const Phase seen = run(freeze() + commit() + no_object() + commit() + object(0) + release());
    succeeds(seen.at("commit", 1));
    is("error number", -1, seen.at("commit", 1).number);
}

TEST_F(CallOrder, a_commit_that_failed_may_be_called_again) {
    contract("freeze commit: failure returns leave the flag of the process unchanged");
    const Phase seen = run(freeze() + no_object() + commit() + object(0) + commit() + release());
    fails(seen.at("commit"), 7, "TimeFinder_freeze_commit: A required parameter is NULL: fih");
    succeeds(seen.at("commit", 1));
    logs(seen.at("commit", 1), "Split end");
}

TEST_F(CallOrder, a_process_splits_once_even_when_it_freezes_again_after_its_release) {
    contract("freeze commit runs once per process");
    const Phase seen = run(freeze() + commit() + release() + let_the_pair_rest() + freeze() +
                           commit() + release());
    all_succeed(seen);
    log_is(seen.at("commit", 1), {});
}

TEST_F(CallOrder, a_freeze_after_the_last_commit_finds_no_session) {
    contract(
        "only the first freeze or rebuild of a process starts the session; a freeze that fails in "
        "its pairs ends it, and says so when that fails");
    const Phase seen =
        run(freeze() + commit() + object(1) + freeze() + Words{"rollback"} + object(0) + release());
    const Call &second = seen.at("freeze", 1);
    fails_beginning(second, 3, "TimeFinder_freeze: SymAPI call to SymExit failed with code 101 ");
    handle_is(second, true);
    logs_not(second, "Waiting for SymInit");
    logs(second, "TimeFinder_freeze: find_all_bcv_pairs failed");
}

TEST_F(CallOrder, control_code_4_with_an_empty_queue_returns_0_without_the_array) {
    contract("ctl 4 with an empty queue returns 0 without any array call");
    const Phase seen = run(freeze() + shell("tfarray fault add SymDevSync --for-good >/dev/null") +
                           ctl(4) + shell("tfarray fault clear") + release());
    all_succeed(seen);
    log_is(seen.at("ctl"), {});
}

TEST_F(CallOrder, a_second_control_code_4_finds_the_queue_empty) {
    contract("ctl 4 sets the queue to 0 in every case; a second call does nothing");
    split_the_pair();
    const Phase seen = run(freeze() + ctl(4) + ctl(4) + release());
    logs(seen.at("ctl"), "Total BCVs to resync at start : 1");
    succeeds(seen.at("ctl", 1));
    log_is(seen.at("ctl", 1), {});
}

TEST_F(CallOrder, control_code_4_after_the_commit_finds_the_queue_empty) {
    contract("the commit clears the table and its count");
    split_the_pair();
    const Phase seen = run(freeze() + ctl(4) + commit() + ctl(4) + release());
    all_succeed(seen);
    log_is(seen.at("ctl", 1), {});
}

TEST_F(CallOrder, a_commit_without_control_code_4_cannot_split_a_pair_that_is_split) {
    contract("freeze commit: state 5 with issplit 0 fails with number 11 and names the state");
    split_the_pair();
    const Phase seen = run(freeze() + commit() + ctl(4) + release());
    fails(seen.at("commit"), 11,
          "emc_tf_split_prepare: Device /dev/qz/rdmp/p0 cannot be split at freeze; "
          "bcv_pair_state=5");
    logs(seen.at("commit"), "split_device failed");
    is("pair after ctl 4 and thaw commit", 5, world().pair_state());
    world().synchronise();
}

TEST_F(CallOrder, a_checkpoint_may_be_taken_before_the_commit_and_tells_that_no_split_was_made) {
    contract("sync_at_end is set by the split; a checkpoint writes the record as it is");
    const Phase seen = run(freeze() + ckpt("early") + commit() + ckpt("late") + release());
    all_succeed(seen);
    has_line("early", "PMINFO-sync_at_end=0");
    has_line("late", "PMINFO-sync_at_end=1");
}

TEST_F(CallOrder, two_checkpoints_in_a_row_are_the_same_text) {
    contract("a checkpoint changes nothing of the record");
    const Phase seen = run(freeze() + commit() + ckpt("one") + ckpt("two") + release());
    all_succeed(seen);
    is("second text", file("one"), file("two"));
}

TEST_F(CallOrder, volumes_before_the_commit_finds_no_copy_and_still_names_the_path) {
    contract(
        "volumes: a check that fails gives number 3 and 11; the path buffer holds the raw path");
    const Phase seen = run(freeze() + volumes() + release());
    fails_beginning(seen.at("volumes"), 3, "TimeFinder_volumes: Q_fsck(/dev/sdq, ext4) failed ");
    is("path", "/dev/sdq", seen.at("volumes").volpath);
    logs(seen.at("volumes"), "--- End of file /tmp/QfMS??????");
}

TEST_F(CallOrder, a_second_volumes_of_a_mounted_copy_fails_and_leaves_it_mounted) {
    contract("a check of a mounted device fails");
    const Phase seen = run(freeze() + commit() + volumes() + volumes() +
                           shell("grep -q ' /copy ' /proc/mounts") + release());
    succeeds(seen.at("volumes"));
    fails_beginning(seen.at("volumes", 1), 3, "TimeFinder_volumes: Q_fsck(/dev/sdq, ext4) failed ");
    succeeds(seen.at("thaw"));
}

TEST_F(CallOrder, a_thaw_of_a_copy_that_was_never_mounted_succeeds_twice) {
    contract("thaw unmounts only what the method mounted");
    const Phase seen = run(freeze() + commit() + thaw() + thaw() + thaw_commit());
    all_succeed(seen);
    log_is(seen.at("thaw", 1), {});
}

TEST_F(CallOrder, a_second_thaw_of_a_mounted_copy_cannot_unmount_it_again) {
    contract("thaw of a frozen record: a failed unmount returns 11 with no further message");
    const Phase seen = run(freeze() + commit() + volumes() + thaw() + thaw() + thaw_commit());
    succeeds(seen.at("thaw"));
    is("status of the second", 11, seen.at("thaw", 1).status);
    is("number of the second", -1, seen.at("thaw", 1).number);
    is("message of the second", "", seen.at("thaw", 1).errmsg);
}

TEST_F(CallOrder, a_thaw_before_the_commit_leaves_the_pair_joined) {
    contract("thaw does not touch the array's mirrors");
    int state = 0;
    all_succeed(run_with(
        freeze() + thaw(), [&] { state = world().pair_state(); }, thaw_commit()));
    is("state of the pair", 2, state);
}

TEST_F(CallOrder, a_thaw_commit_without_a_thaw_joins_the_pair_and_gives_the_lock_back) {
    contract("thaw commit re-establishes every pair that was split and releases its lock");
    const Phase seen = run(freeze() + commit() + thaw_commit());
    all_succeed(seen);
    logs(seen.at("thaw_commit"), "Adding <00A1, 01A1> to resync list");
    is("counter files", "", world().counter_files());
}

TEST_F(CallOrder, a_second_thaw_commit_finds_the_pair_established) {
    contract("thaw commit: a pair in state 1 or 2 is not added and not counted");
    const Phase seen = run(freeze() + commit() + release() + thaw_commit() + let_the_pair_rest());
    succeeds(seen.at("thaw_commit", 1));
    logs(seen.at("thaw_commit", 1), "device /dev/qz/rdmp/p0 already established");
    logs_not(seen.at("thaw_commit", 1), "clearing lock");
}

TEST_F(CallOrder, a_thaw_after_the_thaw_commit_succeeds) {
    contract("the record lives until the library is unloaded");
    const Phase seen = run(freeze() + commit() + thaw_commit() + thaw());
    all_succeed(seen);
}

TEST_F(CallOrder, two_rebuilds_of_one_text_are_two_objects_with_two_locks) {
    contract("rebuild takes the lock again for every record; the last thaw commit does the work");
    run(freeze() + commit() + ckpt());
    const Phase seen = run(rebuild() + object(1) + rebuild() + record() + object(0) + release() +
                           object(1) + release());
    all_succeed(seen);
    field_is(seen.at("whole_record"), "pm.issplit", "1");
    log_is(seen.at("thaw_commit"), {});
    logs(seen.at("thaw_commit", 1), "Resync end");
}

TEST_F(CallOrder, a_commit_of_a_rebuilt_record_leaves_a_pair_that_was_split_before) {
    contract("freeze commit: state 5 with issplit set is skipped; an empty list is no failure");
    run(freeze() + commit() + ckpt());
    const Phase seen = run(rebuild() + object(1) + rebuild() + record() + commit() + object(0) +
                           release() + object(1) + release());
    fails(seen.at("commit"), 11,
          "emc_tf_split_prepare: Device /dev/qz/rdmp/p0 cannot be split at freeze; "
          "bcv_pair_state=5");
    logs(seen.at("commit"), "Device /dev/qz/rdmp/p0 has already been split");
}

}  // namespace
}  // namespace conformance
