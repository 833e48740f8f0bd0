// Which of a device's mirrors serves, by label, group and state.
#include "conformance/contract.h"

namespace conformance {
namespace {

// Standard devices p1: one labelled mirror, split. p2: somebody else's, synchronised, and a
// labelled one, split. p3: one of another group, synchronised, and the right one, split. p4: one
// without label, synchronised. p5: one without label, split.
class Mirrors : public Contract {
  protected:
    Mirrors() : Contract("mirrors", {"client1"}) {}
    void furnish() override {
        array("establish --full 000184500123 00A1 01A1");
        array("clock advance 60");
    }
    static Words frozen(const std::string &device, const std::string &config = "-") {
        return freeze(config, "/dev/qz/dmp/" + device);
    }
    // A mirror that is joined at the end of a case is split again.
    void split(const std::string &pair) {
        array("clock advance 60");
        array("split 000184500123 " + pair);
    }
};

TEST_F(Mirrors, labelled_and_split_is_queued_and_established_by_control_code_4) {
    contract("BCV selection: a labelled, associated, split one is chosen and needs an establish");
    split("00A1 01A1");
    const Phase seen = run(frozen("p1") + record() + ctl(4) + commit() + release());
    all_succeed(seen);
    field_is(seen.at("whole_record"), "pm.bcvdev_sym_devname", "01A1");
    field_is(seen.at("whole_record"), "pm.sync_at_end", "1");
    logs(seen.at("ctl"), "Total BCVs to resync at start : 1");
}

TEST_F(Mirrors, of_somebody_else_is_passed_over_for_a_labelled_one) {
    contract("BCV selection: while labels are in use unlabelled mirrors are passed over");
    const Phase seen = run(frozen("p2") + record() + ctl(4) + commit() + release());
    all_succeed(seen);
    field_is(seen.at("whole_record"), "pm.bcvdev_sym_devname", "02A2");
    logs(seen.at("freeze"), "find_valid_bcv: This BCV does not have TSR-BCV label: REPORTS");
    split("00A2 02A2");
}

TEST_F(Mirrors, with_a_longer_label_counts_by_its_first_seven_characters) {
    contract("BCV selection: the first 7 characters of the logical device name are compared");
    array("label 000184500123 04A1 TSR-BCV-07");
    const Phase seen = run(frozen("p4") + record() + commit() + release());
    all_succeed(seen);
    field_is(seen.at("whole_record"), "pm.bcvdev_sym_devname", "04A1");
}

TEST_F(Mirrors, of_another_group_that_is_synchronised_is_released_first) {
    contract("BCV selection: a synchronised mirror of another group is released with action 2");
    const Phase seen = run(frozen("p3") + record() + ctl(4) + commit() + release());
    all_succeed(seen);
    field_is(seen.at("whole_record"), "pm.bcvdev_sym_devname", "03A2");
    logs(
        seen.at("freeze"),
        "find_valid_bcv: the BCV synchoronized with primary disk does not have correct association "
        ": BCV: <bcvdev_dgname: datadg>, <bcvdev_dgname2: otherdg> <bcvdev_dgname3: datadg> "
        "<dev_sym_devname: 00A3>");
    is("released mirror", 5, world().pair_state("00A3", "03A1"));
    split("00A3 03A2");
    array("establish --full 000184500123 00A3 03A1");
}

TEST_F(Mirrors, without_any_label_and_synchronised_serves) {
    contract("BCV selection: with no label in use a synchronised, associated one is the choice");
    array("label 000184500123 04A1 SPARE");
    const Phase seen = run(frozen("p4") + record() + commit() + release());
    all_succeed(seen);
    field_is(seen.at("whole_record"), "pm.bcvdev_sym_devname", "04A1");
}

TEST_F(Mirrors, without_label_and_split_is_chosen_but_not_queued) {
    contract("BCV selection: an unlabelled choice does not set need_establish");
    const Phase seen = run(frozen("p5") + record() + ctl(4) + release());
    all_succeed(seen);
    field_is(seen.at("whole_record"), "pm.bcvdev_sym_devname", "05A1");
    field_is(seen.at("whole_record"), "pm.sync_at_end", "0");
    log_is(seen.at("ctl"), {});
}

TEST_F(Mirrors, without_label_and_split_is_queued_by_sync_at_start_1) {
    contract("pair discovery: sync_at_start 1 enrols every pair that is not synchronised");
    const Phase seen = run(frozen("p5", "sync_at_start=1") + ctl(4) + commit() + release());
    all_succeed(seen);
    logs(seen.at("ctl"), "Total BCVs to resync at start : 1");
    split("00A5 05A1");
}

TEST_F(Mirrors, none_at_all_fails_the_freeze_with_10) {
    contract("pair discovery: \"%s: Device %s is not a member of a BCV pair\", number 10, 11");
    array("device create 000184500123 00B1 --size 16M");
    array("mask 000184500123 00B1 client1 /dev/qz/dmp/lone /dev/qz/rdmp/lone");
    const Phase seen = run(frozen("lone") + release());
    fails(seen.at("freeze"), 10,
          "find_bcv_pair: Device /dev/qz/rdmp/lone is not a member of a BCV pair");
    handle_is(seen.at("freeze"), true);
    succeeds(seen.at("thaw_commit"));
    array("unmask 000184500123 00B1 client1");
}

TEST_F(Mirrors, still_synchronising_is_waited_for) {
    contract("waits: state 1 is polled once a second until it is left");
    split("00A1 01A1");
    array("rate 8");
    array("establish --full 000184500123 00A1 01A1");
    const Phase seen = run(frozen("p1") + commit() + release());
    array("rate 1024");
    all_succeed(seen);
    logs(seen.at("freeze"), "...Waiting to exit SYNC_IN_PROGRESS state...");
}

TEST_F(Mirrors, that_takes_time_to_split_is_waited_for) {
    contract("freeze commit: state 3 is polled every second without limit");
    array("split-time 40");
    int state = 0;
    const Phase seen = run_with(
        frozen("p1") + commit(), [&] { state = world().pair_state("00A1", "01A1"); }, release());
    array("split-time 0");
    all_succeed(seen);
    is("state after the commit", 5, state);
}

TEST_F(Mirrors, still_busy_in_the_background_makes_the_next_call_wait) {
    contract("a control call that answers 1012 or 1013 is repeated every 10 seconds");
    array("background-time 25");
    const Phase seen = run(frozen("p1") + commit() + release());
    array("background-time 0");
    all_succeed(seen);
    logs(seen.at("thaw_commit"), "Waiting split in background to finish");
}

}  // namespace
}  // namespace conformance
