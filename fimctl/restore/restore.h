// Restore: the mirrors of a snapshot are copied back over its primaries.
//
// The method reports success also where it has restored nothing (a pair that it found established,
// a session that did not end), so the array is asked, before and after, and its word counts.
#pragma once

#include <cstdint>
#include <string>

#include "fimctl/cycle.h"
#include "fimctl/restore/phase.h"
#include "fimctl/restore/plan.h"

namespace fimctl {

struct RestoreOptions {
    bool yes = false;     // no question
    std::string confirm;  // the code of the plan that the caller has seen
    bool json = false;    // of the plan alone
    PlanOptions plan;
};

class Restore {
  public:
    Restore(const Settings &settings, Catalogue &catalogue);

    // Prints the plan to standard output. Throws Failure (usage) when something is against it.
    void show_plan(int64_t id, const RestoreOptions &options);
    // Shows the plan, has it confirmed, makes it again under the snapshot's lock, and does it.
    // Throws Failure.
    void perform(int64_t id, const RestoreOptions &options);

  private:
    // How the pairs of a plan are after the work.
    struct Judgement {
        bool known = false;     // the array has answered
        bool restored = false;  // every pair
        bool begun = false;     // one pair at least
        std::string others;     // pairs that are neither restored nor split
        std::string rest;       // pairs that are not restored
    };

    void confirm(const RestorePlan &plan, const RestoreOptions &options) const;
    void work(const SnapshotRecord &snapshot, RestorePlan plan);
    Cycle::Outcome phase(const RestorePlan &plan, const RestoreJob &job);
    void enter(const RestorePlan &plan);
    Judgement judge(const RestorePlan &plan) const;
    void end(const RestorePlan &plan, const Cycle::Outcome &outcome);
    void end_restored(const RestorePlan &plan, const Cycle::Outcome &outcome);
    [[noreturn]] void end_untouched(const RestorePlan &plan, const Cycle::Outcome &outcome,
                                    const Judgement &judgement);
    [[noreturn]] void give_up(Failure failure, int64_t id);

    Cycle cycle_;
    Catalogue &catalogue_;
    const std::string method_;
    bool entered_ = false;  // state restoring: from here on something may be away
    size_t ending_ = 0;     // the object that is being ended
};

// Before the release of a snapshot whose restore was begun and not ended: when no pair was restored
// yet, everything is put back, and the release may go on. When one was, the release would copy
// half-restored primaries over the mirrors, the only whole copy: refused (usage), unless abandoned
// says that the copy is given up; what the array still restores is waited for then. Throws Failure.
void prepare_release_of_restoring(const SnapshotRecord &snapshot, bool abandoned);

}  // namespace fimctl
