// An array that answers one call with an error: what is said, what is returned, and that thaw and
// thaw commit bring everything back.
#include "conformance/contract.h"

namespace conformance {
namespace {

constexpr char told_to_fail[] = " failed with code 114 (The array was told to fail this call)";

class ArrayErrors : public Contract {
  protected:
    static Words fault(const std::string &what) {
        return shell("tfarray fault add " + what + " >/dev/null");
    }
    static std::string call(const std::string &reporter, const std::string &function,
                            const std::string &device) {
        return reporter + ": SymAPI call to " + function + " on device " + device + told_to_fail;
    }
    static std::string control() {
        return "emc_tf_bcv_control_all: SymAPI call to SymDevListBcvControl to establish BCV "
               "failed "
               "with code: 114 (The array was told to fail this call)";
    }
    // A freeze that such an answer fails, with the handle that its release needs.
    void fails_the_freeze(const std::string &what, int number, const std::string &text) {
        const Phase seen = run(fault(what) + freeze() + release());
        fails(seen.at("freeze"), number, text);
        handle_is(seen.at("freeze"), true);
        logs(seen.at("freeze"), "TimeFinder_freeze: find_all_bcv_pairs failed");
        succeeds(seen.at("thaw"));
        succeeds(seen.at("thaw_commit"));
    }
};

TEST_F(ArrayErrors, at_the_refresh_of_the_primary_fail_the_freeze_with_3) {
    contract("pair discovery, step 4: SymPdevSync: number 3");
    fails_the_freeze("SymPdevSync", 3, call("find_bcv_pair", "SymPdevSync", "/dev/qz/rdmp/p0"));
}

TEST_F(ArrayErrors, at_the_show_of_the_primary_fail_the_freeze_with_8) {
    contract("pair discovery, step 4: SymPdevShow: number 8");
    // The first show of a freeze is that of the tool that tells the serial number.
    fails_the_freeze("SymPdevShow --at 2", 8,
                     call("find_bcv_pair", "SymPdevShow", "/dev/qz/rdmp/p0"));
}

TEST_F(ArrayErrors, at_the_show_of_a_mirror_fail_the_freeze_with_3) {
    contract("BCV selection, step 1: SymDevShow: number 3");
    fails_the_freeze("SymDevShow", 3, call("find_valid_bcv", "SymDevShow", "01A1"));
}

TEST_F(ArrayErrors, at_the_show_of_the_chosen_mirror_fail_the_freeze_with_3) {
    contract("pair discovery, step 12: SymDevShow: number 3");
    fails_the_freeze("SymDevShow --at 3", 3, call("find_bcv_pair", "SymDevShow", "01A1"));
}

TEST_F(ArrayErrors, at_the_first_look_of_the_wait_fail_the_freeze_with_3) {
    contract("wait: SymDevSync: number 3, \"wait_for_establish failed\"");
    fails_the_freeze("SymDevSync", 3, call("wait_for_establish", "SymDevSync", "01A1"));
}

TEST_F(ArrayErrors, at_the_preference_fail_the_freeze_and_end_the_session) {
    contract("freeze, step 18: SymPrefsSet: number 3, 11, the session ended, the handle set");
    const Phase seen = run(fault("SymPrefsSet") + freeze() + release());
    fails(seen.at("freeze"), 3,
          std::string("TimeFinder_freeze: SymAPI call to SymPrefsSet") + told_to_fail);
    handle_is(seen.at("freeze"), true);
    logs(seen.at("freeze"), "Waiting for SymExit...");
    succeeds(seen.at("thaw_commit"));
}

TEST_F(ArrayErrors, at_the_refresh_before_the_split_fail_the_commit_which_can_be_repeated) {
    contract("freeze commit, step 4: SymDevSync: number 3, \"split_device failed\"");
    const Phase seen = run(freeze() + fault("SymDevSync") + commit() + commit() + release());
    fails(seen.at("commit"), 3, call("emc_tf_split_prepare", "SymDevSync", "01A1"));
    logs(seen.at("commit"), "split_device failed");
    succeeds(seen.at("commit", 1));
    logs(seen.at("commit", 1), "Split end");
}

TEST_F(ArrayErrors, at_the_show_before_the_split_fail_the_commit) {
    contract("freeze commit, step 4: SymPdevShow: number 3");
    const Phase seen = run(freeze() + fault("SymPdevShow") + commit() + release());
    fails(seen.at("commit"), 3, call("emc_tf_split_prepare", "SymPdevShow", "/dev/qz/rdmp/p0"));
}

TEST_F(ArrayErrors, at_the_split_are_judged_by_the_state_that_is_waited_for) {
    contract("freeze commit: a failed split does not stop the waits; 6 retries 10 seconds apart");
    const Phase seen = run(freeze() + fault("SymDevListBcvControl") + commit() + release());
    fails(seen.at("commit"), 13,
          "emc_tf_wait_for_split: Cannot split device /dev/qz/rdmp/p0: state: 2");
    logs(seen.at("commit"), control());
    size_t looks = 0;
    for (const std::string &line : seen.at("commit").log)
        looks += line == "...Waiting for split to finish...";
    is("looks at the pair", 7, static_cast<int64_t>(looks));
}

TEST_F(ArrayErrors, whose_split_was_done_all_the_same_end_in_a_commit_that_succeeds) {
    contract("freeze commit: the result after the waits is that of the last look, 0");
    const Phase seen =
        run(freeze() + fault("SymDevListBcvControl --after") + commit() + volumes() + release());
    all_succeed(seen);
    is("number that was stored", 7, seen.at("commit").number);
    is("message", control(), seen.at("commit").errmsg);
}

TEST_F(ArrayErrors, at_the_refresh_after_the_split_fail_the_commit) {
    contract("freeze commit, step 8: SymDevSync: number 3, 11");
    const Phase seen = run(freeze() + fault("SymDevSync --at 2") + commit() + release());
    fails(seen.at("commit"), 3, call("emc_tf_wait_for_split", "SymDevSync", "01A1"));
    succeeds(seen.at("thaw_commit"));
}

TEST_F(ArrayErrors, at_the_establish_of_control_code_4_show_in_the_waits_alone) {
    contract("ctl 4: the result of the control call is not returned");
    split_the_pair();
    const Phase seen = run(freeze() + fault("SymDevListBcvControl") + ctl(4) + release());
    succeeds(seen.at("ctl"));
    is("number that was stored", 7, seen.at("ctl").number);
    is("message", control(), seen.at("ctl").errmsg);
}

TEST_F(ArrayErrors, in_the_wait_of_control_code_4_fail_it_and_empty_the_queue) {
    contract("ctl 4: \"wait_for_establish failed\"; the queue is consumed in every case");
    split_the_pair();
    const Phase seen = run(freeze() + fault("SymDevSync") + ctl(4) + ctl(4) + release());
    fails(seen.at("ctl"), 3, call("wait_for_establish", "SymDevSync", "01A1"));
    logs(seen.at("ctl"), "wait_for_establish failed");
    succeeds(seen.at("ctl", 1));
    log_is(seen.at("ctl", 1), {});
}

TEST_F(ArrayErrors, at_the_establish_of_the_thaw_commit_are_returned_with_7) {
    contract("thaw commit without restore: the result of the control call is the status");
    const Phase seen = run(freeze() + commit() + thaw() + fault("SymDevListBcvControl") +
                           thaw_commit() + thaw_commit());
    fails(seen.at("thaw_commit"), 7, control());
    logs(seen.at("thaw_commit"), "Resync end");
    is("counter files", "", world().counter_files());
    succeeds(seen.at("thaw_commit", 1));
}

TEST_F(ArrayErrors, at_the_refresh_in_the_thaw_commit_are_named_by_its_phase) {
    contract(
        "thaw commit, step 8: \"emc_tf_establish_prepare\", number 3, \"split_device failed\"");
    const Phase seen = run(freeze() + commit() + thaw() + fault("SymDevSync --at 2") +
                           thaw_commit() + thaw_commit());
    fails(seen.at("thaw_commit"), 3, call("emc_tf_establish_prepare", "SymDevSync", "01A1"));
    logs(seen.at("thaw_commit"), "split_device failed");
    succeeds(seen.at("thaw_commit", 1));
}

TEST_F(ArrayErrors, at_the_end_of_the_session_keep_the_thaw_commit_from_every_object) {
    contract("thaw commit, step 6: SymExit failed: number 3, and the status 11 is returned");
    const Phase seen = run(freeze() + thaw() + fault("SymExit") + thaw_commit() + thaw_commit());
    fails(seen.at("thaw_commit"), 3,
          std::string("TimeFinder_thaw_commit: SymAPI call to SymExit") + told_to_fail);
    logs_not(seen.at("thaw_commit"), "clearing lock");
    succeeds(seen.at("thaw_commit", 1));
    logs(seen.at("thaw_commit", 1),
         "manage_lock: clearing lock on file: "
         "/usr/quill/tessera/online_util/db_cntl/__LOCKFILE_0001845001230000");
}

TEST_F(ArrayErrors, at_the_show_of_a_rebuild_fail_it_and_leave_the_copy) {
    contract("rebuild, step 7: SymDevShow: number 3, 11");
    run(freeze() + commit() + ckpt());
    array("fault add SymDevShow");
    const Phase seen = run(rebuild());
    fails(seen.at("rebuild"), 3, call("TimeFinder_rebuild", "SymDevShow", "01A1"));
    host("rm -f /tmp/EMCTX* /tmp/QfMS*");
    is("state of the pair", 5, world().pair_state());
    all_succeed(run(rebuild() + volumes() + release()));
}

}  // namespace
}  // namespace conformance
