#include "fimctl/cycle.h"

#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstring>

#include "fimctl/command.h"
#include "fimctl/log.h"
#include "fimctl/paths.h"
#include "fimctl/signals.h"

namespace fimctl {

Cycle::Cycle(const Settings &settings, Catalogue &catalogue)
    : settings_(settings), catalogue_(catalogue) {}

SnapshotRecord Cycle::known(int64_t id) {
    auto snapshot = catalogue_.find(id);
    if (!snapshot) throw no_such_snapshot(id);
    return std::move(*snapshot);
}

void Cycle::lock(int64_t id) {
    log::about(static_cast<long>(id));
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
Cycle::Outcome Cycle::converse(Worker &worker, const Handle &handle) {
    Outcome outcome;
    while (const auto message = worker.receive()) {
        if (message->contains("step")) {
            outcome.last = static_cast<Step>(message->at("step").get<int>());
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

Cycle::Outcome Cycle::when_free(int heard, const std::function<Outcome()> &phase) const {
    using Clock = std::chrono::steady_clock;
    const auto end = Clock::now() + std::chrono::duration_cast<Clock::duration>(
                                        std::chrono::duration<double>(settings_.lock_wait));
    for (;;) {
        Outcome outcome = phase();
        const bool owned = outcome.failure != nullptr && outcome.failure->code == ExitCode::owned;
        if (owned && signals::count() > heard) {
            outcome.failure = interrupted_while_waiting(*outcome.failure);
            return outcome;
        }
        if (!owned || Clock::now() >= end) return outcome;
        log::waiting(std::string("waiting: ") + outcome.failure->what());
        signals::wait_a_second();
    }
}

Failure Cycle::Outcome::as_failure(ExitCode code_of_death) const {
    if (!died()) return *failure;
    return Failure(last, code_of_death, "the process of this step died: " + end);
}

void Cycle::run(const std::vector<std::string> &paths, const std::vector<std::string> &command) {
    if (!can_be_run(command.front())) {
        throw Failure(Step::command, ExitCode::usage,
                      command.front() + (access(command.front().c_str(), F_OK) == 0 &&
                                                 command.front().find('/') != std::string::npos
                                             ? ": not executable"
                                             : ": no such command"));
    }
    const int64_t id = freeze(paths);
    std::unique_ptr<Failure> failed;
    try {
        run_on_copy(id, command);
    } catch (const Failure &failure) {
        failed = std::make_unique<Failure>(failure);
        failed->id = static_cast<long>(id);
    }
    std::string told;
    try {
        told = known(id).note;
        release(id);
    } catch (Failure &failure) {
        if (failed == nullptr) {
            failure.code = ExitCode::left;
            failure.afterwards = command.front() + " ended with status 0" +
                                 (failure.afterwards.empty() ? "" : "; " + failure.afterwards);
            throw;
        }
        failed->code = ExitCode::left;
        failed->afterwards = std::string("the release failed: ") + failure.what();
        throw *failed;
    }
    if (failed == nullptr) return;
    // The release has succeeded, not the run.
    note(id, told);
    if (failed->code == ExitCode::left || failed->code == ExitCode::usage) {
        // What there was to do about the snapshot is done.
        failed->code = ExitCode::failed;
        failed->next.clear();
    }
    failed->afterwards = "the snapshot is released";
    throw *failed;
}

void Cycle::run_on_copy(int64_t id, const std::vector<std::string> &command) {
    stop_when_interrupted(Step::freeze);
    const auto copies = mount(id);
    stop_when_interrupted(Step::volumes);
    log::progress(name_of(Step::command) + (": " + command.front()));
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
