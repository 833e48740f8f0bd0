#include "fimctl/inspect/orphans.h"

#include <algorithm>

#include "fimctl/frozen_mark.h"
#include "fimctl/inspect/report.h"
#include "fimctl/snapshot_lock.h"
#include "fimctl/tool.h"

namespace fimctl {
namespace {

std::string sources_of(const SnapshotRecord &snapshot) {
    std::string text;
    for (const ObjectRecord &object : snapshot.objects) {
        text += (text.empty() ? "" : " ") + object.source;
    }
    return text;
}

// The two states in which a snapshot stays between two commands.
bool is_resting(State state) {
    return state == State::frozen || state == State::mounted;
}

void describe_waiting(const SnapshotRecord &snapshot, Orphan &orphan) {
    const std::string release = "fimctl release " + std::to_string(snapshot.id);
    orphan.is_waiting = true;
    orphan.command = release;
    if (snapshot.is_away()) {
        orphan.what += ", exported " + snapshot.exported + " and not returned";
        orphan.command =
            "fimctl import what the backup host exports, or " + release + " --abandoned";
        orphan.is_kept = true;
    } else if (!snapshot.void_reason.empty()) {
        orphan.what += ", void: " + snapshot.void_reason;
    } else {
        orphan.what +=
            ", waits to be " +
            std::string(snapshot.state == State::frozen ? "mounted or released" : "released");
    }
}

void describe_interrupted(const SnapshotRecord &snapshot, LockState lock, Orphan &orphan) {
    orphan.what += lock == LockState::left ? ", its fimctl was killed" : ", its fimctl ended in it";
    orphan.command = "fimctl cleanup " + std::to_string(snapshot.id);
    if (snapshot.state == State::restoring) {
        // A copy of which a part is gone is no more to be restored from.
        orphan.command = snapshot.void_reason.empty()
                             ? "fimctl restore " + std::to_string(snapshot.id)
                             : "fimctl release " + std::to_string(snapshot.id) + " --abandoned";
        orphan.is_kept = true;
    } else if (snapshot.is_away()) {
        describe_waiting(snapshot, orphan);
        orphan.is_waiting = false;
    }
}

Orphan as_orphan(const SnapshotRecord &snapshot, LockState lock) {
    Orphan orphan(OrphanKind::snapshot);
    orphan.id = snapshot.id;
    orphan.name = std::to_string(snapshot.id) + " of " + sources_of(snapshot);
    if (!snapshot.origin.empty()) orphan.name += " (" + snapshot.origin + ")";
    orphan.since = from_utc(snapshot.created);
    orphan.what = name_of(snapshot.state);
    if (is_resting(snapshot.state) && lock == LockState::none) {
        describe_waiting(snapshot, orphan);
    } else {
        describe_interrupted(snapshot, lock, orphan);
    }
    return orphan;
}

// What a killed guardian has left frozen. While it lives it thaws by itself.
void find_frozen(const Settings &settings, int64_t id, std::vector<Orphan> &orphans) {
    const FrozenMark mark = read_frozen_mark(frozen_mark_of(settings.state, id));
    if (mark.guardian != 0 && is_alive(mark.guardian)) return;
    for (const std::string &directory : mark.directories) {
        Orphan orphan(OrphanKind::frozen);
        orphan.id = id;
        orphan.name = orphan.path = directory;
        orphan.since = mark.written;
        orphan.what = "may be frozen still: its guardian was killed";
        orphan.command = "fimctl cleanup " + std::to_string(id) +
                         ", or at once: fsfreeze --unfreeze " + shell_word(directory);
        orphans.push_back(std::move(orphan));
    }
}

// A snapshot that is being entered has made its folders already: its entry is waited for.
std::vector<SnapshotRecord> read_snapshots(const Settings &settings) {
    if (!Catalogue::exists(settings.state)) return {};
    Catalogue catalogue(settings.state, false);
    const Catalogue::Transaction whole(catalogue);
    return catalogue.all();
}

Json as_json(const Orphan &orphan) {
    Json json;
    json["kind"] = name_of(orphan.kind);
    json["name"] = orphan.name;
    json["path"] = orphan.path;
    json["snapshot"] = orphan.id == 0 ? Json(nullptr) : Json(orphan.id);
    json["since"] = instant(orphan.since);
    json["age_seconds"] =
        orphan.since == 0 ? Json(nullptr) : Json(std::max<long>(0, time(nullptr) - orphan.since));
    json["what"] = orphan.what;
    json["waiting"] = orphan.is_waiting;
    json["command"] = orphan.command;
    return json;
}

}  // namespace

const char *name_of(OrphanKind kind) {
    switch (kind) {
    case OrphanKind::frozen:
        return "file system";
    case OrphanKind::snapshot:
        return "snapshot";
    case OrphanKind::mount:
        return "mount";
    case OrphanKind::folder:
        return "folder";
    case OrphanKind::scratch:
        return "temporary files";
    case OrphanKind::lock:
        return "lock";
    case OrphanKind::counter:
        return "counter file";
    case OrphanKind::group:
        return "disk group";
    }
    return "unknown";
}

std::vector<Orphan> find_orphans(const Settings &settings) {
    const Remains remains = look_for_remains(settings);
    const auto snapshots = read_snapshots(settings);
    std::vector<Orphan> frozen, orphans;
    for (const SnapshotRecord &snapshot : snapshots) {
        const LockState lock = SnapshotLock::state_of(settings.state, snapshot.id);
        if (lock == LockState::held) continue;
        find_frozen(settings, snapshot.id, frozen);
        if (!is_over(snapshot.state)) orphans.push_back(as_orphan(snapshot, lock));
    }
    find_strays(settings, remains, snapshots, orphans);
    // Writers hang on what is frozen: it stands first.
    orphans.insert(orphans.begin(), frozen.begin(), frozen.end());
    return orphans;
}

std::string orphan_report(const std::vector<Orphan> &orphans, bool json) {
    if (json) {
        Json all = Json::array();
        for (const Orphan &orphan : orphans) all.push_back(as_json(orphan));
        return document(all);
    }
    if (orphans.empty()) return "";
    Table table({"KIND", "NAME", "AGE", "WHAT"});
    for (const Orphan &orphan : orphans) {
        table.row({name_of(orphan.kind), orphan.name, age_of(orphan.since), orphan.what});
        table.below("-> " + orphan.command);
    }
    return table.text();
}

}  // namespace fimctl
