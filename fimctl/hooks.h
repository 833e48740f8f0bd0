// Hooks: the site's own programs, told before and after each step of a snapshot's life.
//
// Every step that is announced ("pre-") is ended ("post-"), however it ends, so that a database
// that was told to hold still is told to go on. No hook runs while a file system is frozen: the
// pre-split hooks have ended before the first one is frozen, the post-split hooks start when the
// last one is thawed.
#pragma once

#include <span>
#include <string>
#include <vector>

#include "fimctl/catalogue.h"
#include "fimctl/failure.h"

namespace fimctl {

struct Settings;

enum class HookPhase {
    pre_freeze,   // the snapshot is entered; the array has not been asked for anything
    post_freeze,  // the copy is there and judged good, or all is rolled back
    pre_split,    // the mirrors are ready; next the file systems are frozen and the pairs split
    post_split,   // file systems thawed, pairs split; or rolled back
    pre_mount,
    post_mount,
    pre_release,
    post_release,
    pre_restore,
    post_restore,
    failed  // last: a command that had announced a step has failed
};
const char *name_of(HookPhase phase);
std::span<const HookPhase> all_hook_phases();
// The variables that a hook gets beside FIMCTL_STATE.
std::span<const char *const> hook_variables();

// What a hook is told.
struct HookStory {
    HookPhase phase;
    const SnapshotRecord &snapshot;
    std::string result;   // "done" or "failed" behind a step, "" before it
    std::string failure;  // of phase failed: what, and the exit code
    int exit_code = 0;
};

// The hooks of the settings, and what must not be run as one.
struct HookFiles {
    struct Refused {
        std::string file, why, remedy;
    };
    std::vector<std::string> files;  // in the order of their names
    std::vector<Refused> refused;
};
HookFiles find_hooks(const Settings &settings);
// Throws Failure (Step::hooks) when any is refused: a database that is not told to hold still gives
// a copy that only looks good.
void refuse_bad_hooks(const Settings &settings);

// One step of one snapshot: says "pre-" when it is made and "post-" when it goes.
class HookedStep {
  public:
    // phase: the one before the step. Before everything but a release a hook that is refused ends
    // the step before any hook is told, and one that fails ends it: the others have been told
    // "post-", and Failure (Step::hooks) is thrown. A release goes on, since what is left behind
    // would be worse.
    HookedStep(const Settings &settings, HookPhase phase, const SnapshotRecord &snapshot);
    ~HookedStep();
    HookedStep(const HookedStep &) = delete;
    HookedStep &operator=(const HookedStep &) = delete;

    // The step has succeeded; snapshot as it is now.
    void done(const SnapshotRecord &snapshot);

  private:
    const Settings &settings_;
    HookPhase after_;
    SnapshotRecord snapshot_;
    bool done_ = false;
};

// Tells the hooks that the command has failed, if any step was announced. Never throws.
void tell_hooks_of_failure(const Settings &settings, const Failure &failure);

// Runs the hooks of a folder; returns what went wrong, "" for nothing. Every failure is told; with
// stop_at_failure the hooks behind a failing one are not run.
std::string run_hooks(const Settings &settings, const HookStory &story, bool stop_at_failure);

}  // namespace fimctl
