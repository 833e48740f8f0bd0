#include "fimctl/cycle.h"

#include <poll.h>
#include <sys/wait.h>

#include <chrono>
#include <cstring>

#include "fimctl/array_reader.h"
#include "fimctl/command.h"
#include "fimctl/judge.h"
#include "fimctl/log.h"
#include "fimctl/paths.h"
#include "fimctl/signals.h"

namespace fimctl {

// How a phase ended.
struct Cycle::Outcome {
    bool done = false;
    Step last = Step::load;            // the step that it was in
    std::unique_ptr<Failure> failure;  // as the phase, or the command itself, saw it
    std::string trouble;               // what the phase could not clean up
    std::string end;                   // how its process died, when it did

    bool died() const { return !done && failure == nullptr; }
};

// What is known of the cut.
struct Cycle::Cut {
    bool late = false;
    bool disturbed = false;
    double frozen_ms = 0;
    std::vector<std::pair<std::string, std::string>> split_list;
};

namespace {

// The configuration for freezing objects again so that what was split is established.
std::string resync_config(const std::string &config) {
    constexpr char wanted[] = "sync_at_start=1";
    if (config.empty() || config.find("sync_at_start") != std::string::npos) return wanted;
    return config + "," + wanted;
}

std::string copy_of(const ObjectRecord &object, const std::string &volume_path) {
    return object.kind == "file system" ? object.fifs + object.inside : volume_path;
}

std::vector<std::string> texts_of(const SnapshotRecord &snapshot) {
    const bool uncertain = snapshot.state == State::mounting || snapshot.state == State::releasing;
    std::vector<std::string> texts;
    for (const ObjectRecord &object : snapshot.objects) {
        // A process that was killed while it mounted may have mounted without leaving a text.
        texts.push_back(object.mounted_text.empty() && uncertain ? as_if_mounted(object.text)
                                                                 : object.latest_text());
    }
    return texts;
}

bool every_text_is_there(const SnapshotRecord &snapshot) {
    for (const ObjectRecord &object : snapshot.objects) {
        if (object.text.empty()) return false;
    }
    return !snapshot.objects.empty();
}

void wait_a_second() {
    poll(nullptr, 0, 1000);
}

std::string joined(const std::vector<std::string> &reasons) {
    std::string text;
    for (const std::string &reason : reasons) text += (text.empty() ? "" : "; ") + reason;
    return text;
}

}  // namespace

Cycle::Cycle(const Settings &settings, Catalogue &catalogue)
    : settings_(settings), catalogue_(catalogue) {}

SnapshotRecord Cycle::known(int64_t id) {
    auto snapshot = catalogue_.find(id);
    if (!snapshot) {
        throw Failure(Step::catalogue, ExitCode::no_such_snapshot,
                      "there is no snapshot " + std::to_string(id));
    }
    return std::move(*snapshot);
}

void Cycle::lock(int64_t id) {
    if (lock_ == nullptr) lock_ = std::make_unique<SnapshotLock>(settings_.state, id);
}

std::string Cycle::scratch(int64_t id) const {
    return settings_.state + "/" + path::scratch_folder + "/" + std::to_string(id);
}

// Keeping the story must not hide the failure that it is about.
void Cycle::note(int64_t id, const std::string &text) {
    try {
        catalogue_.set_note(id, text);
    } catch (const Failure &failure) {
        log::problem(failure.what());
    }
}

// Hears a phase to its end. handle gets every result and answers whether the phase may go on; when
// it throws, the phase is refused and rolls back, and its failure is the one that counts.
template <typename Handle>
Cycle::Outcome Cycle::converse(Worker &worker, int64_t id, Handle handle) {
    Outcome outcome;
    while (const auto message = worker.receive()) {
        if (message->contains("step")) {
            outcome.last = static_cast<Step>(message->at("step").get<int>());
            const int object = message->at("object");
            log::progress("snapshot " + std::to_string(id) + ": " + name_of(outcome.last) +
                          (object < 0 ? "" : " (object " + std::to_string(object + 1) + ")"));
        } else if (message->contains("done")) {
            outcome.done = true;
        } else if (message->contains("failed")) {
            outcome.trouble = message->at("trouble");
            if (outcome.failure != nullptr) continue;
            outcome.failure = std::make_unique<Failure>(
                static_cast<Step>(message->at("at").get<int>()),
                static_cast<ExitCode>(message->at("code").get<int>()),
                message->at("failed").get<std::string>(), message->at("number").get<int>());
        } else {
            try {
                handle(*message);
                worker.send({{"go", true}});
            } catch (const Failure &failure) {
                outcome.failure = std::make_unique<Failure>(failure);
                worker.send({{"go", false}});
            }
        }
    }
    outcome.end = worker.reap();
    if (outcome.failure != nullptr) outcome.done = false;
    return outcome;
}

int64_t Cycle::freeze(const std::vector<std::string> &paths) {
    const auto sources = check(paths);
    const int64_t id = catalogue_.enter(settings_.config);
    lock(id);
    FreezeJob job;
    try {
        catalogue_.set_objects(id, plan_objects(id, sources));
    } catch (const Failure &failure) {
        note(id, failure.what());
        catalogue_.set_state(id, State::failed);
        throw;
    }
    log::progress("snapshot " + std::to_string(id) + " begun");
    const SnapshotRecord snapshot = known(id);
    job.method = settings_.method;
    job.config = settings_.config;
    for (size_t i = 0; i < sources.size(); ++i) {
        job.objects.push_back({sources[i].path, snapshot.objects[i].fifs, sources[i].is_volume});
    }
    if (settings_.quiesce) job.quiesce = file_systems_of(sources);
    job.deadline = settings_.freeze_deadline;
    try {
        freeze_phase(id, job);
    } catch (Failure &failure) {
        failure.id = static_cast<long>(id);
        note(id, std::string(name_of(failure.step)) + ": " + failure.what());
        throw;
    }
    return id;
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
    Worker worker([&job](Channel &channel) { run_freeze_phase(job, channel); }, scratch(id));
    const Outcome outcome = converse(worker, id, [&](const Message &message) {
        if (message.contains("pairs")) keep_states_before(id, message);
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
    });
    end_freeze(id, outcome, cut);
}

void Cycle::end_freeze(int64_t id, const Outcome &outcome, const Cut &cut) {
    if (outcome.done) {
        try {
            catalogue_.set_state(id, State::frozen);
            judge_copy(id, cut);
        } catch (Failure &failure) {
            // The copy exists, and only the catalogue does not say so.
            if (failure.step == Step::catalogue) failure.code = ExitCode::left;
            throw;
        }
        return;
    }
    const SnapshotRecord snapshot = known(id);
    if (outcome.died()) {
        const bool harmless = snapshot.state == State::begun;
        if (harmless) {
            catalogue_.set_state(id, State::failed);
            remove_folders(snapshot);
        }
        const ExitCode code = !harmless                ? ExitCode::left
                              : signals::raised() != 0 ? ExitCode::interrupted
                                                       : ExitCode::failed;
        throw Failure(outcome.last, code, "the process of this step died: " + outcome.end);
    }
    Failure failure = *outcome.failure;
    if (outcome.trouble.empty()) {
        catalogue_.set_state(id, State::failed);
        remove_folders(snapshot);
        failure.afterwards = "rolled back";
    } else {
        failure.code = ExitCode::left;
        failure.afterwards = "the roll-back failed: " + outcome.trouble;
    }
    throw failure;
}

// The array's word, after the process that cut the copy has ended.
void Cycle::judge_copy(int64_t id, const Cut &cut) {
    log::progress("snapshot " + std::to_string(id) + ": " + name_of(Step::judge));
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
    if (cut.late) {
        reasons.insert(reasons.begin(),
                       "the file systems were thawed at the deadline, before the cut had ended");
    }
    if (cut.disturbed) {
        reasons.insert(reasons.begin(), "a file system did not stay frozen during the cut");
    }
    if (!reasons.empty()) release_void(id, joined(reasons), ExitCode::failed);
}

void Cycle::release_void(int64_t id, const std::string &reason, ExitCode code) {
    catalogue_.set_void(id, reason);
    Failure failure(Step::judge, code, "the copy is void: " + reason);
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

// A phase that starts from the texts. Another process that owns the array's mirrors is waited for:
// it may be a short one, and what waits here has a copy to look after.
Cycle::Outcome Cycle::text_phase(int64_t id, bool mounting, const std::vector<std::string> &texts) {
    const TextJob job = {settings_.method, texts};
    const auto end = std::chrono::steady_clock::now() +
                     std::chrono::duration_cast<std::chrono::steady_clock::duration>(
                         std::chrono::duration<double>(settings_.lock_wait));
    for (;;) {
        Worker worker(
            [&job, mounting](Channel &channel) {
                if (mounting) {
                    run_mount_phase(job, channel);
                } else {
                    run_release_phase(job, channel);
                }
            },
            scratch(id));
        const auto snapshot = known(id);
        Outcome outcome = converse(worker, id, [&](const Message &message) {
            const auto object = message.at("object").get<size_t>();
            catalogue_.set_mounted(id, object, message.at("text"),
                                   copy_of(snapshot.objects.at(object), message.at("copy")));
        });
        const bool owned = outcome.failure != nullptr && outcome.failure->code == ExitCode::owned;
        if (!owned || std::chrono::steady_clock::now() >= end) return outcome;
        if (mounting && signals::raised() != 0) return outcome;
        log::progress(std::string("waiting: ") + outcome.failure->what());
        wait_a_second();
    }
}

std::vector<std::string> Cycle::mount(int64_t id) {
    lock(id);
    SnapshotRecord snapshot = known(id);
    if (snapshot.state != State::frozen || !snapshot.void_reason.empty()) {
        throw Failure(Step::volumes, ExitCode::usage,
                      "snapshot " + std::to_string(id) + " cannot be mounted: it is " +
                          name_of(snapshot.state) +
                          (snapshot.void_reason.empty() ? "" : " and void"));
    }
    catalogue_.set_state(id, State::mounting);
    const Outcome outcome = text_phase(id, true, texts_of(snapshot));
    if (outcome.done) {
        catalogue_.set_state(id, State::mounted);
        std::vector<std::string> copies;
        for (const ObjectRecord &object : known(id).objects) copies.push_back(object.copy);
        return copies;
    }
    if (outcome.died()) {
        Failure failure(outcome.last, ExitCode::left,
                        "the process of this step died: " + outcome.end);
        failure.id = static_cast<long>(id);
        note(id, failure.what());
        throw failure;
    }
    Failure failure = *outcome.failure;
    failure.id = static_cast<long>(id);
    note(id, std::string(name_of(failure.step)) + ": " + failure.what());
    if (outcome.trouble.empty()) {
        catalogue_.clear_mounted(id);
        catalogue_.set_state(id, State::frozen);
        failure.afterwards = "nothing is mounted; the snapshot stays frozen";
    } else {
        failure.code = ExitCode::left;
        failure.afterwards = "taking the copy down failed: " + outcome.trouble;
    }
    throw failure;
}

void Cycle::release(int64_t id) {
    lock(id);
    const SnapshotRecord snapshot = known(id);
    if (is_over(snapshot.state)) {
        throw Failure(
            Step::thaw, ExitCode::usage,
            "snapshot " + std::to_string(id) + " is over: it is " + name_of(snapshot.state));
    }
    if (snapshot.state == State::begun) {
        // Killed before the cut: its locks have ended with its process.
        catalogue_.set_state(id, State::failed);
        remove_folders(snapshot);
    } else if (every_text_is_there(snapshot)) {
        release_by_text(snapshot);
    } else {
        undo(snapshot);
    }
}

void Cycle::end_release(const SnapshotRecord &snapshot) {
    catalogue_.set_state(snapshot.id, State::released);
    remove_folders(snapshot);
    log::progress("snapshot " + std::to_string(snapshot.id) + " released");
}

void Cycle::release_by_text(const SnapshotRecord &snapshot) {
    const auto texts = texts_of(snapshot);
    catalogue_.set_state(snapshot.id, State::releasing);
    const Outcome outcome = text_phase(snapshot.id, false, texts);
    if (outcome.done) return end_release(snapshot);
    // A snapshot that was not mounted before stays so: nothing was brought up here.
    catalogue_.set_state(snapshot.id, snapshot.state);
    Failure failure = outcome.died() ? Failure(outcome.last, ExitCode::left,
                                               "the process of this step died: " + outcome.end)
                                     : *outcome.failure;
    failure.code = ExitCode::left;
    failure.id = static_cast<long>(snapshot.id);
    note(snapshot.id, std::string(name_of(failure.step)) + ": " + failure.what());
    throw failure;
}

void Cycle::undo(const SnapshotRecord &snapshot) {
    FreezeJob job;
    job.method = settings_.method;
    job.config = resync_config(snapshot.config);
    for (const ObjectRecord &object : snapshot.objects) {
        job.objects.push_back({object.source, object.fifs, false});
    }
    Worker worker([&job](Channel &channel) { run_undo_phase(job, channel); }, scratch(snapshot.id));
    const Outcome outcome = converse(worker, snapshot.id, [](const Message &) {});
    if (outcome.done) return end_release(snapshot);
    Failure failure = outcome.died() ? Failure(outcome.last, ExitCode::left,
                                               "the process of this step died: " + outcome.end)
                                     : *outcome.failure;
    failure.code = ExitCode::left;
    failure.id = static_cast<long>(snapshot.id);
    note(snapshot.id, std::string(name_of(failure.step)) + ": " + failure.what());
    throw failure;
}

void Cycle::run(const std::vector<std::string> &paths, const std::vector<std::string> &command) {
    if (!can_be_run(command.front())) {
        throw Failure(Step::command, ExitCode::usage, command.front() + ": no such command");
    }
    const int64_t id = freeze(paths);
    std::unique_ptr<Failure> failed;
    try {
        run_on_copy(id, command);
    } catch (const Failure &failure) {
        failed = std::make_unique<Failure>(failure);
        failed->id = static_cast<long>(id);
    }
    try {
        release(id);
    } catch (Failure &failure) {
        if (failed == nullptr) throw;
        failed->code = ExitCode::left;
        failed->afterwards = std::string("the release failed: ") + failure.what();
        throw *failed;
    }
    if (failed == nullptr) return;
    if (failed->code == ExitCode::left) failed->code = ExitCode::failed;
    failed->afterwards = "the snapshot is released";
    throw *failed;
}

void Cycle::run_on_copy(int64_t id, const std::vector<std::string> &command) {
    stop_when_interrupted(Step::freeze);
    const auto copies = mount(id);
    stop_when_interrupted(Step::volumes);
    log::progress("snapshot " + std::to_string(id) + ": " + name_of(Step::command) + ": " +
                  command.front());
    const int status = run_command(with_copies(command, copies));
    stop_when_interrupted(Step::command);
    if (WIFSIGNALED(status)) {
        throw Failure(Step::command, ExitCode::failed,
                      command.front() + " was ended by signal " + std::to_string(WTERMSIG(status)) +
                          " (" + strsignal(WTERMSIG(status)) + ")");
    }
    if (WEXITSTATUS(status) != 0) {
        throw Failure(
            Step::command, ExitCode::failed,
            command.front() + " ended with status " + std::to_string(WEXITSTATUS(status)));
    }
}

}  // namespace fimctl
