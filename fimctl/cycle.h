// A snapshot's life as the command drives it: each phase in a process of its own, its results in
// the catalogue, the copy judged by the array itself.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "fimctl/catalogue.h"
#include "fimctl/failure.h"
#include "fimctl/held_devices.h"
#include "fimctl/phase.h"
#include "fimctl/progress.h"
#include "fimctl/snapshot_lock.h"
#include "fimctl/source.h"
#include "fimctl/worker.h"

namespace fimctl {

struct Settings {
    std::string method;          // the method's library
    std::string state;           // the state directory, absolute
    std::string config;          // the method's configuration string
    std::string mount_at;        // "" for the folder below the state directory
    std::string log_file;        // "" for none
    double freeze_deadline = 0;  // seconds
    double lock_wait = 0;        // seconds to wait for an owner of the array's mirrors to end
    bool quiesce = true;
    std::string hooks;         // the hooks' directory, "" for none
    bool hooks_named = false;  // by anybody, and so it must be there
    double hook_timeout = 0;   // seconds
    bool abandoned = false;    // release what another host was given and never returned
};

// Where a snapshot writes while file systems are frozen.
std::vector<WrittenPlace> written_places(const Settings &settings);

class Cycle {
  public:
    Cycle(const Settings &settings, Catalogue &catalogue);

    // Takes a snapshot and returns its number. What fails is rolled back, and a void copy is
    // released at once: nobody may back it up. Throws Failure.
    int64_t freeze(const std::vector<std::string> &paths);
    // Brings the copy up and returns the path to read for each object.
    std::vector<std::string> mount(int64_t id);
    // Ends a snapshot from whatever state it is in.
    void release(int64_t id);
    // All of it around a command.
    void run(const std::vector<std::string> &paths, const std::vector<std::string> &command);

  private:
    friend class Restore;

    // How a phase ended.
    struct Outcome {
        bool done = false;
        Step last = Step::load;            // the step that it was in
        std::unique_ptr<Failure> failure;  // as the phase, or the command itself, saw it
        std::string trouble;               // what the phase could not clean up
        std::string end;                   // how its process died, when it did

        bool died() const { return !done && failure == nullptr; }
        // Its failure, or its death as one.
        Failure as_failure(ExitCode code_of_death) const;
    };
    // What is known of the cut.
    struct Cut {
        bool late = false;
        bool disturbed = false;
        double frozen_ms = 0;
        std::vector<std::pair<std::string, std::string>> split_list;
    };
    using Handle = std::function<void(const Message &)>;

    // Preparation (cycle_prepare.cpp).
    std::vector<Source> check(const std::vector<std::string> &paths);
    int64_t enter(const std::vector<Source> &sources);
    std::vector<SourceDevice> devices_below_if_any_is_held(const std::vector<Source> &sources);
    void check_before_undo(const SnapshotRecord &snapshot);
    std::vector<ObjectRecord> plan_objects(int64_t id, const std::vector<Source> &sources);
    void plan_object(int64_t id, const std::vector<Source> &sources, size_t i,
                     std::vector<ObjectRecord> &objects);
    void remove_folders(const SnapshotRecord &snapshot);

    // Phases (cycle.cpp, cycle_freeze.cpp, cycle_texts.cpp).
    static Outcome converse(Worker &worker, const Handle &handle);
    // A phase that starts from the texts, again as long as another process owns the array's mirrors
    // and settings allow: it may be a short one, and what waits here has a copy to look after. A
    // signal ends the waiting once more than heard have come: an interruption that has brought the
    // caller here is no reason to leave the copy alone.
    Outcome when_free(int heard, const std::function<Outcome()> &phase) const;
    Outcome text_phase(int64_t id, TextWork work, const std::vector<std::string> &texts);
    void end_killed_mount(const SnapshotRecord &snapshot);
    std::string take_rest_down(const SnapshotRecord &snapshot);
    void frozen_between_hooks(int64_t id, const FreezeJob &job);
    void freeze_phase(int64_t id, const FreezeJob &job);
    void keep_states_before(int64_t id, const Message &message);
    void end_freeze(int64_t id, const Outcome &outcome, const Cut &cut);
    bool end_as_failed(int64_t id);
    void judge_copy(int64_t id, const Cut &cut);
    void release_void(int64_t id, const std::string &reason, ExitCode code, bool late = false);
    void undo(const SnapshotRecord &snapshot);
    void release_by_text(const SnapshotRecord &snapshot);
    void end_release(const SnapshotRecord &snapshot, const Outcome &outcome);
    void run_on_copy(int64_t id, const std::vector<std::string> &command);

    SnapshotRecord known(int64_t id);
    void lock(int64_t id);
    std::string scratch(int64_t id) const;
    void note(int64_t id, const std::string &text);

    const Settings settings_;
    Catalogue &catalogue_;
    std::unique_ptr<SnapshotLock> lock_;
    const progress::Line line_;
};

}  // namespace fimctl
