// The second half of a snapshot's life: mount and release, from the texts.
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <sstream>

#include "fimctl/away.h"
#include "fimctl/copy_folder.h"
#include "fimctl/copy_users.h"
#include "fimctl/cycle.h"
#include "fimctl/frozen_mark.h"
#include "fimctl/hooks.h"
#include "fimctl/log.h"
#include "fimctl/lost_copy.h"
#include "fimctl/method.h"
#include "fimctl/restore/restore.h"
#include "fimctl/signals.h"
#include "fimctl/tool.h"

namespace fimctl {
namespace {

constexpr size_t longest_config = 1024;

// The configuration for freezing objects again so that what was split is established. Everything
// else stays as it was: who the backup host is decides which devices an object has. Of two values
// for one keyword the later one holds.
std::string resync_config(const std::string &config) {
    constexpr char wanted[] = "sync_at_start=1";
    if (config.empty()) return wanted;
    std::string kept = config + "," + wanted;
    if (kept.size() <= longest_config) return kept;
    kept = wanted;
    std::istringstream pairs(config);
    for (std::string pair; std::getline(pairs, pair, ',');) {
        const std::string keyword = pair.substr(0, pair.find('='));
        for (const char *deciding : {"alternate_backup_client", "plexname"}) {
            if (strcasecmp(keyword.c_str(), deciding) == 0) kept += "," + pair;
        }
    }
    return kept;
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

// A busy copy is what makes a thaw fail, and who looks for its users needs its directory.
std::string remedy_of_thaw(const SnapshotRecord &snapshot, const std::string &command) {
    std::string directories;
    for (const ObjectRecord &object : snapshot.objects) {
        if (is_mount_point(object.fifs)) directories += " " + shell_word(object.fifs);
        // A device that is read through no mount point, and stops its disk group from being let go.
        if (object.is_volume() && object.kind != "file system" && !object.copy.empty() &&
            access(object.copy.c_str(), F_OK) == 0) {
            directories += " " + shell_word(object.copy);
        }
    }
    if (directories.empty()) return "";
    return "end whatever uses the copy (fuser -vm" + directories + "), then: fimctl " + command +
           " " + std::to_string(snapshot.id);
}

// The most frequent failure of a release is a busy copy, and the one of which the method says
// least.
Failure failed_thaw(const Failure &told, const SnapshotRecord &snapshot) {
    const std::string text = told.what();
    const std::string holds = what_holds(snapshot);
    const std::string whole = holds.empty()                         ? text
                              : text.starts_with(no_method_message) ? holds
                                                                    : text + "; " + holds;
    Failure failure(told.step, told.code, whole, told.number);
    failure.next = remedy_of_thaw(snapshot, "release");
    return failure;
}

// After a restart of the host, or an umount by hand.
bool is_taken_down(const SnapshotRecord &snapshot) {
    for (const ObjectRecord &object : snapshot.objects) {
        if (object.kind == "file system" && !is_mount_point(object.fifs)) return true;
    }
    return false;
}

Failure not_to_be_mounted(const SnapshotRecord &snapshot) {
    const std::string id = std::to_string(snapshot.id);
    Failure failure(Step::snapshot, ExitCode::usage,
                    "snapshot " + id + " cannot be mounted: it is " + name_of(snapshot.state) +
                        (snapshot.void_reason.empty() ? "" : " and void"));
    if (snapshot.state == State::mounted && is_taken_down(snapshot)) {
        failure.next = "its copy was unmounted by others; end it (fimctl release " + id +
                       "), and take another one";
    } else if (snapshot.state == State::mounted) {
        failure.next = "fimctl show " + id + " tells where its copy is mounted";
    } else if (is_over(snapshot.state) && snapshot.is_target) {
        failure.next = "send it back to " + snapshot.origin + ": fimctl export " + id;
    } else if (is_over(snapshot.state)) {
        failure.next = "take another snapshot: fimctl freeze PATH...";
    } else if (snapshot.state == State::restoring) {
        failure.next = "fimctl restore " + id;
    } else {
        failure.next = "fimctl release " + id;
    }
    return failure;
}

}  // namespace

Cycle::Outcome Cycle::text_phase(int64_t id, TextWork work, const std::vector<std::string> &texts) {
    const TextJob job = {settings_.method, work, texts};
    return when_free(signals::count(), [&] {
        Worker worker([&job](Channel &channel) { run_text_phase(job, channel); }, scratch(id));
        const auto snapshot = known(id);
        return converse(worker, [&](const Message &message) {
            const auto object = message.at("object").get<size_t>();
            catalogue_.set_mounted(id, object, message.at("text"),
                                   copy_of(snapshot.objects.at(object), message.at("copy")));
        });
    });
}

std::vector<std::string> Cycle::mount(int64_t id) {
    lock(id);
    SnapshotRecord snapshot = known(id);
    const bool fits = snapshot.state == State::frozen || snapshot.state == State::mounting;
    if (!fits || !snapshot.void_reason.empty()) throw not_to_be_mounted(snapshot);
    refuse_away(snapshot, "mount", false);
    refuse_lost(catalogue_, snapshot);
    if (snapshot.state == State::mounting) {
        end_killed_mount(snapshot);
        snapshot = known(id);
    }
    for (const ObjectRecord &object : snapshot.objects) {
        refuse_in_use(object.fifs + ", where the copy is to be mounted,", object.fifs,
                      "take away what is there, then: fimctl mount " + std::to_string(id));
        // An empty folder is soon tidied away, and one in memory does not outlive its host.
        make_folder(object.fifs);
    }
    HookedStep step(settings_, HookPhase::pre_mount, snapshot);
    catalogue_.set_state(id, State::mounting);
    const Outcome outcome = text_phase(id, TextWork::mount, texts_of(snapshot));
    if (outcome.done) {
        catalogue_.set_state(id, State::mounted);
        note(id, "");
        step.done(known(id));
        std::vector<std::string> copies;
        for (const ObjectRecord &object : known(id).objects) copies.push_back(object.copy);
        return copies;
    }
    Failure failure = outcome.as_failure(ExitCode::left);
    failure.id = static_cast<long>(id);
    note(id, std::string(name_of(failure.step)) + ": " + failure.what());
    if (outcome.died()) throw failure;
    const bool begun = failure.step != Step::load && failure.step != Step::rebuild;
    const std::string trouble =
        outcome.trouble.empty() && begun ? take_rest_down(known(id)) : outcome.trouble;
    if (trouble.empty()) {
        catalogue_.clear_mounted(id);
        catalogue_.set_state(id, State::frozen);
        failure.afterwards = "nothing is mounted; the snapshot stays frozen";
    } else {
        failure.code = ExitCode::left;
        failure.afterwards = "taking the copy down failed: " + trouble;
    }
    throw failure;
}

// The mirrors hold the copy still, and nobody has used it. What is up of it is taken down as a
// release would, without the release's end on the array, so that the mount begins anew.
void Cycle::end_killed_mount(const SnapshotRecord &snapshot) {
    log::progress("takes down what a killed mount has left");
    const Outcome outcome = text_phase(snapshot.id, TextWork::take_down, texts_of(snapshot));
    if (outcome.done) {
        catalogue_.clear_mounted(snapshot.id);
        catalogue_.set_state(snapshot.id, State::frozen);
        return;
    }
    Failure failure = outcome.as_failure(ExitCode::left);
    if (failure.code == ExitCode::failed) failure.code = ExitCode::left;
    failure.id = static_cast<long>(snapshot.id);
    failure.afterwards = "the copy is there still; what a killed mount has left of it is up";
    failure.next = failure.step == Step::thaw ? remedy_of_thaw(snapshot, "mount") : "";
    if (failure.next.empty()) failure.next = "fimctl mount " + std::to_string(snapshot.id);
    note(snapshot.id, std::string(name_of(failure.step)) + ": " + failure.what());
    throw failure;
}

// A disk group that was brought up only in part is forgotten by the record that brought it up, and
// its thaw leaves it alone. A text that names the group takes down what is there.
std::string Cycle::take_rest_down(const SnapshotRecord &snapshot) {
    const auto &objects = snapshot.objects;
    if (std::none_of(objects.begin(), objects.end(),
                     [](const ObjectRecord &object) { return object.is_volume(); })) {
        return "";
    }
    std::vector<std::string> texts;
    for (const ObjectRecord &object : objects) texts.push_back(as_if_mounted(object.text));
    const Outcome outcome = text_phase(snapshot.id, TextWork::take_down, texts);
    return outcome.done ? "" : outcome.as_failure(ExitCode::left).what();
}

void Cycle::release(int64_t id) {
    lock(id);
    SnapshotRecord snapshot = known(id);
    if (is_over(snapshot.state)) {
        Failure failure(
            Step::snapshot, ExitCode::usage,
            "snapshot " + std::to_string(id) + " is over: it is " + name_of(snapshot.state));
        failure.next = "nothing is left to do for it";
        throw failure;
    }
    refuse_away(snapshot, "release", settings_.abandoned);
    // Before anything else that could write: whoever writes to a frozen file system hangs.
    for (const std::string &directory : thaw_marked(frozen_mark_of(settings_.state, id))) {
        log::progress("thawed " + directory + ", which its killed guardian had left frozen");
    }
    if (snapshot.state == State::restoring) {
        prepare_release_of_restoring(snapshot, settings_.abandoned);
        catalogue_.set_state(id, State::frozen);
        snapshot = known(id);
    }
    HookedStep step(settings_, HookPhase::pre_release, snapshot);
    if (snapshot.state == State::begun) {
        // Killed before the cut: its locks have ended with its process.
        catalogue_.set_state(id, State::failed);
        remove_folders(snapshot);
        log::outcome("nothing had been split; it is marked failed");
    } else if (every_text_is_there(snapshot)) {
        release_by_text(snapshot);
    } else {
        undo(snapshot);
    }
    step.done(known(id));
}

// A release that did not get beyond its first step has changed nothing: the snapshot is as it was,
// and the caller learns why. After that something is left.
void Cycle::end_release(const SnapshotRecord &snapshot, const Outcome &outcome) {
    if (outcome.done) {
        catalogue_.set_state(snapshot.id, State::released);
        note(snapshot.id, "");
        remove_folders(snapshot);
        log::outcome("released");
        return;
    }
    Failure failure = outcome.as_failure(ExitCode::left);
    const bool unchanged = !outcome.died() && outcome.trouble.empty() &&
                           (failure.step == Step::rebuild || failure.step == Step::freeze);
    if (unchanged) catalogue_.set_state(snapshot.id, snapshot.state);
    const bool told = failure.code == ExitCode::owned || failure.code == ExitCode::array ||
                      failure.code == ExitCode::interrupted;
    if (!unchanged || !told) failure.code = ExitCode::left;
    if (failure.step == Step::thaw) failure = failed_thaw(failure, snapshot);
    failure.id = static_cast<long>(snapshot.id);
    if (failure.code == ExitCode::left && snapshot.is_away()) {
        // What it ends with is a release, and without the word that one would be refused.
        if (failure.next.empty()) failure.next = remedy_of(failure.step, failure.code, failure.id);
        failure.next += " --abandoned";
    }
    note(snapshot.id, std::string(name_of(failure.step)) + ": " + failure.what());
    throw failure;
}

void Cycle::release_by_text(const SnapshotRecord &snapshot) {
    catalogue_.set_state(snapshot.id, State::releasing);
    end_release(snapshot, text_phase(snapshot.id, TextWork::release, texts_of(snapshot)));
}

void Cycle::undo(const SnapshotRecord &snapshot) {
    try {
        check_before_undo(snapshot);
    } catch (Failure &failure) {
        failure.code = ExitCode::left;
        failure.id = static_cast<long>(snapshot.id);
        note(snapshot.id, failure.what());
        throw;
    }
    FreezeJob job;
    job.method = settings_.method;
    job.config = resync_config(snapshot.config);
    for (const ObjectRecord &object : snapshot.objects) {
        job.objects.push_back({object.source, object.fifs, object.is_volume()});
    }
    Worker worker([&job](Channel &channel) { run_undo_phase(job, channel); }, scratch(snapshot.id));
    end_release(snapshot, converse(worker, [](const Message &) {}));
}

}  // namespace fimctl
