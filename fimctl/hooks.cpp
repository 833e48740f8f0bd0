#include "fimctl/hooks.h"

#include <algorithm>
#include <filesystem>
#include <optional>
#include <set>
#include <vector>

#include "fimctl/cycle.h"
#include "fimctl/hook_process.h"
#include "fimctl/log.h"
#include "fimctl/signals.h"
#include "fimctl/tool.h"

namespace fimctl {
namespace {

namespace fs = std::filesystem;

struct Row {
    HookPhase phase;
    const char *name;
    bool stops;  // a hook that fails here ends the step
    HookPhase after;
};

constexpr Row rows[] = {
    {HookPhase::pre_freeze, "pre-freeze", true, HookPhase::post_freeze},
    {HookPhase::post_freeze, "post-freeze", false, HookPhase::post_freeze},
    {HookPhase::pre_split, "pre-split", true, HookPhase::post_split},
    {HookPhase::post_split, "post-split", false, HookPhase::post_split},
    {HookPhase::pre_mount, "pre-mount", true, HookPhase::post_mount},
    {HookPhase::post_mount, "post-mount", false, HookPhase::post_mount},
    {HookPhase::pre_release, "pre-release", false, HookPhase::post_release},
    {HookPhase::post_release, "post-release", false, HookPhase::post_release},
    {HookPhase::pre_restore, "pre-restore", true, HookPhase::post_restore},
    {HookPhase::post_restore, "post-restore", false, HookPhase::post_restore},
    {HookPhase::failed, "failed", false, HookPhase::failed},
};

constexpr HookPhase phases[] = {
    HookPhase::pre_freeze,   HookPhase::post_freeze,  HookPhase::pre_split,
    HookPhase::post_split,   HookPhase::pre_mount,    HookPhase::post_mount,
    HookPhase::pre_release,  HookPhase::post_release, HookPhase::pre_restore,
    HookPhase::post_restore, HookPhase::failed};

constexpr const char *variables[] = {"FIMCTL_PHASE",    "FIMCTL_SNAPSHOT", "FIMCTL_PATHS",
                                     "FIMCTL_COPIES",   "FIMCTL_RESULT",   "FIMCTL_FAILURE",
                                     "FIMCTL_EXIT_CODE"};

// The snapshot of the last step that was announced by this command.
std::optional<SnapshotRecord> announced;
std::set<std::string> told;  // refusals; one line each is enough

const Row &row_of(HookPhase phase) {
    for (const Row &row : rows) {
        if (row.phase == phase) return row;
    }
    return rows[0];
}

void tell_refusal(const std::string &file, const std::string &why) {
    if (told.insert(file).second) log::problem("hook " + file + " is refused: " + why);
}

std::vector<std::string> environment_of(const Settings &settings, const HookStory &story) {
    std::string paths;
    std::string copies;
    for (const ObjectRecord &object : story.snapshot.objects) {
        paths += (paths.empty() ? "" : "\n") + object.source;
        if (!object.copy.empty()) copies += (copies.empty() ? "" : "\n") + object.copy;
    }
    const std::string values[] = {
        name_of(story.phase),
        std::to_string(story.snapshot.id),
        paths,
        copies,
        story.result,
        story.failure,
        story.phase == HookPhase::failed ? std::to_string(story.exit_code) : ""};
    static_assert(std::size(values) == std::size(variables));
    // A fimctl that the hook calls finds the same snapshots.
    std::vector<std::string> environment = {"FIMCTL_STATE=" + settings.state};
    for (size_t i = 0; i < std::size(variables); ++i) {
        environment.push_back(std::string(variables[i]) + "=" + values[i]);
    }
    return environment;
}

}  // namespace

// What an editor or a package leaves beside a file is passed over. Only a folder that nobody has
// named may be missing.
HookFiles find_hooks(const Settings &settings) {
    HookFiles found;
    const std::string &folder = settings.hooks;
    std::error_code error;
    if (folder.empty() || (!settings.hooks_named && !fs::exists(folder, error))) return found;
    const std::string why = why_folder_refused(folder);
    if (!why.empty()) {
        found.refused.push_back({folder, why, "name a folder that is there and root's own"});
        return found;
    }
    std::vector<std::string> files;
    for (fs::directory_iterator at(folder, error), end; !error && at != end; at.increment(error)) {
        const std::string name = at->path().filename();
        if (name.front() != '.' && name.back() != '~') files.push_back(at->path());
    }
    if (error) found.refused.push_back({folder, error.message(), "see that it can be read"});
    std::sort(files.begin(), files.end());
    for (const std::string &file : files) {
        const std::string why_file = why_refused(file);
        if (why_file.empty()) {
            found.files.push_back(file);
        } else {
            found.refused.push_back(
                {file, why_file,
                 "chown root " + shell_word(file) + "; chmod 755 " + shell_word(file) +
                     "; to pass it over: move it to " +
                     shell_word(folder + "/." + fs::path(file).filename().string())});
        }
    }
    return found;
}

void refuse_bad_hooks(const Settings &settings) {
    const auto refused = find_hooks(settings).refused;
    if (refused.empty()) return;
    std::string text;
    for (const HookFiles::Refused &one : refused) {
        text += (text.empty() ? "hook " : "; hook ") + one.file + " is refused: " + one.why;
    }
    Failure failure(Step::hooks, ExitCode::failed, text);
    failure.next = refused.front().remedy + "; to do without any hook: --hooks ''";
    throw failure;
}

const char *name_of(HookPhase phase) {
    return row_of(phase).name;
}

std::span<const HookPhase> all_hook_phases() {
    return phases;
}

std::span<const char *const> hook_variables() {
    return variables;
}

std::string run_hooks(const Settings &settings, const HookStory &story, bool stop_at_failure) {
    std::string trouble;
    const HookFiles found = find_hooks(settings);
    for (const HookFiles::Refused &one : found.refused) tell_refusal(one.file, one.why);
    for (const std::string &file : found.files) {
        // "hook backup failed" would be read as a hook that has failed.
        log::progress("telling hook " + fs::path(file).filename().string() + " of phase \"" +
                      name_of(story.phase) + "\"");
        HookRun run;
        run.file = file;
        run.argument = name_of(story.phase);
        run.environment = environment_of(settings, story);
        run.timeout = settings.hook_timeout;
        run.stop_when_interrupted = stop_at_failure;
        const std::string failure = run_hook(run);
        if (failure.empty()) continue;
        const std::string text =
            "hook " + file + ", told of phase \"" + run.argument + "\", " + failure;
        if (trouble.empty()) trouble = text;
        if (stop_at_failure) break;
        log::problem(text);
    }
    return trouble;
}

HookedStep::HookedStep(const Settings &settings, HookPhase phase, const SnapshotRecord &snapshot)
    : settings_(settings), after_(row_of(phase).after), snapshot_(snapshot) {
    const bool stops = row_of(phase).stops;
    if (stops) refuse_bad_hooks(settings);
    announced = snapshot;
    const std::string trouble = run_hooks(settings, {phase, snapshot, "", "", 0}, stops);
    if (!stops || trouble.empty()) return;
    run_hooks(settings, {after_, snapshot, "failed", "", 0}, false);
    const bool interrupted = signals::raised() != 0;
    Failure failure(Step::hooks, interrupted ? ExitCode::interrupted : ExitCode::failed, trouble);
    failure.id = static_cast<long>(snapshot.id);
    throw failure;
}

HookedStep::~HookedStep() {
    // While a failure is on its way to the user, nothing else may be thrown.
    try {
        run_hooks(settings_, {after_, snapshot_, done_ ? "done" : "failed", "", 0}, false);
    } catch (const std::exception &error) {
        log::problem(std::string("the hooks could not be told: ") + error.what());
    }
}

void HookedStep::done(const SnapshotRecord &snapshot) {
    snapshot_ = snapshot;
    done_ = true;
}

void tell_hooks_of_failure(const Settings &settings, const Failure &failure) {
    if (!announced) return;
    const SnapshotRecord snapshot = *announced;
    announced.reset();
    run_hooks(
        settings,
        {HookPhase::failed, snapshot, "failed", failure.what(), static_cast<int>(failure.code)},
        false);
}

}  // namespace fimctl
