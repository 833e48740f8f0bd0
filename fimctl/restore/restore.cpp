#include "fimctl/restore/restore.h"

#include <unistd.h>

#include <cerrno>
#include <cstdio>

#include "fimctl/array_reader.h"
#include "fimctl/hooks.h"
#include "fimctl/log.h"
#include "fimctl/progress.h"
#include "fimctl/restore/bring_back.h"
#include "fimctl/restore/phase.h"
#include "fimctl/restore/texts.h"
#include "fimctl/signals.h"

namespace fimctl {
namespace {

std::string again(int64_t id) {
    return "fimctl restore " + std::to_string(id);
}

void refuse(const RestorePlan &plan) {
    if (plan.obstacles.empty()) return;
    std::string what;
    std::string next;
    for (const Obstacle &obstacle : plan.obstacles) {
        what += (what.empty() ? "" : "; ") + obstacle.what;
        if (next.find(obstacle.next) != std::string::npos) continue;
        next += (next.empty() ? "" : "; ") + obstacle.next;
    }
    Failure failure(Step::restore, ExitCode::usage, what);
    failure.id = static_cast<long>(plan.id);
    failure.next = next;
    throw failure;
}

// To standard error: standard output is for results.
void show(const RestorePlan &plan) {
    progress::clear();
    fputs(plan_text(plan).c_str(), stderr);
}

// A line from the terminal. Throws Failure (interrupted).
std::string ask_for_code(const RestorePlan &plan) {
    fprintf(stderr, "Type the code to restore, anything else to leave everything as it is: ");
    std::string line;
    for (char character = 0; character != '\n';) {
        const ssize_t size = read(STDIN_FILENO, &character, 1);
        if (signals::raised() != 0) {
            Failure failure(Step::restore, ExitCode::interrupted, "interrupted");
            failure.id = static_cast<long>(plan.id);
            throw failure;
        }
        if (size == 0 || (size < 0 && errno != EINTR)) break;
        if (size > 0) line += character;
    }
    return line;
}

Failure not_confirmed(const RestorePlan &plan, const std::string &why) {
    Failure failure(Step::restore, ExitCode::usage, why + "; nothing was done");
    failure.id = static_cast<long>(plan.id);
    failure.next = "look at the plan (" + again(plan.id) +
                   " --plan-only), then: " + again(plan.id) + " --confirm CODE";
    return failure;
}

RestoreJob job_of(const SnapshotRecord &snapshot, const RestorePlan &plan,
                  const std::string &method) {
    std::vector<Pair> done;
    for (const RestorePair &pair : plan.pairs) {
        if (pair.is_restored()) done.push_back(pair.pair);
    }
    RestoreJob job;
    job.method = method;
    job.ends.resize(plan.objects.size());
    for (const size_t i : plan.rebuild_order) {
        const RestoreObject &object = plan.objects[i];
        job.ends[i] = job.texts.size();
        job.texts.push_back(text_for_restore(snapshot.objects.at(object.number).text,
                                             object.is_file_system() ? object.directory : "",
                                             done));
    }
    return job;
}

// Who keeps the file system of the object from being unmounted, or its group from being deported.
std::string busy(const RestorePlan &plan, const RestoreObject &object) {
    const auto device = block_number(object.block);
    if (!device) return "";
    Busy asked;
    asked.disks = disks_of(plan);
    (object.is_file_system() ? asked.file_systems : asked.devices).insert(*device);
    const auto users = users_of(asked);
    if (users.empty()) return "";
    return "; " + (object.is_file_system() ? object.directory : object.source) + " is in use by " +
           names_of(users.begin()->second);
}

void add(std::string &list, const RestorePair &pair, long state) {
    list += (list.empty() ? "pair " : "; pair ") + pair.pair.device + "/" + pair.pair.bcv +
            " of array " + pair.pair.symid + " is " + name_of_pair_state(state);
}

std::vector<Pair> pairs_of(const RestorePlan &plan) {
    std::vector<Pair> pairs;
    for (const RestorePair &pair : plan.pairs) pairs.push_back(pair.pair);
    return pairs;
}

Failure interrupted_while_restoring() {
    return Failure(Step::restore, ExitCode::left,
                   "interrupted while the array was still restoring");
}

// The array goes on with what a killed restore has begun. False when it was not waited to its end.
bool wait_for_running(RestorePlan &plan) {
    for (;;) {
        const auto states = read_pair_states(pairs_of(plan), Step::restore);
        bool running = false;
        for (size_t i = 0; i < states.size(); ++i) {
            plan.pairs[i].state = states[i];
            running = running || states[i] == pair_state::restoring;
        }
        if (!running) return true;
        log::waiting("waiting: the array is still restoring");
        if (signals::raised() != 0) return false;
        signals::wait_a_second();
    }
}

// Nobody writes to an original, or reads it, while the array still writes under it.
void wait_before_giving_up(RestorePlan &plan) {
    if (!wait_for_running(plan)) {
        Failure failure = interrupted_while_restoring();
        failure.id = static_cast<long>(plan.id);
        failure.next = "fimctl release " + std::to_string(plan.id) + " --abandoned";
        throw failure;
    }
    std::string rest;
    bool any = false;
    for (const RestorePair &pair : plan.pairs) {
        any = any || pair.state == pair_state::restored;
        if (pair.state != pair_state::restored) add(rest, pair, pair.state);
    }
    if (any && rest.empty()) {
        log::outcome("the originals hold what the copy held: every pair is restored");
    } else if (any) {
        log::problem("the originals hold a mixture, since not every pair is restored: " + rest);
    }
}

}  // namespace

Restore::Restore(const Settings &settings, Catalogue &catalogue)
    : cycle_(settings, catalogue), catalogue_(catalogue), method_(settings.method) {}

void Restore::show_plan(int64_t id, const RestoreOptions &options) {
    const RestorePlan plan = make_plan(cycle_.known(id), options.plan);
    fputs((options.json ? plan_json(plan) : plan_text(plan)).c_str(), stdout);
    refuse(plan);
}

void Restore::perform(int64_t id, const RestoreOptions &options) {
    const RestorePlan shown = make_plan(cycle_.known(id), options.plan);
    show(shown);
    refuse(shown);
    confirm(shown, options);
    cycle_.lock(id);
    const SnapshotRecord snapshot = cycle_.known(id);
    PlanOptions plain = options.plan;
    plain.measure = false;
    const RestorePlan plan = make_plan(snapshot, plain);
    if (plan.code != shown.code) {
        show(plan);
        if (!options.yes) {
            throw not_confirmed(plan,
                                "the plan has changed since it was confirmed; this is the "
                                "new one");
        }
    }
    refuse(plan);
    HookedStep step(cycle_.settings_, HookPhase::pre_restore, snapshot);
    work(snapshot, plan);
    step.done(cycle_.known(id));
}

void Restore::confirm(const RestorePlan &plan, const RestoreOptions &options) const {
    if (options.yes) return;
    if (!options.confirm.empty()) {
        if (is_code_of(plan, options.confirm)) return;
        throw not_confirmed(plan, "this is not the plan of code " + options.confirm);
    }
    if (isatty(STDIN_FILENO) == 0) {
        throw not_confirmed(plan, "a restore must be confirmed, and there is nobody to ask");
    }
    if (!is_code_of(plan, ask_for_code(plan))) throw not_confirmed(plan, "that is not the code");
}

void Restore::work(const SnapshotRecord &snapshot, RestorePlan plan) {
    if (plan.resumed) {
        if (!wait_for_running(plan)) {
            // Nothing was cleaned up: what the killed restore has taken away is away still.
            Failure failure = interrupted_while_restoring();
            failure.next = "go on with it: " + again(plan.id);
            give_up(failure, plan.id);
        }
        // The method's first step is to deport them.
        const std::string trouble = import_groups(plan);
        if (!trouble.empty()) {
            Failure failure(Step::restore, ExitCode::left, trouble);
            failure.next = "see what the volume manager said, then: " + again(plan.id);
            give_up(failure, plan.id);
        }
    }
    const RestoreJob job = job_of(snapshot, plan, method_);
    end(plan, phase(plan, job));
}

Cycle::Outcome Restore::phase(const RestorePlan &plan, const RestoreJob &job) {
    // Nobody has been interrupted on the way here, so the first signal is one to stop for.
    constexpr int none_heard = 0;
    return cycle_.when_free(none_heard, [&] {
        Worker worker([&job](Channel &channel) { run_restore_phase(job, channel); },
                      cycle_.scratch(plan.id));
        return Cycle::converse(worker, [&](const Message &message) {
            if (message.contains("rebuilt")) enter(plan);
            if (message.contains("ending")) ending_ = message.at("ending");
        });
    });
}

// The locks are held, so no other snapshot is begun any more: what the pairs are now holds.
void Restore::enter(const RestorePlan &plan) {
    const auto states = read_pair_states(pairs_of(plan), Step::restore);
    for (size_t i = 0; i < states.size(); ++i) {
        if (states[i] == plan.pairs[i].state) continue;
        std::string changed;
        add(changed, plan.pairs[i], states[i]);
        Failure failure(Step::restore, ExitCode::failed, changed + ", and was not a moment ago");
        failure.next = again(plan.id) + " --plan-only";
        throw failure;
    }
    catalogue_.set_restoring(plan.id, kept_form(plan));
    entered_ = true;
}

// The array's word, in a session of its own.
Restore::Judgement Restore::judge(const RestorePlan &plan) const {
    Judgement judgement;
    std::vector<long> states;
    try {
        states = read_pair_states(pairs_of(plan), Step::restore);
    } catch (const Failure &failure) {
        judgement.rest = failure.what();
        return judgement;
    }
    judgement.known = true;
    for (size_t i = 0; i < states.size(); ++i) {
        const long state = states[i];
        const bool running = state == pair_state::restoring;
        if (state == pair_state::restored || running) judgement.begun = true;
        if (state != pair_state::restored) add(judgement.rest, plan.pairs[i], state);
        if (state != pair_state::restored && !running && state != pair_state::split) {
            add(judgement.others, plan.pairs[i], state);
        }
    }
    judgement.restored = judgement.rest.empty();
    return judgement;
}

void Restore::end(const RestorePlan &plan, const Cycle::Outcome &outcome) {
    if (!entered_) {
        Failure failure = outcome.as_failure(ExitCode::failed);
        failure.afterwards = "nothing was done";
        failure.id = static_cast<long>(plan.id);
        if (failure.next.empty() && failure.code == ExitCode::failed) failure.next = again(plan.id);
        // What an earlier try has begun is still to be ended.
        if (plan.resumed && failure.code == ExitCode::failed) {
            failure.code = ExitCode::left;
            failure.afterwards =
                "nothing was done this time; the restore that was begun is not ended";
        }
        throw failure;
    }
    const Judgement judgement = judge(plan);
    if (judgement.restored) return end_restored(plan, outcome);
    if (judgement.known && !judgement.begun) end_untouched(plan, outcome, judgement);
    Failure failure(Step::restore, ExitCode::left,
                    outcome.done ? "the method reports success, but not so the array"
                                 : outcome.as_failure(ExitCode::left).what());
    failure.afterwards = "not everything is restored: " + judgement.rest;
    failure.next = "see that the array answers, then go on: " + again(plan.id);
    if (!judgement.others.empty()) {
        catalogue_.set_void(plan.id, "its restore broke off: " + judgement.others);
        failure.next =
            "a part of the copy is gone; bring the data back from another one, then: "
            "fimctl release " +
            std::to_string(plan.id) + " --abandoned";
    }
    give_up(failure, plan.id);
}

void Restore::end_restored(const RestorePlan &plan, const Cycle::Outcome &outcome) {
    std::string trouble = outcome.done ? "" : outcome.as_failure(ExitCode::left).what();
    if (trouble.empty()) trouble = mount_restored(plan);
    if (trouble.empty()) {
        catalogue_.set_state(plan.id, State::restored);
        cycle_.note(plan.id, "");
        cycle_.remove_folders(cycle_.known(plan.id));
        log::outcome("restored");
        return;
    }
    Failure failure(Step::restore, ExitCode::left, trouble);
    failure.afterwards =
        "the array has restored every pair; what was away is not, or not fully, back";
    failure.next = "see to it (the lines above say more), then go on: " + again(plan.id);
    give_up(failure, plan.id);
}

// Nothing has been written over a primary, so all that is to do is on this host.
void Restore::end_untouched(const RestorePlan &plan, const Cycle::Outcome &outcome,
                            const Judgement &judgement) {
    Failure failure = outcome.done ? Failure(Step::restore, ExitCode::left,
                                             "the method reports success, but the array has "
                                             "restored nothing: " +
                                                 judgement.rest)
                                   : outcome.as_failure(ExitCode::failed);
    if (failure.step == Step::thaw_commit) {
        const std::string users = busy(plan, plan.objects.at(ending_));
        failure = Failure(failure.step, failure.code, failure.what() + users, failure.number);
        failure.next = users.empty() ? "run it again with -v to see what the commands said"
                                     : "end what uses it, then: " + again(plan.id);
    }
    if (!judgement.others.empty()) {
        catalogue_.set_void(plan.id, "found at its restore: " + judgement.others);
        failure.next =
            "the copy is gone; end the snapshot: fimctl release " + std::to_string(plan.id);
    }
    if (failure.next.empty()) failure.next = again(plan.id);
    const std::string trouble = put_back(plan);
    if (trouble.empty()) {
        catalogue_.clear_mounted(plan.id);
        catalogue_.set_state(plan.id, State::frozen);
        failure.afterwards =
            "nothing was overwritten, and every file system is where it was; the snapshot stays "
            "frozen";
    } else {
        failure.code = ExitCode::left;
        failure.afterwards = "nothing was overwritten, but not everything is back: " + trouble;
        failure.next =
            "see to it, then: " + again(plan.id) + ", or fimctl release " + std::to_string(plan.id);
    }
    give_up(failure, plan.id);
}

void Restore::give_up(Failure failure, int64_t id) {
    failure.id = static_cast<long>(id);
    cycle_.note(id, std::string(name_of(failure.step)) + ": " + failure.what());
    throw failure;
}

void prepare_release_of_restoring(const SnapshotRecord &snapshot, bool abandoned) {
    const std::string id = std::to_string(snapshot.id);
    PlanOptions options;
    options.abandoned = abandoned;
    // A copy that is void is no more to be restored from, and has to be let go all the same.
    const bool is_void = !snapshot.void_reason.empty();
    SnapshotRecord begun = snapshot;
    begun.void_reason.clear();
    RestorePlan plan = make_plan(begun, options);
    std::string restored;
    for (const RestorePair &pair : plan.pairs) {
        if (pair.state != pair_state::split) add(restored, pair, pair.state);
    }
    if (!restored.empty() && !abandoned) {
        Failure failure(Step::snapshot, ExitCode::usage,
                        "its restore was begun and not ended: " + restored +
                            "; to release it now would copy primaries that may be restored in "
                            "part over their mirrors, the only whole copy");
        failure.id = static_cast<long>(snapshot.id);
        const std::string give_up = "give the copy up: fimctl release " + id + " --abandoned";
        failure.next =
            is_void ? give_up : "go on with the restore: fimctl restore " + id + "; or " + give_up;
        throw failure;
    }
    if (abandoned) wait_before_giving_up(plan);
    const std::string trouble = put_back(plan);
    if (trouble.empty()) return;
    if (abandoned) {
        log::problem(trouble);
        return;
    }
    Failure failure(Step::restore, ExitCode::left, trouble);
    failure.id = static_cast<long>(snapshot.id);
    failure.next = "see to it, then: fimctl release " + id;
    throw failure;
}

}  // namespace fimctl
