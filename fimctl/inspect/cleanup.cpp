#include "fimctl/inspect/cleanup.h"

#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <filesystem>

#include "fimctl/frozen_mark.h"
#include "fimctl/inspect/lock_files.h"
#include "fimctl/inspect/orphans.h"
#include "fimctl/log.h"
#include "fimctl/paths.h"
#include "fimctl/signals.h"
#include "fimctl/snapshot_lock.h"
#include "fimctl/tool.h"

namespace fimctl {
namespace {

class Cleanup {
  public:
    Cleanup(const Settings &settings, const CleanupWish &wish) : settings_(settings), wish_(wish) {}

    bool perform() {
        for (const int64_t id : wish_.ids) check(id);
        thaw_all();
        release_all();
        // Of the snapshots that are over now, some things are left that were theirs before.
        if (wish_.ids.empty() && !is_interrupted()) end_strays();
        if (is_whole_ && wish_.ids.empty()) {
            log::progress(stays_ ? "nothing else is left over" : "nothing is left over");
        }
        return is_whole_;
    }

  private:
    bool is_interrupted() {
        if (signals::raised() == 0) return false;
        if (is_whole_) log::problem("interrupted; what is left: fimctl orphans");
        is_whole_ = false;
        return true;
    }

    void check(int64_t id) {
        if (Catalogue::exists(settings_.state)) {
            if (Catalogue(settings_.state, false).find(id)) return;
        }
        throw no_such_snapshot(id);
    }

    bool is_wanted(const Orphan &orphan) const {
        if (!wish_.ids.empty()) {
            return std::find(wish_.ids.begin(), wish_.ids.end(), orphan.id) != wish_.ids.end();
        }
        return wish_.all || !orphan.is_waiting;
    }

    // First of all, and for every snapshot before any other is worked on: whoever writes to a
    // frozen file system hangs, and a hook or a tool of ours may be the next.
    void thaw_all() {
        for (const Orphan &orphan : find_orphans(settings_)) {
            if (orphan.kind != OrphanKind::frozen || !is_wanted(orphan)) continue;
            const std::string mark = frozen_mark_of(settings_.state, orphan.id);
            for (const std::string &directory : thaw_marked(mark)) {
                log::progress("thawed " + directory);
            }
        }
    }

    void leave(const std::string &name, const std::string &why, const std::string &command) {
        is_whole_ = false;
        log::problem(name + " is left: " + why);
        if (!command.empty()) log::problem("next: " + command);
    }

    void release_all() {
        std::vector<int64_t> seen;
        for (const Orphan &orphan : find_orphans(settings_)) {
            if (orphan.kind != OrphanKind::snapshot) continue;
            seen.push_back(orphan.id);
            const std::string name = "snapshot " + orphan.name;
            if (!is_wanted(orphan)) {
                stays_ = true;
                if (wish_.ids.empty()) {
                    log::progress(name + " stays: " + orphan.what + " (" +
                                  (orphan.is_kept ? "next: " + orphan.command
                                                  : "fimctl cleanup " + std::to_string(orphan.id) +
                                                        " ends it") +
                                  ")");
                }
            } else if (orphan.is_kept) {
                leave(name, orphan.what, orphan.command);
            } else if (!is_interrupted()) {
                release(orphan, name);
            }
        }
        for (const int64_t id : wish_.ids) {
            if (std::find(seen.begin(), seen.end(), id) == seen.end()) tell_of_others(id);
        }
    }

    void release(const Orphan &orphan, const std::string &name) {
        try {
            Catalogue catalogue(settings_.state, false);
            Cycle(settings_, catalogue).release(orphan.id);
        } catch (const Failure &failure) {
            const std::string next = failure.next.empty()
                                         ? remedy_of(failure.step, failure.code, failure.id)
                                         : failure.next;
            leave(name, failure.what(), next);
        }
        log::about(0);
    }

    // Snapshots that were asked for and are nobody's orphans: over, or in somebody's hands.
    void tell_of_others(int64_t id) {
        const std::string name = "snapshot " + std::to_string(id);
        if (SnapshotLock::state_of(settings_.state, id) == LockState::held) {
            leave(name, "another fimctl works on it", "wait until it has ended");
        } else {
            log::progress(name + " is over already");
        }
    }

    void end_strays() {
        for (const Orphan &orphan : find_orphans(settings_)) {
            if (orphan.kind == OrphanKind::snapshot || orphan.kind == OrphanKind::frozen) continue;
            const std::string name = std::string(name_of(orphan.kind)) + " " + orphan.name;
            if (orphan.is_kept) {
                leave(name, orphan.what, orphan.command);
                continue;
            }
            const std::string why = end(orphan);
            if (why.empty()) {
                log::progress(name + ": ended");
            } else {
                leave(name, why, "");
            }
        }
    }

    // What went wrong, or "".
    std::string end(const Orphan &orphan) const {
        std::string why;
        switch (orphan.kind) {
        case OrphanKind::mount:
            return unmount(orphan.path);
        case OrphanKind::folder:
            // Only an empty one: rmdir sees to that.
            if (!is_folder_of_own(orphan.path, settings_.state)) return "it is none of fimctl's";
            return rmdir(orphan.path.c_str()) == 0 || errno == ENOENT ? "" : strerror(errno);
        case OrphanKind::scratch:
            return remove_scratch(orphan.path);
        case OrphanKind::lock:
            return remove_lock(orphan.id);
        case OrphanKind::counter:
            return remove_left_counter(orphan.path, why) ? "" : why;
        default:
            return "it cannot be ended here";
        }
    }

    std::string unmount(const std::string &directory) const {
        const ToolResult said = run_tool({"umount", "--", directory});
        if (!said.good()) return said.reason() + " (fuser -vm " + shell_word(directory) + ")";
        if (is_folder_of_own(directory, settings_.state)) rmdir(directory.c_str());
        return "";
    }

    // Taken as by any fimctl, so that it is nobody's while it goes.
    std::string remove_lock(int64_t id) const {
        try {
            const SnapshotLock lock(settings_.state, id);
        } catch (const Failure &failure) {
            return failure.what();
        }
        return "";
    }

    static std::string remove_scratch(const std::string &folder) {
        std::error_code error;
        std::filesystem::remove_all(folder, error);
        return error ? error.message() : "";
    }

    const Settings &settings_;
    const CleanupWish &wish_;
    bool is_whole_ = true;
    bool stays_ = false;
};

}  // namespace

bool clean_up(const Settings &settings, const CleanupWish &wish) {
    return Cleanup(settings, wish).perform();
}

}  // namespace fimctl
