// Several processes on one host that freeze at the same time, and processes that were killed.
#include "tests/lab_scenarios/scenario.h"

namespace test {
namespace {

constexpr char first_array[] = "0001845001230000", second_array[] = "0001845007770000";

const Source on_first = {"ext4", "/dev/qz/dmp/p1", "/data1", "/copy1"};
const Source also_on_first = {"xfs", "/dev/qz/dmp/p2", "/data2", "/copy2"};
const Source on_second = {"ext4", "/dev/qz/dmp/p3", "/data3", "/copy3"};

std::string counter_path(const char *serial) {
    return std::string("/usr/quill/tessera/online_util/db_cntl/__LOCKFILE_") + serial;
}

class Processes : public Scenario {
  protected:
    Processes() : Scenario("two_arrays") {}

    // Steps that wait until every one of these processes has come so far.
    static Words meet(const std::string &point, const std::string &name, const Words &all) {
        std::string line = "cd /exchange && touch " + point + "." + name;
        for (const std::string &one : all) {
            line += " && until [ -e " + point + "." + one + " ]; do sleep 0.01; done";
        }
        return {"run", line};
    }
    static Words join(const std::vector<Words> &parts) {
        Words all;
        for (const Words &part : parts) all.insert(all.end(), part.begin(), part.end());
        return all;
    }
    // A whole snapshot: its copy is what the source was at the cut, and has no fault.
    void expect_a_snapshot(const Source &source, const std::string &mirror) {
        expect_a_whole_snapshot(source, mirror);
        array("clock advance 60");
    }
    void expect_given_up(const Phase &phase, size_t freeze, const char *serial,
                         const std::string &raw) {
        expect_failure(phase.at("freeze", freeze), 3,
                       "find_bcv_pair: Cannot get lock on device: " + raw);
        EXPECT_TRUE(phase.at("freeze", freeze).logged_part("lock pid("));
        EXPECT_TRUE(phase.at("freeze", freeze).logged_part("): " + counter_path(serial)));
        for (const Call &call : phase.calls) {
            if (call.step != "freeze") expect_success(call);
        }
    }
    // The next process takes over what a killed one left, and its snapshot is a good one.
    void expect_taken_over(const Source &source, const std::string &mirror);
};

// Both begin at the same moment; neither ends before both have tried.
TEST_F(Processes, one_of_two_that_freeze_on_one_array_at_once_gets_it_needs_root) {
    make(on_first);
    make(also_on_first);
    for (int round = 0; round < 4; ++round) {
        const Words names = {"a" + std::to_string(round), "b" + std::to_string(round)};
        const auto steps = [&](size_t which, const Source &source) {
            return join({meet("ready", names[which], names),
                         {"freeze", "-", source.folder, source.copy},
                         meet("tried", names[which], names),
                         {"or_give_up", "ctl", "4", "commit", "volumes", "thaw", "thaw_commit"}});
        };
        const Running running[] = {begin_phase(steps(0, on_first)),
                                   begin_phase(steps(1, also_on_first))};
        const Phase ended[] = {end_phase(running[0]), end_phase(running[1])};
        const size_t winner = ended[0].at("freeze").status == 0 ? 0 : 1;
        expect_all_succeed(ended[winner]);
        EXPECT_EQ(ended[winner].calls.size(), 6U);
        expect_given_up(ended[1 - winner], 0, first_array,
                        winner == 0 ? "/dev/qz/rdmp/p2" : "/dev/qz/rdmp/p1");
        expect_nothing_left("/copy[12]");
        array("clock advance 60");
    }
    expect_a_snapshot(on_first, "/dev/sdq");
    expect_a_snapshot(also_on_first, "/dev/sdr");
}

TEST_F(Processes, two_that_freeze_on_two_arrays_at_once_both_take_snapshots_needs_root) {
    make(on_first);
    make(on_second);
    const Words names = {"a", "b"};
    const auto steps = [&](size_t which, const Source &source, const std::string &mirror) {
        return join(
            {meet("ready", names[which], names),
             {"freeze", "-", source.folder, source.copy},
             meet("frozen", names[which], names),
             {"ctl", "4", "run", "fsfreeze -f " + source.folder, "commit", "run",
              "fsfreeze -u " + source.folder},
             meet("split", names[which], names),
             {"volumes", "run",
              "cd " + source.copy + " && sha256sum f1000000 >/exchange/sum." + names[which]},
             meet("up", names[which], names),
             {"thaw", "run", sound("ext4", mirror), "thaw_commit"}});
    };
    const Running one = begin_phase(steps(0, on_first, "/dev/sdq"));
    const Running other = begin_phase(steps(1, on_second, "/dev/sds"));
    wait_for_file("up.a");
    wait_for_file("up.b");
    const Phase ended[] = {end_phase(one), end_phase(other)};
    for (const Phase &phase : ended) expect_all_succeed(phase);
    EXPECT_EQ(saved("sum.a"), host("cd /data1 && sha256sum f1000000"));
    EXPECT_EQ(saved("sum.b"), host("cd /data3 && sha256sum f1000000"));
    array("clock advance 60");
    EXPECT_EQ(pair_state("00A1", "01A1"), 2);
    EXPECT_EQ(pair_state("00B1", "01B1", "000184500777"), 2);
    expect_nothing_left("/copy[13]");
}

// Each holds the array that the other wants next. Nobody waits for the other, so nobody waits for
// ever: both give up, and what they held is free.
TEST_F(Processes, two_that_want_each_others_array_both_give_up_needs_root) {
    make(on_first);
    make(on_second);
    // Whoever gives up establishes what was split, so here the pairs run already.
    array("establish 000184500123 00A1 01A1");
    array("establish 000184500777 00B1 01B1");
    array("clock advance 60");
    const std::string before = picture();
    const Words names = {"a", "b"};
    const auto steps = [&](size_t which, const Source &source, const Source &next) {
        return join({{"freeze", "-", source.folder, source.copy},
                     meet("one", names[which], names),
                     {"object", "1", "freeze", "-", next.folder, next.copy},
                     meet("two", names[which], names),
                     {"or_give_up"}});
    };
    const Running one = begin_phase(steps(0, on_first, on_second));
    const Running other = begin_phase(steps(1, on_second, on_first));
    const Phase ended[] = {end_phase(one), end_phase(other)};
    for (const Phase &phase : ended) expect_success(phase.at("freeze", 0));
    expect_given_up(ended[0], 1, second_array, "/dev/qz/rdmp/p3");
    expect_given_up(ended[1], 1, first_array, "/dev/qz/rdmp/p1");
    EXPECT_EQ(picture(), before);
    expect_a_snapshot(on_first, "/dev/sdq");
    expect_a_snapshot(on_second, "/dev/sds");
}

// As operators do it. What is left of the first one's freeze is no hindrance while its command
// runs; only whoever finds the other just then at the array is told so.
TEST_F(Processes, two_backups_at_once_on_one_array_end_well_or_are_told_why_needs_root) {
    make(on_first);
    make(also_on_first);
    host(
        "export LD_PRELOAD=/usr/lib/tflab/libtflabsleep.so; cd /exchange;"
        "for n in 1 2; do (fimctl -q run /data$n -- sh -c \"cmp /data$n/f65537 \\$1/f65537\" x {}"
        " >said$n 2>&1; echo $? >status$n) & done; wait");
    int good = 0;
    for (const char *n : {"1", "2"}) {
        const std::string status = saved(std::string("status") + n);
        const std::string said = saved(std::string("said") + n);
        if (status == "0\n") {
            ++good;
            EXPECT_EQ(said, "");
        } else {
            EXPECT_EQ(status, "11\n") << said;
            EXPECT_NE(said.find("owns the array's mirrors"), std::string::npos) << said;
        }
    }
    EXPECT_GE(good, 1);
    expect_nothing_left("/var/lib/fimctl/mnt/.*");
    array("clock advance 60");
    for (const char *n : {"1", "2"})
        host(
            "LD_PRELOAD=/usr/lib/tflab/libtflabsleep.so"
            " fimctl -q run /data" +
            std::string(n) + " -- true");
}

void Processes::expect_taken_over(const Source &source, const std::string &mirror) {
    host("rm -f /tmp/QfMS* /tmp/EMCTX*");
    const Phase whole = expect_a_whole_snapshot(source, mirror);
    EXPECT_TRUE(
        whole.at("freeze").logged("truncating leftover lock file: " + counter_path(first_array)));
}

TEST_F(Processes, one_killed_before_the_split_leaves_a_lock_that_is_taken_over_needs_root) {
    make(on_first);
    const Phase killed = end_phase(begin_phase({"freeze", "-", "/data1", "/copy1", "ctl", "4",
                                                "run", "kill -9 $PPID", "commit"}),
                                   137);
    EXPECT_EQ(killed.calls.size(), 2U);
    EXPECT_EQ(host("stat -c %s " + counter_path(first_array)), "12\n");
    EXPECT_EQ(pair_state(), 2);
    expect_taken_over(on_first, "/dev/sdq");
}

TEST_F(Processes, one_killed_after_the_split_leaves_a_lock_that_is_taken_over_needs_root) {
    make(on_first);
    const Phase killed = end_phase(begin_phase({"freeze", "-", "/data1", "/copy1", "ctl", "4",
                                                "commit", "run", "kill -9 $PPID", "thaw"}),
                                   137);
    EXPECT_EQ(killed.calls.size(), 3U);
    EXPECT_EQ(pair_state(), 5);
    change("/data1");
    expect_taken_over(on_first, "/dev/sdq");
    EXPECT_EQ(saved_number("frozen", "state", "00A1", "01A1"), 5);
}

// Killed in the midst of its wait for the pair, which the array goes on to synchronise.
TEST_F(Processes, one_killed_while_it_waits_leaves_a_lock_that_is_taken_over_needs_root) {
    make(on_first);
    array("clock stop");
    array("rate 1");
    array("establish --full 000184500123 00A1 01A1");
    array("fault add SymDevSync --at 2 --delay-ms 60000 --code 0");
    const Running running = begin_phase({"run", "echo $PPID >/exchange/pid; touch /exchange/began",
                                         "freeze", "-", "/data1", "/copy1", "commit"});
    wait_for_file("began");
    host("until [ -s " + counter_path(first_array) +
         " ]; do sleep 0.01; done;"
         " kill -9 $(cat /exchange/pid)");
    const Phase killed = end_phase(running, 137);
    EXPECT_EQ(killed.calls.size(), 0U);
    EXPECT_EQ(pair_state(), 1);
    array("fault clear");
    expect_taken_over(on_first, "/dev/sdq");
}

// A live process keeps what it has: the one that finds the lock does not take it, even when it
// waits for its turn at the lock file of the host.
TEST_F(Processes, one_that_is_stopped_is_alive_and_keeps_the_array_needs_root) {
    make(on_first);
    const Running owner = begin_phase({"freeze", "-", "/data1", "/copy1", "run",
                                       "echo $PPID >/exchange/pid; touch /exchange/held", "run",
                                       "until [ -e /exchange/go ]; do sleep 0.01; done", "ctl", "4",
                                       "commit", "thaw", "thaw_commit"});
    wait_for_file("held");
    host("kill -STOP $(cat /exchange/pid)");
    const Phase refused = phase({"freeze", "-", "/data1", "/copy1", "or_give_up"});
    expect_given_up(refused, 0, first_array, "/dev/qz/rdmp/p1");
    host("kill -CONT $(cat /exchange/pid)");
    make_file("go");
    expect_all_succeed(end_phase(owner));
    expect_nothing_left("/copy1");
}

}  // namespace
}  // namespace test
