// An array that answers one call with an error in the middle of a snapshot: what is said, and that
// thaw and thaw commit bring everything back.
#include <algorithm>

#include "tests/support/world.h"

namespace test {
namespace {

constexpr char told_to_fail[] = " failed with code 114 (The array was told to fail this call)";

std::string call_failed(const std::string &reporter, const std::string &function,
                        const std::string &device) {
    return reporter + ": SymAPI call to " + function + " on device " + device + told_to_fail;
}

std::string control_failed() {
    return "emc_tf_bcv_control_all: SymAPI call to SymDevListBcvControl to establish BCV failed "
           "with "
           "code: 114 (The array was told to fail this call)";
}

class ArrayErrorInTheLab : public World {
  protected:
    // The pair is synchronised, as between two snapshots, unless a case wants it split.
    void begin(bool joined = true) {
        mount_source();
        if (joined) synchronise();
        before_ = picture();
    }
    Phase snapshot_with_fault_at_commit(const std::string &fault) {
        return phase({"freeze", "-", "/data", "/copy", "ctl", "4", "run",
                      "tfarray fault add " + fault, "commit", "rollback"});
    }
    void expect_rolled_back(const Phase &failed) {
        expect_success(failed.at("thaw"));
        expect_success(failed.at("thaw_commit"));
        expect_as_before();
    }
    void expect_as_before() {
        array("clock advance 60");
        EXPECT_EQ(picture(), before_);
        expect_a_snapshot_succeeds();
    }

    std::string before_;
};

TEST_F(ArrayErrorInTheLab, at_the_show_of_the_primary_fails_the_freeze_needs_root) {
    begin();
    // The first show of a freeze is that of the tool that tells the serial number.
    array("fault add SymPdevShow --at 2");
    const Phase failed = phase({"freeze", "-", "/data", "/copy", "rollback"});
    expect_failure(failed.at("freeze"), 8,
                   call_failed("find_bcv_pair", "SymPdevShow", "/dev/qz/rdmp/p0"));
    EXPECT_TRUE(failed.at("freeze").handle);
    EXPECT_TRUE(failed.at("freeze").logged("TimeFinder_freeze: find_all_bcv_pairs failed"));
    expect_rolled_back(failed);
}

TEST_F(ArrayErrorInTheLab, at_the_show_of_the_serial_number_gives_no_lock_needs_root) {
    begin();
    array("fault add SymPdevShow");
    const Phase failed = phase({"freeze", "-", "/data", "/copy", "rollback"});
    expect_failure(failed.at("freeze"), 3,
                   "find_bcv_pair: Cannot get lock on device: /dev/qz/rdmp/p0");
    EXPECT_TRUE(failed.at("freeze").handle);
    EXPECT_TRUE(failed.at("freeze").logged_part(
        "do_cmd: Command failed with status=1: /usr/quill/tessera/bin/tqtpcinfo -f -p "
        "/dev/qz/rdmp/p0 -o - </dev/null >/tmp/QfMS"));
    expect_rolled_back(failed);
}

TEST_F(ArrayErrorInTheLab, at_the_refresh_of_the_primary_fails_the_freeze_needs_root) {
    begin();
    array("fault add SymPdevSync");
    const Phase failed = phase({"freeze", "-", "/data", "/copy", "rollback"});
    expect_failure(failed.at("freeze"), 3,
                   call_failed("find_bcv_pair", "SymPdevSync", "/dev/qz/rdmp/p0"));
    EXPECT_TRUE(failed.at("freeze").handle);
    expect_rolled_back(failed);
}

TEST_F(ArrayErrorInTheLab, at_the_refresh_of_a_mirror_fails_the_freeze_needs_root) {
    begin();
    array("fault add SymDevSync");
    const Phase failed = phase({"freeze", "-", "/data", "/copy", "rollback"});
    expect_failure(failed.at("freeze"), 3, call_failed("wait_for_establish", "SymDevSync", "01A1"));
    EXPECT_TRUE(failed.at("freeze").logged("wait_for_establish failed"));
    expect_rolled_back(failed);
}

TEST_F(ArrayErrorInTheLab, at_the_refresh_before_the_split_fails_the_commit_needs_root) {
    begin();
    const Phase failed = snapshot_with_fault_at_commit("SymDevSync");
    expect_failure(failed.at("commit"), 3,
                   call_failed("emc_tf_split_prepare", "SymDevSync", "01A1"));
    EXPECT_TRUE(failed.at("commit").logged("split_device failed"));
    expect_rolled_back(failed);
}

TEST_F(ArrayErrorInTheLab, at_the_refresh_after_the_split_fails_the_commit_needs_root) {
    begin();
    const Phase failed = snapshot_with_fault_at_commit("SymDevSync --at 2");
    expect_failure(failed.at("commit"), 3,
                   call_failed("emc_tf_wait_for_split", "SymDevSync", "01A1"));
    EXPECT_TRUE(failed.at("commit").logged("Split end"));
    EXPECT_TRUE(failed.at("thaw_commit").logged("Adding <00A1, 01A1> to resync list"));
    expect_rolled_back(failed);
}

TEST_F(ArrayErrorInTheLab, at_the_show_before_the_split_fails_the_commit_needs_root) {
    begin();
    const Phase failed = snapshot_with_fault_at_commit("SymPdevShow");
    expect_failure(failed.at("commit"), 3,
                   call_failed("emc_tf_split_prepare", "SymPdevShow", "/dev/qz/rdmp/p0"));
    expect_rolled_back(failed);
}

TEST_F(ArrayErrorInTheLab,
       before_the_split_leaves_the_pair_joined_and_fails_after_six_waits_needs_root) {
    begin();
    const Phase failed = snapshot_with_fault_at_commit("SymDevListBcvControl");
    expect_failure(failed.at("commit"), 13,
                   "emc_tf_wait_for_split: Cannot split device /dev/qz/rdmp/p0: state: 2");
    EXPECT_TRUE(failed.at("commit").logged(control_failed()));
    EXPECT_EQ(std::count(failed.at("commit").log.begin(), failed.at("commit").log.end(),
                         "...Waiting for split to finish..."),
              7);
    expect_rolled_back(failed);
}

// The waits decide, not the answer of the call: a split that took place is a snapshot.
TEST_F(ArrayErrorInTheLab, after_the_split_is_reported_and_the_commit_succeeds_needs_root) {
    begin();
    const Phase lost = snapshot_with_fault_at_commit("SymDevListBcvControl --after");
    EXPECT_EQ(lost.at("commit").status, 0);
    EXPECT_EQ(lost.at("commit").number, 7);
    EXPECT_EQ(lost.at("commit").errmsg, control_failed());
    EXPECT_EQ(lost.at("commit").logmsg, control_failed());
    EXPECT_TRUE(lost.at("commit").logged("...Finished"));
    expect_rolled_back(lost);
}

TEST_F(ArrayErrorInTheLab, at_the_end_of_the_session_fails_the_commit_after_the_split_needs_root) {
    begin();
    const Phase failed = snapshot_with_fault_at_commit("SymExit");
    expect_failure(failed.at("commit"), 3,
                   std::string("TimeFinder_freeze_commit: SymAPI call to SymExit") + told_to_fail);
    EXPECT_TRUE(failed.at("commit").logged("...Finished"));
    expect_rolled_back(failed);
}

// The failed establish shows itself at the commit only: the result of control code 4 is its waits'.
TEST_F(ArrayErrorInTheLab, before_the_first_establish_fails_the_commit_on_a_split_pair_needs_root) {
    begin(false);
    const Phase failed =
        phase({"freeze", "-", "/data", "/copy", "run", "tfarray fault add SymDevListBcvControl",
               "ctl", "4", "commit", "rollback"});
    EXPECT_EQ(failed.at("ctl").status, 0);
    EXPECT_EQ(failed.at("ctl").number, 7);
    EXPECT_EQ(failed.at("ctl").errmsg, control_failed());
    expect_failure(failed.at("commit"), 11,
                   "emc_tf_split_prepare: Device /dev/qz/rdmp/p0 cannot be split at freeze; "
                   "bcv_pair_state=5");
    expect_rolled_back(failed);
}

TEST_F(ArrayErrorInTheLab,
       before_the_establish_at_the_end_leaves_the_pair_split_and_unlocked_needs_root) {
    begin(false);
    const Phase failed = phase({"freeze", "-", "/data", "/copy", "ctl", "4", "commit", "thaw",
                                "run", "tfarray fault add SymDevListBcvControl", "thaw_commit"});
    expect_failure(failed.at("thaw_commit"), 7, control_failed());
    EXPECT_TRUE(failed.at("thaw_commit").logged("Resync end"));
    expect_as_before();
}

TEST_F(ArrayErrorInTheLab,
       after_the_establish_at_the_end_leaves_the_pair_joined_and_unlocked_needs_root) {
    begin();
    const Phase failed =
        phase({"freeze", "-", "/data", "/copy", "ctl", "4", "commit", "thaw", "run",
               "tfarray fault add SymDevListBcvControl --after", "thaw_commit"});
    expect_failure(failed.at("thaw_commit"), 7, control_failed());
    expect_as_before();
}

TEST_F(ArrayErrorInTheLab,
       while_a_record_is_rebuilt_leaves_the_copy_for_the_next_process_needs_root) {
    begin();
    for (const Call &call :
         phase({"freeze", "-", "/data", "/copy", "ctl", "4", "commit", "ckpt", "/exchange/text"})
             .calls) {
        expect_success(call);
    }
    array("fault add SymDevShow");
    const Phase failed = phase({"rebuild", "/exchange/text"});
    expect_failure(failed.at("rebuild"), 3,
                   call_failed("TimeFinder_rebuild", "SymDevShow", "01A1"));
    EXPECT_EQ(pair_state(), 5);
    const Phase again =
        phase({"rebuild", "/exchange/text", "volumes", "run", "cat /copy/file", "rollback"});
    expect_success(again.at("rebuild"));
    expect_success(again.at("volumes"));
    expect_success(again.at("thaw"));
    expect_success(again.at("thaw_commit"));
    host("rm -f /tmp/EMCTX* /tmp/QfMS*");
    expect_as_before();
}

}  // namespace
}  // namespace test
