// Runs the processes of a scenario with one call met by the agent, and tells what came of it.
//
//   Bench bench(scenario("file_system"), "array");
//   for (const Site &site : bench.sites(0)) ...           what process 0 reaches without a fault
//   const Outcome outcome = bench.run(0, {"array", site, "fail", 114, "-", 1, "once"});
//   outcome.line()       what is compared with the expected table
//   outcome.wrong        what must never be, whatever a table says; empty: survived
//
// A bench keeps one world for many runs. A run is: the processes before the faulted one, as ever;
// the faulted one; the same one again without a fault, which has to succeed; the rest; settling;
// and then the picture of the world must be what it was. A world that is not is thrown away.
#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "proof/kit/scenario.h"
#include "proof/kit/site_names.h"

namespace proof {

// A place that was reached, and how often.
struct Site {
    std::string name;      // see site_names.h
    std::string key;       // the agent's, for a plan; changes with the library
    std::string function;  // "SymPdevShow"
    size_t calls = 0;
};

// What the agent is to do; see proof/agent/sites.h.
struct Plan {
    std::string kind;  // "array", "alloc", "system"
    Site site;
    std::string fate;  // "fail", "fail_after", "kill", "kill_after", "lie"
    long value = 0;
    std::string word = "-";
    size_t call = 1;
    std::string scope = "once";  // "once", "site", "function", "kind"

    std::string text() const;  // TFAGENT_PLAN
};

struct Outcome {
    test::Phase faulted;             // what the faulted process gave
    std::vector<std::string> notes;  // what the agent noted
    bool fired = false;              // the plan met its call
    bool done = false;               // every call succeeded, and what was to come of it came
    int killed_by = 0;  // the signal that ended the faulted process; 0: it ended by itself
    // What is left by the faulted process, before anything is repeated: states of the pairs,
    // counter files, captures. "pairs 2 2; locks 0; captures 2; mounts 0".
    std::string left;
    std::vector<std::string> wrong;

    // "freeze 11 3 QfMEtf1170N QfMEtf1170N; thaw 0; thaw_commit 0 | pairs 2; locks 0; captures 0":
    // of each call the status, and where that is not 0 or a number was stored, the number and the
    // message in errmsg and logmsg.
    std::string line() const;
};

// The identifier of a message ("QfMEtf1170N") by its text; "-" for an empty text, "?" for an
// unknown one.
std::string message_id(const std::string &text);

class Bench {
  public:
    // kinds: what to record ("array"). The world is made when it is needed first.
    Bench(const Scenario &scenario, std::string kind);
    ~Bench();

    // What the n-th process reaches, in the order in which it is reached first.
    const std::vector<Site> &sites(size_t process);
    // What it gives then.
    const test::Phase &without_fault(size_t process);

    struct Checks {
        bool may_be_killed = false;  // the plan kills the process: that is no crash
        double limit = 20;           // real seconds after which the faulted process hangs
        // What an administrator does on the process's host before it is repeated, beside its own
        // repair: lines of the shell.
        Words repair = {};
    };
    Outcome run(size_t process, const Plan &plan, const Checks &checks);
    Outcome run(size_t process, const Plan &plan) { return run(process, plan, Checks()); }

    // The same with no call met, but a process of another kind: NAME=VALUE of its environment.
    Outcome run_in(size_t process, const Words &environment);

    // The world, for rows that look at more; made when there is none.
    test::LabWorld &world();
    // Throws the world away.
    void renew();
    // Real seconds that the fault-free processes take, to choose limits by.
    double seconds() const { return seconds_; }

  private:
    void record();
    void run_before(size_t number);
    // done: whether it succeeded, and what comes after it did, too; null: that is taken for
    // granted.
    test::Phase process(size_t number, const Words &environment, double limit,
                        bool *done = nullptr);
    std::string whole_picture();
    void run_lines(const Words &lines);
    void settle();
    void look(const Plan &plan, const Checks &checks, Outcome *outcome);
    void finish(size_t number, const Words &repair, Outcome *outcome);

    const Scenario &scenario_;
    std::string kind_;
    std::unique_ptr<test::LabWorld> world_;
    std::string before_;  // the picture
    std::vector<std::vector<Site>> sites_;
    std::vector<test::Phase> without_fault_;
    double seconds_ = 0;
};

}  // namespace proof
