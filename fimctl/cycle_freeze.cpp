// The first half of a snapshot's life: freeze, cut, judge.
#include "fimctl/array_reader.h"
#include "fimctl/cycle.h"
#include "fimctl/frozen_mark.h"
#include "fimctl/hooks.h"
#include "fimctl/judge.h"
#include "fimctl/log.h"
#include "fimctl/other_states.h"
#include "fimctl/signals.h"

namespace fimctl {
namespace {

std::string joined(const std::vector<std::string> &reasons) {
    std::string text;
    for (const std::string &reason : reasons) text += (text.empty() ? "" : "; ") + reason;
    return text;
}

}  // namespace

int64_t Cycle::freeze(const std::vector<std::string> &paths) {
    const auto sources = check(paths);
    const int64_t id = enter(sources);
    const std::string warning = warning_of_other_states(settings_.state);
    if (!warning.empty()) log::problem(warning);
    FreezeJob job;
    log::progress("begun");
    const SnapshotRecord snapshot = known(id);
    job.method = settings_.method;
    job.config = settings_.config;
    for (size_t i = 0; i < sources.size(); ++i) {
        job.objects.push_back({sources[i].path, snapshot.objects[i].fifs, sources[i].is_volume()});
    }
    if (settings_.quiesce) job.quiesce = file_systems_of(sources);
    job.deadline = settings_.freeze_deadline;
    job.mark = frozen_mark_of(settings_.state, id);
    try {
        frozen_between_hooks(id, job);
    } catch (Failure &failure) {
        failure.id = static_cast<long>(id);
        note(id, std::string(name_of(failure.step)) + ": " + failure.what());
        throw;
    }
    return id;
}

void Cycle::frozen_between_hooks(int64_t id, const FreezeJob &job) {
    try {
        HookedStep step(settings_, HookPhase::pre_freeze, known(id));
        freeze_phase(id, job);
        step.done(known(id));
    } catch (const Failure &failure) {
        // Stopped by a hook before anything was asked of the array.
        if (failure.step == Step::hooks && known(id).state == State::begun) end_as_failed(id);
        throw;
    }
}

// The pairs are read and kept before the cut, and the snapshot is marked as being cut: from here on
// only its texts, or another freeze, can undo it.
void Cycle::keep_states_before(int64_t id, const Message &message) {
    std::vector<Pair> asked;
    for (const Message &object : message.at("pairs")) {
        for (const Message &pair : object) {
            asked.push_back({pair.at(0), pair.at(1), pair.at(2)});
        }
    }
    const auto states = read_pair_states(asked, Step::states);
    size_t next = 0;
    size_t number = 0;
    for (const Message &object : message.at("pairs")) {
        std::vector<PairRecord> records;
        for (size_t i = 0; i < object.size(); ++i, ++next) {
            records.push_back({asked[next], states[next], state_unknown});
        }
        catalogue_.set_pairs(id, number++, records);
    }
    catalogue_.set_state(id, State::cutting);
}

void Cycle::freeze_phase(int64_t id, const FreezeJob &job) {
    Cut cut;
    std::unique_ptr<HookedStep> split;
    Worker worker([&job](Channel &channel) { run_freeze_phase(job, channel); }, scratch(id));
    const Outcome outcome = converse(worker, [&](const Message &message) {
        if (message.contains("pairs")) {
            split = std::make_unique<HookedStep>(settings_, HookPhase::pre_split, known(id));
            keep_states_before(id, message);
        }
        if (message.contains("text")) {
            catalogue_.set_text(id, message.at("object").get<size_t>(), message.at("text"));
        }
        if (!message.contains("cut")) return;
        cut.frozen_ms = message.at("cut");
        cut.late = message.at("late");
        cut.disturbed = message.at("disturbed");
        for (const Message &pair : message.at("split")) {
            cut.split_list.emplace_back(pair.at(0), pair.at(1));
        }
        catalogue_.set_cut(id, !job.quiesce.empty(), cut.frozen_ms);
        split->done(known(id));
        split.reset();
    });
    split.reset();
    end_freeze(id, outcome, cut);
}

void Cycle::end_freeze(int64_t id, const Outcome &outcome, const Cut &cut) {
    if (outcome.done) {
        // Not before the judgement: a command that is killed here leaves a copy that nobody trusts.
        try {
            judge_copy(id, cut);
            catalogue_.set_state(id, State::frozen);
        } catch (Failure &failure) {
            // The copy exists, and only the catalogue does not say so.
            if (failure.step == Step::catalogue) failure.code = ExitCode::left;
            throw;
        }
        return;
    }
    if (outcome.died()) {
        const bool harmless = known(id).state == State::begun;
        if (harmless) end_as_failed(id);
        const ExitCode code = !harmless                ? ExitCode::left
                              : signals::raised() != 0 ? ExitCode::interrupted
                                                       : ExitCode::failed;
        throw outcome.as_failure(code);
    }
    Failure failure = *outcome.failure;
    if (outcome.trouble.empty()) {
        failure.afterwards = "rolled back";
        if (!end_as_failed(id)) failure.code = ExitCode::left;
    } else {
        failure.code = ExitCode::left;
        failure.afterwards = "the roll-back failed: " + outcome.trouble;
    }
    throw failure;
}

// A catalogue that cannot be written is one more failure, not the one that the user asks about.
bool Cycle::end_as_failed(int64_t id) {
    try {
        const SnapshotRecord snapshot = known(id);
        remove_folders(snapshot);
        catalogue_.set_state(id, State::failed);
        return true;
    } catch (const Failure &failure) {
        log::problem(std::string(failure.what()) + "; it still lists snapshot " +
                     std::to_string(id));
        return false;
    }
}

// The array's word, after the process that cut the copy has ended.
void Cycle::judge_copy(int64_t id, const Cut &cut) {
    log::progress(name_of(Step::judge));
    SnapshotRecord snapshot = known(id);
    std::vector<PairRecord> records;
    std::vector<Pair> asked;
    for (const ObjectRecord &object : snapshot.objects) {
        const auto pairs = CheckpointText(object.text).pairs();
        for (size_t i = 0; i < pairs.size(); ++i) {
            const bool read = i < object.pairs.size() && object.pairs[i].pair == pairs[i];
            records.push_back(
                {pairs[i], read ? object.pairs[i].before : state_unknown, state_unknown});
            asked.push_back(pairs[i]);
        }
    }
    std::vector<long> states;
    try {
        states = read_pair_states(asked, Step::judge);
    } catch (const Failure &failure) {
        release_void(id, std::string("it could not be judged: ") + failure.what(), failure.code);
    }
    size_t next = 0;
    for (size_t object = 0; object < snapshot.objects.size(); ++object) {
        const size_t count = CheckpointText(snapshot.objects[object].text).pairs().size();
        std::vector<PairRecord> own;
        for (size_t i = 0; i < count; ++i, ++next) {
            records[next].after = states[next];
            own.push_back(records[next]);
        }
        catalogue_.set_pairs(id, object, own);
    }
    auto reasons = judge(records, cut.split_list);
    for (const std::string &reason : judge_objects(snapshot.objects)) reasons.push_back(reason);
    if (cut.late) {
        reasons.insert(reasons.begin(),
                       "the file systems were thawed at the deadline, before the cut had ended");
    }
    if (cut.disturbed) {
        reasons.insert(reasons.begin(), "a file system did not stay frozen during the cut");
    }
    if (!reasons.empty()) release_void(id, joined(reasons), ExitCode::failed, cut.late);
}

void Cycle::release_void(int64_t id, const std::string &reason, ExitCode code, bool late) {
    catalogue_.set_void(id, reason);
    Failure failure(Step::judge, code, "the copy is void: " + reason);
    if (late) failure.next = "allow the cut more time: --freeze-deadline SECONDS, then try again";
    log::problem("snapshot " + std::to_string(id) + ": " + failure.what());
    try {
        release(id);
        failure.afterwards = "released";
    } catch (const Failure &second) {
        failure.code = ExitCode::left;
        failure.afterwards = std::string("the release failed: ") + second.what();
    }
    throw failure;
}

}  // namespace fimctl
