#include "fimctl/catalogue.h"

#include <fcntl.h>
#include <sqlite3.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <filesystem>
#include <set>

#include "fimctl/catalogue_statement.h"
#include "fimctl/failure.h"
#include "fimctl/host.h"
#include "fimctl/paths.h"

namespace fimctl {
namespace {

namespace fs = std::filesystem;

constexpr int busy_timeout_ms = 10000;

[[noreturn]] void give_up(const std::string &text) {
    throw Failure(Step::catalogue, ExitCode::failed, text);
}

Failure damaged(const std::string &file) {
    Failure failure(Step::catalogue, ExitCode::failed,
                    "the catalogue " + file + " is damaged: it is no database");
    failure.next =
        "move it away and put a saved one in its place; without one: fimctl orphans "
        "tells what is mounted and owned still";
    return failure;
}

[[noreturn]] void give_up_on(const std::string &path, int reason) {
    throw Failure(Step::catalogue,
                  reason == EACCES || reason == EPERM ? ExitCode::permission : ExitCode::failed,
                  path + ": " + strerror(reason));
}

// The texts name devices and paths of the whole host: the folder is root's alone.
void make_private(const std::string &directory) {
    struct stat status = {};
    if (stat(directory.c_str(), &status) != 0) {
        std::error_code error;
        fs::create_directories(fs::path(directory).parent_path(), error);
        if (mkdir(directory.c_str(), 0700) != 0 && errno != EEXIST) give_up_on(directory, errno);
        return;
    }
    if (!S_ISDIR(status.st_mode)) give_up(directory + ": not a directory");
    if ((status.st_mode & 077) == 0) return;
    // A folder that is ours by its name may be closed; any other one may be somebody else's.
    if (directory != path::state_directory) {
        throw Failure(
            Step::catalogue, ExitCode::usage,
            directory + ": open to others than its owner; close it first: chmod 700 " + directory);
    }
    if (chmod(directory.c_str(), 0700) != 0) give_up_on(directory, errno);
}

}  // namespace

const char *name_of(State state) {
    switch (state) {
    case State::begun:
        return "begun";
    case State::cutting:
        return "cutting";
    case State::frozen:
        return "frozen";
    case State::mounting:
        return "mounting";
    case State::mounted:
        return "mounted";
    case State::releasing:
        return "releasing";
    case State::released:
        return "released";
    case State::failed:
        return "failed";
    case State::restoring:
        return "restoring";
    case State::restored:
        return "restored";
    }
    return "unknown";
}

bool is_over(State state) {
    return state == State::released || state == State::failed || state == State::restored;
}

bool ObjectRecord::is_imported_group() const {
    return CheckpointText(text).is_imported_group();
}

std::vector<std::string> SnapshotRecord::arrays() const {
    std::set<std::string> found;
    for (const ObjectRecord &object : objects) {
        for (const PairRecord &record : object.pairs) found.insert(record.pair.symid);
    }
    return {found.begin(), found.end()};
}

bool Catalogue::exists(const std::string &directory) {
    const std::string file = directory + "/" + path::catalogue_file;
    if (access(file.c_str(), F_OK) == 0) return true;
    if (errno != ENOENT) give_up_on(file, errno);
    return false;
}

Catalogue::Catalogue(const std::string &directory, bool create) {
    if (create) make_private(directory);
    const std::string file = directory + "/" + path::catalogue_file;
    // The umask is not touched for it: the folder is closed, and the file is made closed.
    if (create) close(open(file.c_str(), O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW, 0600));
    if (access(file.c_str(), R_OK | W_OK) != 0) give_up_on(file, errno);
    const int result = sqlite3_open_v2(file.c_str(), &database_, SQLITE_OPEN_READWRITE, nullptr);
    try {
        if (result != SQLITE_OK) give_up(file + ": " + sqlite3_errmsg(database_));
        sqlite3_busy_timeout(database_, busy_timeout_ms);
        prepare_schema();
    } catch (const Failure &failure) {
        const int reason = sqlite3_errcode(database_);
        sqlite3_close(database_);
        if (reason == SQLITE_NOTADB || reason == SQLITE_CORRUPT) throw damaged(file);
        throw failure;
    } catch (...) {
        sqlite3_close(database_);
        throw;
    }
}

Catalogue::~Catalogue() {
    sqlite3_close(database_);
}

void Catalogue::run(const char *sql) {
    if (sqlite3_exec(database_, sql, nullptr, nullptr, nullptr) != SQLITE_OK) {
        give_up(std::string("the catalogue: ") + sqlite3_errmsg(database_));
    }
}

Catalogue::Transaction::Transaction(Catalogue &catalogue) : catalogue_(catalogue) {
    catalogue_.run("BEGIN IMMEDIATE");
}

Catalogue::Transaction::~Transaction() {
    if (open_) sqlite3_exec(catalogue_.database_, "ROLLBACK", nullptr, nullptr, nullptr);
}

void Catalogue::Transaction::commit() {
    catalogue_.run("COMMIT");
    open_ = false;
}

int64_t Catalogue::enter(const std::string &config) {
    Statement(database_, "INSERT INTO snapshot (config, uuid, host) VALUES (?, ?, ?)")
        .bind(config)
        .bind(random_uuid())
        .bind(short_host_name())
        .step();
    return sqlite3_last_insert_rowid(database_);
}

int64_t Catalogue::enter_imported(const SnapshotRecord &snapshot) {
    Statement(database_,
              "INSERT INTO snapshot (created, state, config, quiesced, frozen_ms, uuid, host, "
              "origin, target, exports) VALUES (?, ?, ?, ?, ?, ?, ?, ?, 1, ?)")
        .bind(snapshot.created)
        .bind(static_cast<int64_t>(State::frozen))
        .bind(snapshot.config)
        .bind(static_cast<int64_t>(snapshot.quiesced))
        .bind(snapshot.frozen_ms)
        .bind(snapshot.uuid)
        .bind(short_host_name())
        .bind(snapshot.origin)
        .bind(snapshot.exports)
        .step();
    return sqlite3_last_insert_rowid(database_);
}

void Catalogue::set_objects(int64_t id, const std::vector<ObjectRecord> &objects) {
    for (size_t i = 0; i < objects.size(); ++i) {
        const ObjectRecord &object = objects[i];
        Statement(database_,
                  "INSERT INTO object (snapshot, number, source, fifs, kind, inside, device, "
                  "made_fifs, mount_dir, vol_group, vol_name) "
                  "VALUES (?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?)")
            .bind(id)
            .bind(static_cast<int64_t>(i))
            .bind(object.source)
            .bind(object.fifs)
            .bind(object.kind)
            .bind(object.inside)
            .bind(object.device)
            .bind(object.made_fifs)
            .bind(object.mount_dir)
            .bind(object.vol_group)
            .bind(object.vol_name)
            .step();
    }
}

void Catalogue::set_state(int64_t id, State state) {
    Statement(database_, "UPDATE snapshot SET state = ? WHERE id = ?")
        .bind(static_cast<int64_t>(state))
        .bind(id)
        .step();
}

void Catalogue::set_note(int64_t id, const std::string &note) {
    Statement(database_, "UPDATE snapshot SET note = ? WHERE id = ?").bind(note).bind(id).step();
}

void Catalogue::set_cut(int64_t id, bool quiesced, double frozen_ms) {
    Statement(database_, "UPDATE snapshot SET quiesced = ?, frozen_ms = ? WHERE id = ?")
        .bind(static_cast<int64_t>(quiesced))
        .bind(frozen_ms)
        .bind(id)
        .step();
}

void Catalogue::set_void(int64_t id, const std::string &reason) {
    Statement(database_, "UPDATE snapshot SET void_reason = ? WHERE id = ?")
        .bind(reason)
        .bind(id)
        .step();
}

void Catalogue::set_text_of(const char *sql, int64_t id, size_t object, const std::string &text) {
    Statement(database_, sql).bind(text).bind(id).bind(static_cast<int64_t>(object)).step();
}

void Catalogue::set_text(int64_t id, size_t object, const std::string &text) {
    set_text_of("UPDATE object SET text = ? WHERE snapshot = ? AND number = ?", id, object, text);
}

void Catalogue::set_returned_text(int64_t id, size_t object, const std::string &text) {
    set_text_of("UPDATE object SET returned_text = ? WHERE snapshot = ? AND number = ?", id, object,
                text);
}

int64_t Catalogue::set_exported(int64_t id) {
    Statement(database_,
              "UPDATE snapshot SET exported = strftime('%Y-%m-%dT%H:%M:%SZ', 'now'), "
              "returned = '', exports = exports + (target = 0) WHERE id = ?")
        .bind(id)
        .step();
    Statement number(database_, "SELECT exports FROM snapshot WHERE id = ?");
    number.bind(id).step();
    return number.integer();
}

void Catalogue::take_export_back(int64_t id, const SnapshotRecord &before) {
    Statement(database_, "UPDATE snapshot SET exported = ?, returned = ? WHERE id = ?")
        .bind(before.exported)
        .bind(before.returned)
        .bind(id)
        .step();
}

void Catalogue::set_returned(int64_t id) {
    Statement(database_,
              "UPDATE snapshot SET returned = strftime('%Y-%m-%dT%H:%M:%SZ', 'now') WHERE id = ?")
        .bind(id)
        .step();
}

void Catalogue::set_restoring(int64_t id, const std::string &form) {
    Statement(database_, "UPDATE snapshot SET state = ?, restore_form = ? WHERE id = ?")
        .bind(static_cast<int64_t>(State::restoring))
        .bind(form)
        .bind(id)
        .step();
}

void Catalogue::set_mounted(int64_t id, size_t object, const std::string &text,
                            const std::string &copy) {
    Statement(database_,
              "UPDATE object SET mounted_text = ?, copy = ? WHERE snapshot = ? AND number = ?")
        .bind(text)
        .bind(copy)
        .bind(id)
        .bind(static_cast<int64_t>(object))
        .step();
}

void Catalogue::clear_mounted(int64_t id) {
    Statement(database_, "UPDATE object SET mounted_text = '', copy = '' WHERE snapshot = ?")
        .bind(id)
        .step();
}

void Catalogue::set_pairs(int64_t id, size_t object, const std::vector<PairRecord> &pairs) {
    const bool alone = sqlite3_get_autocommit(database_) != 0;
    const auto whole = alone ? std::make_unique<Transaction>(*this) : nullptr;
    Statement(database_, "DELETE FROM pair WHERE snapshot = ? AND object = ?")
        .bind(id)
        .bind(static_cast<int64_t>(object))
        .step();
    for (size_t i = 0; i < pairs.size(); ++i) {
        Statement(database_, "INSERT INTO pair VALUES (?, ?, ?, ?, ?, ?, ?, ?)")
            .bind(id)
            .bind(static_cast<int64_t>(object))
            .bind(static_cast<int64_t>(i))
            .bind(pairs[i].pair.symid)
            .bind(pairs[i].pair.device)
            .bind(pairs[i].pair.bcv)
            .bind(static_cast<int64_t>(pairs[i].before))
            .bind(static_cast<int64_t>(pairs[i].after))
            .step();
    }
    if (whole != nullptr) whole->commit();
}

void Catalogue::load_objects(SnapshotRecord &snapshot) {
    Statement objects(database_,
                      "SELECT source, fifs, kind, inside, device, made_fifs, mount_dir, "
                      "vol_group, vol_name, text, mounted_text, returned_text, copy FROM object  "
                      "WHERE snapshot = ? ORDER BY number");
    objects.bind(snapshot.id);
    while (objects.step()) {
        ObjectRecord object;
        object.source = objects.text();
        object.fifs = objects.text();
        object.kind = objects.text();
        object.inside = objects.text();
        object.device = objects.integer();
        object.made_fifs = objects.integer();
        object.mount_dir = objects.text();
        object.vol_group = objects.text();
        object.vol_name = objects.text();
        object.text = objects.text();
        object.mounted_text = objects.text();
        object.returned_text = objects.text();
        object.copy = objects.text();
        snapshot.objects.push_back(std::move(object));
    }
    Statement pairs(database_,
                    "SELECT object, symid, device, bcv, before, after FROM pair "
                    "WHERE snapshot = ? ORDER BY object, number");
    pairs.bind(snapshot.id);
    while (pairs.step()) {
        const auto object = static_cast<size_t>(pairs.integer());
        PairRecord pair;
        pair.pair.symid = pairs.text();
        pair.pair.device = pairs.text();
        pair.pair.bcv = pairs.text();
        pair.before = pairs.integer();
        pair.after = pairs.integer();
        if (object < snapshot.objects.size()) snapshot.objects[object].pairs.push_back(pair);
    }
}

// value is what the condition's parameter stands for.
std::vector<SnapshotRecord> Catalogue::read(const char *condition, const std::string &value) {
    std::vector<SnapshotRecord> snapshots;
    {
        const std::string sql =
            "SELECT id, created, state, config, quiesced, frozen_ms, void_reason, note, uuid, "
            "host, origin, target, exported, returned, exports, restore_form FROM snapshot WHERE " +
            std::string(condition) + " ORDER BY id";
        Statement rows(database_, sql.c_str());
        rows.bind(value);
        while (rows.step()) {
            SnapshotRecord snapshot;
            snapshot.id = rows.integer();
            snapshot.created = rows.text();
            snapshot.state = static_cast<State>(rows.integer());
            snapshot.config = rows.text();
            snapshot.quiesced = rows.integer() != 0;
            snapshot.frozen_ms = rows.real();
            snapshot.void_reason = rows.text();
            snapshot.note = rows.text();
            snapshot.uuid = rows.text();
            snapshot.host = rows.text();
            snapshot.origin = rows.text();
            snapshot.is_target = rows.integer() != 0;
            snapshot.exported = rows.text();
            snapshot.returned = rows.text();
            snapshot.exports = rows.integer();
            snapshot.restore_form = rows.text();
            snapshots.push_back(std::move(snapshot));
        }
    }
    for (SnapshotRecord &snapshot : snapshots) load_objects(snapshot);
    return snapshots;
}

std::vector<SnapshotRecord> Catalogue::all() {
    return read("? = ''", "");
}

std::vector<SnapshotRecord> Catalogue::with_uuid(const std::string &uuid) {
    return read("uuid = ?", uuid);
}

std::optional<SnapshotRecord> Catalogue::find(int64_t id) {
    auto found = read("id = CAST(? AS INTEGER)", std::to_string(id));
    if (found.empty()) return std::nullopt;
    return std::move(found.front());
}

}  // namespace fimctl
