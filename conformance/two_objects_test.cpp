// Several objects in one process, on one array and on two.
#include "conformance/contract.h"

namespace conformance {
namespace {

constexpr char first_array[] = "000184500123", second_array[] = "000184500777";

// Standard devices p1 and p2 of the first array, p3 and p4 of the second one, each synchronised
// with its mirror.
class TwoObjects : public Contract {
  protected:
    TwoObjects() : Contract("two_arrays", {"client1"}) {}
    void furnish() override {
        join(first_array, "00A1 01A1");
        join(first_array, "00A2 01A2");
        join(second_array, "00B1 01B1");
        join(second_array, "00B2 01B2");
        array("clock advance 60");
    }
    void join(const std::string &symid, const std::string &pair) {
        array("establish --full " + symid + " " + pair);
    }
    static Words frozen(int number, const std::string &device) {
        return object(number) + freeze("-", "/dev/qz/dmp/" + device);
    }
    static Words both(const std::string &first, const std::string &second) {
        return frozen(0, first) + frozen(1, second);
    }
    static Words release_both() {
        return object(0) + thaw() + object(1) + thaw() + object(0) + thaw_commit() + object(1) +
               thaw_commit();
    }
    int states() {
        return world().pair_state("00A1", "01A1") * 1000 +
               world().pair_state("00A2", "01A2") * 100 +
               world().pair_state("00B1", "01B1", second_array) * 10 +
               world().pair_state("00B2", "01B2", second_array);
    }
};

TEST_F(TwoObjects, on_one_array_are_split_by_the_first_commit) {
    contract("freeze commit: the first call does the work for every object of the process");
    int split = 0;
    const Phase seen = run_with(
        both("p1", "p2") + object(0) + commit(), [&] { split = states(); },
        object(1) + commit() + release_both());
    all_succeed(seen);
    is("states after the first commit", 5522, split);
    logs(seen.at("commit"), "Total BCVs to split : 2");
    log_is(seen.at("commit", 1), {});
}

TEST_F(TwoObjects, are_split_in_the_order_newest_first) {
    contract("freeze commit: new groups and objects stand at the head of their lists");
    const Phase seen = run(both("p1", "p2") + commit() + release_both(), 0);
    log_is(seen.at("commit"),
           {"Adding <00A2, 01A2> to split list", "Adding <00A1, 01A1> to split list",
            "Total BCVs to split : 2", "Split started ...", "Split end"});
}

TEST_F(TwoObjects, on_two_arrays_are_split_by_one_commit) {
    contract("one device-list call per array");
    int split = 0;
    const Phase seen = run_with(
        both("p1", "p3") + commit(), [&] { split = states(); }, release_both());
    all_succeed(seen);
    is("states after the commit", 5252, split);
}

TEST_F(TwoObjects, on_two_arrays_have_a_counter_file_each) {
    contract("the counter counts per array");
    const Phase seen =
        run(both("p1", "p3") + shell("ls /usr/quill/tessera/online_util/db_cntl >/exchange/names") +
            commit() + release_both());
    all_succeed(seen);
    is("counter files", "__LOCKFILE_0001845001230000\n__LOCKFILE_0001845007770000\n",
       file("names"));
}

TEST_F(TwoObjects, on_two_arrays_both_see_issplit_0) {
    contract("the first device of an array sees the flag 0");
    const Phase seen = run(both("p1", "p3") + record() + object(0) + record() + release_both());
    field_is(seen.at("whole_record", 0), "pm.issplit", "0");
    field_is(seen.at("whole_record", 1), "pm.issplit", "0");
}

TEST_F(TwoObjects, that_share_a_device_are_one_entry_of_the_split_list) {
    contract("freeze commit: a standard device shared by two objects is split once");
    const Phase seen = run(both("p1", "p1") + commit() + release_both());
    all_succeed(seen);
    logs(seen.at("commit"), "Total BCVs to split : 1");
}

TEST_F(TwoObjects, keep_the_session_open_at_the_commit) {
    contract("the session ends when client_count falls to 0; only the first commit counts down");
    const Phase seen = run(both("p1", "p2") + commit() + object(0) + commit() + release_both());
    all_succeed(seen);
    logs_not(seen.at("commit", 0), "Waiting for SymExit...");
    logs_not(seen.at("commit", 1), "Waiting for SymExit...");
    logs(seen.at("thaw_commit", 1), "Waiting for SymExit...");
}

TEST_F(TwoObjects, start_the_session_once) {
    contract("a second freeze of the process does not start the session again");
    const Phase seen = run(both("p1", "p2") + release_both());
    logs(seen.at("freeze", 0), "Waiting for SymInit...");
    logs_not(seen.at("freeze", 1), "Waiting for SymInit...");
    logs_not(seen.at("freeze", 1), "Linking");
}

TEST_F(TwoObjects, are_joined_again_by_the_last_thaw_commit) {
    contract("thaw commit: calls before the last do nothing on the array");
    int after_first = 0;
    const Phase seen = run_with(
        both("p1", "p3") + commit() + object(0) + release(), [&] { after_first = states(); },
        object(1) + release());
    all_succeed(seen);
    is("states after the first thaw commit", 5252, after_first);
    log_is(seen.at("thaw_commit", 0), {});
    logs(seen.at("thaw_commit", 1), "Total BCVs to resync : 2");
}

TEST_F(TwoObjects, give_both_locks_back_with_the_last_thaw_commit) {
    contract("thaw commit releases the locks of all objects of its process");
    std::string between;
    all_succeed(run_with(
        both("p1", "p3") + commit() + object(0) + release(),
        [&] { between = world().counter_files(); }, object(1) + release()));
    is("counter files between the two", 1,
       between.find("0001845001230000") < between.size() &&
           between.find("0001845007770000") < between.size());
    is("counter files at the end", "", world().counter_files());
}

TEST_F(TwoObjects, of_which_one_fails_are_both_given_up_and_nothing_was_split) {
    contract("a failed freeze that returns a handle is rolled back with thaw and thaw commit");
    const Phase seen =
        run(frozen(0, "p1") + shell("tfarray fault add SymPdevSync --at 1 >/dev/null") +
            frozen(1, "p2") + release() + object(0) + release());
    fails_beginning(seen.at("freeze", 1), 3,
                    "find_bcv_pair: SymAPI call to SymPdevSync on device /dev/qz/rdmp/p2 failed ");
    handle_is(seen.at("freeze", 1), true);
    for (size_t i = 0; i < 2; ++i) succeeds(seen.at("thaw_commit", i));
    is("states", 2222, states());
}

TEST_F(TwoObjects, of_which_one_was_refused_are_counted_as_one) {
    contract("the common failure exit leaves nothing of its record behind");
    const Phase seen = run(frozen(0, "p1") + object(1) + freeze("-", "/no/such/path") + object(0) +
                           commit() + release());
    handle_is(seen.at("freeze", 1), false);
    logs(seen.at("commit"), "Waiting for SymExit...");
    logs(seen.at("thaw_commit"), "Resync end");
}

TEST_F(TwoObjects, queued_on_two_arrays_are_established_by_one_control_code_4) {
    contract("ctl 4: one call per array, then a wait for every pair");
    array(std::string("split ") + first_array + " 00A1 01A1");
    array(std::string("split ") + second_array + " 00B1 01B1");
    int joined = 0;
    const Phase seen = run_with(
        both("p1", "p3") + ctl(4), [&] { joined = states(); }, release_both());
    all_succeed(seen);
    logs(seen.at("ctl"), "Total BCVs to resync at start : 2");
    is("states after ctl 4", 2222, joined);
}

TEST_F(TwoObjects, that_share_a_device_are_queued_once) {
    contract("pair discovery: a device that is in the queue is not added again, silently");
    array(std::string("split ") + first_array + " 00A1 01A1");
    const Phase seen = run(both("p1", "p1") + ctl(4) + release_both());
    all_succeed(seen);
    logs(seen.at("ctl"), "Total BCVs to resync at start : 1");
}

TEST_F(TwoObjects, are_rebuilt_and_released_in_another_process) {
    contract("rebuild adds one to the objects of the process; the last thaw commit does the work");
    run(both("p1", "p3") + commit() + ckpt("two") + object(0) + ckpt("one"));
    const Phase seen = run(rebuild("one") + object(1) + rebuild("two") + release_both());
    all_succeed(seen);
    log_is(seen.at("thaw_commit", 0), {});
    logs(seen.at("thaw_commit", 1), "Total BCVs to resync : 2");
}

TEST_F(TwoObjects, of_two_processes_on_two_arrays_do_not_meet) {
    contract("one live process at a time is the owner of an array, not of all");
    Phase second;
    all_succeed(run_with(
        frozen(0, "p1") + commit(), [&] { second = run(frozen(0, "p3") + commit() + release()); },
        release()));
    all_succeed(second);
}

TEST_F(TwoObjects, of_two_processes_on_one_array_are_kept_apart) {
    contract("the counter counts per array, so another device of it is refused as well");
    Phase second;
    all_succeed(run_with(
        frozen(0, "p1") + commit(), [&] { second = run(frozen(0, "p2") + Words{"rollback"}); },
        release()));
    fails(second.at("freeze"), 3, "find_bcv_pair: Cannot get lock on device: /dev/qz/rdmp/p2");
}

}  // namespace
}  // namespace conformance
