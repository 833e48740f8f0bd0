// Which of a device's BCVs serves, and what is done to it before the split.
#include "tests/lab_scenarios/scenario.h"

namespace test {
namespace {

constexpr int64_t all_tracks = 64 * 16;  // of a device of 64 MiB

Source on_device(const std::string &name, const std::string &type = "ext4") {
    return {type, "/dev/qz/dmp/" + name, "/data", "/copy"};
}

class Mirrors : public Scenario {
  protected:
    Mirrors() : Scenario("mirrors") {}

    int64_t state(const std::string &saved_as, const std::string &primary, const std::string &bcv) {
        return saved_number(saved_as, "state", primary, bcv);
    }
    void expect_array_call_failed(const Call &call, int number, const std::string &begin) {
        EXPECT_EQ(call.status, 11) << call.step;
        EXPECT_EQ(call.number, number) << call.step;
        EXPECT_EQ(call.errmsg.substr(0, begin.size()), begin);
    }
    // A pair that takes a minute of virtual time, which stands still.
    void begin_slow_establish() {
        array("rate 1");
        array("clock stop");
        array("establish --full 000184500123 00A1 01A1");
        ASSERT_EQ(pair_state(), 1);
    }
};

TEST_F(Mirrors, labelled_one_that_is_split_is_established_first_needs_root) {
    make(on_device("p1"));
    const Phase whole = expect_a_whole_snapshot(on_device("p1"), "/dev/sda");
    EXPECT_EQ(state("frozen", "00A1", "01A1"), 5);
    EXPECT_TRUE(whole.at("ctl").logged("Total BCVs to resync at start : 1"));
    EXPECT_EQ(state("joined", "00A1", "01A1"), 2);
    EXPECT_EQ(in_text("text", "PMINFO-sync_at_end"), "1");
}

TEST_F(Mirrors, labelled_one_that_is_still_synchronising_is_waited_for_needs_root) {
    make(on_device("p1"));
    begin_slow_establish();
    const double before = clock_seconds();
    const Phase whole = expect_a_whole_snapshot(on_device("p1"), "/dev/sda");
    EXPECT_GE(clock_seconds(), before + 64);
    EXPECT_TRUE(whole.at("freeze").logged("...Waiting to exit SYNC_IN_PROGRESS state..."));
    EXPECT_TRUE(whole.at("freeze").logged("device /dev/qz/rdmp/p1 already established"));
    EXPECT_EQ(state("frozen", "00A1", "01A1"), 2);
    EXPECT_EQ(whole.at("ctl").log, Words());
}

TEST_F(Mirrors, one_of_somebody_else_is_left_alone_needs_root) {
    make(on_device("p2"));
    const Phase whole = expect_a_whole_snapshot(on_device("p2"), "/dev/sdc");
    EXPECT_TRUE(
        whole.at("freeze").logged("find_valid_bcv: This BCV does not have TSR-BCV label: REPORTS"));
    EXPECT_EQ(in_text("text", "PMINFO-bcvdev_sym_devname"), "02A2");
    for (const char *when : {"frozen", "joined", "committed"}) {
        EXPECT_EQ(state(when, "00A2", "02A1"), 2) << when;
    }
    EXPECT_EQ(state("committed", "00A2", "02A2"), 5);
    EXPECT_EQ(pair_state("00A2", "02A1"), 2);
}

// The array takes three seconds for a split, so the release is seen in progress.
TEST_F(Mirrors, one_of_another_group_is_released_and_the_right_one_serves_needs_root) {
    make(on_device("p3"));
    array("split-time 3");
    const Phase whole = expect_a_whole_snapshot(on_device("p3"), "/dev/sde");
    EXPECT_TRUE(whole.at("freeze").logged(
        "find_valid_bcv: the BCV synchoronized with primary disk does not have correct association "
        ": BCV: <bcvdev_dgname: datadg>, <bcvdev_dgname2: otherdg> <bcvdev_dgname3: datadg> "
        "<dev_sym_devname: 00A3>"));
    EXPECT_EQ(state("frozen", "00A3", "03A1"), 5);
    EXPECT_EQ(state("joined", "00A3", "03A2"), 2);
    EXPECT_EQ(state("committed", "00A3", "03A2"), 5);
    EXPECT_EQ(pair_state("00A3", "03A1"), 5);
}

TEST_F(Mirrors, one_of_another_group_is_released_even_when_no_other_can_serve_needs_root) {
    make(on_device("p3"));
    array("group add 000184500123 otherdg 03A2");
    const Phase failed = phase({"freeze", "-", "/data", "/copy", "or_give_up"});
    expect_failure(failed.at("freeze"), 10,
                   "find_bcv_pair: Device /dev/qz/rdmp/p3 is not a member of a BCV pair");
    expect_success(failed.at("thaw_commit"));
    EXPECT_EQ(pair_state("00A3", "03A1"), 5);
    EXPECT_EQ(pair_state("00A3", "03A2"), 5);
    expect_nothing_left("/copy");
}

TEST_F(Mirrors, one_without_label_serves_when_no_label_is_in_use_needs_root) {
    make(on_device("p4"));
    array("clock advance 60");
    const Phase whole = expect_a_whole_snapshot(on_device("p4"), "/dev/sdf");
    EXPECT_EQ(whole.at("ctl").log, Words());
    EXPECT_EQ(state("committed", "00A4", "04A1"), 5);
    EXPECT_EQ(in_text("text", "PMINFO-sync_at_end"), "1");
}

TEST_F(Mirrors, one_without_label_that_is_split_needs_sync_at_start_1_needs_root) {
    make(on_device("p5"));
    const Phase failed =
        phase({"freeze", "sync_at_start=0", "/data", "/copy", "ctl", "4", "commit", "or_give_up"});
    expect_failure(failed.at("commit"), 11,
                   "emc_tf_split_prepare: Device /dev/qz/rdmp/p5 cannot be split at freeze; "
                   "bcv_pair_state=5");
    expect_nothing_left("/copy");
    const Phase whole = expect_a_whole_snapshot(on_device("p5"), "/dev/sdg", "sync_at_start=1");
    EXPECT_TRUE(whole.at("ctl").logged("Total BCVs to resync at start : 1"));
    EXPECT_EQ(in_text("text", "HDEF-sync_at_start"), "1");
}

TEST_F(Mirrors, sync_at_start_1_leaves_what_is_synchronised_needs_root) {
    make(on_device("p4"));
    array("clock advance 60");
    const Phase whole = expect_a_whole_snapshot(on_device("p4"), "/dev/sdf", "sync_at_start=1");
    EXPECT_TRUE(whole.at("freeze").logged("device /dev/qz/rdmp/p4 already established"));
    EXPECT_EQ(whole.at("ctl").log, Words());
}

// The queue is emptied by the commit that failed, so the same process cannot make up for it.
TEST_F(Mirrors, sync_at_start_1_without_control_code_4_cannot_be_committed_needs_root) {
    make(on_device("p1"));
    const Phase failed = phase({"freeze", "sync_at_start=1", "/data", "/copy", "commit", "ctl", "4",
                                "commit", "or_give_up"});
    for (const size_t which : {0U, 1U}) {
        expect_failure(failed.at("commit", which), 11,
                       "emc_tf_split_prepare: Device /dev/qz/rdmp/p1 cannot be split at freeze; "
                       "bcv_pair_state=5");
    }
    expect_success(failed.at("ctl"));
    EXPECT_EQ(failed.at("ctl").log, Words());
    expect_nothing_left("/copy");
    expect_a_whole_snapshot(on_device("p1"), "/dev/sda", "sync_at_start=1");
}

TEST_F(Mirrors, sync_at_start_2_moves_everything_unless_it_is_synchronised_needs_root) {
    make(on_device("p1"));
    const Phase full = expect_a_whole_snapshot(on_device("p1"), "/dev/sda", "sync_at_start=2");
    EXPECT_TRUE(full.at("freeze").logged("Issuing full establish..."));
    EXPECT_EQ(state("frozen", "00A1", "01A1"), 2);
    EXPECT_EQ(saved_number("frozen", "tracks", "00A1", "01A1"), all_tracks);
    EXPECT_EQ(full.at("ctl").log, Words());
    EXPECT_EQ(in_text("text", "PMINFO-sync_at_end"), "1");
    const int64_t back = tracks_moved();
    EXPECT_GT(back, 0);
    EXPECT_LT(back, all_tracks / 4);

    array("clock advance 60");
    fill("/data", "again");
    const Phase second = expect_a_whole_snapshot(on_device("p1"), "/dev/sda", "sync_at_start=2");
    EXPECT_FALSE(second.at("freeze").logged("Issuing full establish..."));
    EXPECT_EQ(saved_number("frozen", "tracks", "00A1", "01A1"), back);

    array("clock advance 60");
    array("split 000184500123 00A1 01A1");
    fill("/data", "once more");
    expect_a_whole_snapshot(on_device("p1"), "/dev/sda", "sync_at_start=0");
    EXPECT_LT(saved_number("joined", "tracks", "00A1", "01A1"), all_tracks / 2);
}

// A full establish names the device and not the BCV; the array takes the first pair of the device's
// group. A pair of another group has been released by then and is not meant.
TEST_F(Mirrors, sync_at_start_2_passes_over_one_of_another_group_needs_root) {
    make(on_device("p3"));
    array("clock advance 60");
    expect_a_whole_snapshot(on_device("p3"), "/dev/sde", "sync_at_start=2");
    EXPECT_EQ(state("frozen", "00A3", "03A1"), 5);
    EXPECT_EQ(saved_number("frozen", "tracks", "00A3", "03A2"), all_tracks);
}

// So it cannot serve where the first pair of the group is somebody else's and runs. The record is
// to be established at the end by then, but names no BCV yet: the process cannot give it up, and
// its lock goes when the next process finds that nobody owns it.
TEST_F(Mirrors, sync_at_start_2_is_refused_where_another_bcv_comes_first_needs_root) {
    make(on_device("p2"));
    array("clock advance 60");
    const Phase failed = phase({"freeze", "sync_at_start=2", "/data", "/copy", "or_give_up"});
    expect_array_call_failed(failed.at("freeze"), 8,
                             "find_bcv_pair: SymAPI call to SymLdevBcvControl on device "
                             "/dev/qz/rdmp/p2 failed with code 303 (");
    expect_success(failed.at("thaw"));
    expect_array_call_failed(
        failed.at("thaw_commit"), 3,
        "wait_for_establish: SymAPI call to SymDevSync on device  failed with code ");
    EXPECT_TRUE(failed.at("thaw_commit").logged("split_device failed"));
    EXPECT_NE(counter_files(), "");
    EXPECT_EQ(pair_state("00A2", "02A1"), 2);
    EXPECT_EQ(pair_state("00A2", "02A2"), 5);
    const Phase whole = expect_a_whole_snapshot(on_device("p2"), "/dev/sdc");
    EXPECT_TRUE(whole.at("freeze").logged_part("truncating leftover lock file: "));
}

// Flag 3 finds the pair and goes on; whoever freezes so has to see to the rest.
TEST_F(Mirrors, no_wait_freeze_returns_while_the_pair_synchronises_needs_root) {
    make(on_device("p1"));
    const std::string before = sums("/data");
    begin_slow_establish();
    const double then = clock_seconds();
    const Phase taken = phase({"freeze_no_wait", "-", "/data", "/copy", "run", save_array("frozen"),
                               "ctl", "4", "commit", "run", "tfarray clock advance 64", "commit",
                               "volumes", "ckpt", "/exchange/text"});
    expect_success(taken.at("freeze"));
    EXPECT_TRUE(taken.at("freeze").handle);
    EXPECT_FALSE(taken.at("freeze").logged_part("Waiting to exit"));
    EXPECT_EQ(state("frozen", "00A1", "01A1"), 1);
    EXPECT_EQ(taken.at("ctl").log, Words());
    expect_failure(taken.at("commit", 0), 11,
                   "emc_tf_split_prepare: Device /dev/qz/rdmp/p1 cannot be split at freeze; "
                   "bcv_pair_state=1");
    EXPECT_EQ(clock_seconds(), then + 64);
    expect_success(taken.at("commit", 1));
    expect_success(taken.at("volumes"));
    EXPECT_EQ(sums("/copy"), before);
    expect_all_succeed(phase({"rebuild", "/exchange/text", "thaw", "thaw_commit"}));
    expect_nothing_left("/copy");
}

// It does not queue a pair either that has to be established first.
TEST_F(Mirrors, no_wait_freeze_leaves_a_split_pair_split_needs_root) {
    make(on_device("p1"));
    const Phase failed = phase({"freeze_no_wait", "sync_at_start=1", "/data", "/copy", "ctl", "4",
                                "commit", "or_give_up"});
    expect_success(failed.at("freeze"));
    EXPECT_EQ(failed.at("ctl").log, Words());
    expect_failure(failed.at("commit"), 11,
                   "emc_tf_split_prepare: Device /dev/qz/rdmp/p1 cannot be split at freeze; "
                   "bcv_pair_state=5");
    EXPECT_EQ(pair_state(), 5);
    expect_nothing_left("/copy");
}

}  // namespace
}  // namespace test
