#include "fimctl/catalogue.h"

#include <fcntl.h>
#include <sqlite3.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <filesystem>

#include "fimctl/failure.h"
#include "fimctl/paths.h"

namespace fimctl {
namespace {

namespace fs = std::filesystem;

constexpr int schema_version = 1;
constexpr int busy_timeout_ms = 10000;

constexpr char schema[] = R"(
CREATE TABLE snapshot (
    id INTEGER PRIMARY KEY AUTOINCREMENT,
    created TEXT NOT NULL DEFAULT (strftime('%Y-%m-%dT%H:%M:%SZ', 'now')),
    state INTEGER NOT NULL DEFAULT 0,
    config TEXT NOT NULL DEFAULT '',
    quiesced INTEGER NOT NULL DEFAULT 0,
    frozen_ms REAL NOT NULL DEFAULT 0,
    void_reason TEXT NOT NULL DEFAULT '',
    note TEXT NOT NULL DEFAULT '');
CREATE TABLE object (
    snapshot INTEGER NOT NULL REFERENCES snapshot (id),
    number INTEGER NOT NULL,
    source TEXT NOT NULL, fifs TEXT NOT NULL, kind TEXT NOT NULL, inside TEXT NOT NULL,
    device INTEGER NOT NULL, made_fifs INTEGER NOT NULL,
    text TEXT NOT NULL DEFAULT '', mounted_text TEXT NOT NULL DEFAULT '',
    copy TEXT NOT NULL DEFAULT '',
    PRIMARY KEY (snapshot, number));
CREATE TABLE pair (
    snapshot INTEGER NOT NULL, object INTEGER NOT NULL, number INTEGER NOT NULL,
    symid TEXT NOT NULL, device TEXT NOT NULL, bcv TEXT NOT NULL,
    before INTEGER NOT NULL, after INTEGER NOT NULL,
    PRIMARY KEY (snapshot, object, number));
)";

[[noreturn]] void give_up(const std::string &text) {
    throw Failure(Step::catalogue, ExitCode::failed, text);
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

// One prepared statement, its parameters bound in order and its columns read in order.
class Catalogue::Statement {
  public:
    Statement(sqlite3 *database, const char *sql) : database_(database) {
        check(sqlite3_prepare_v2(database, sql, -1, &statement_, nullptr));
    }
    ~Statement() { sqlite3_finalize(statement_); }
    Statement(const Statement &) = delete;
    Statement &operator=(const Statement &) = delete;

    Statement &bind(const std::string &text) {
        check(sqlite3_bind_text64(statement_, ++bound_, text.data(), text.size(), SQLITE_TRANSIENT,
                                  SQLITE_UTF8));
        return *this;
    }
    Statement &bind(int64_t number) {
        check(sqlite3_bind_int64(statement_, ++bound_, number));
        return *this;
    }
    Statement &bind(double number) {
        check(sqlite3_bind_double(statement_, ++bound_, number));
        return *this;
    }

    // The next row, if any.
    bool step() {
        column_ = 0;
        const int result = sqlite3_step(statement_);
        if (result == SQLITE_ROW) return true;
        if (result != SQLITE_DONE) check(result);
        return false;
    }

    std::string text() {
        const int at = column_++;
        const void *data = sqlite3_column_blob(statement_, at);
        const auto size = static_cast<size_t>(sqlite3_column_bytes(statement_, at));
        return data == nullptr ? "" : std::string(static_cast<const char *>(data), size);
    }
    int64_t integer() { return sqlite3_column_int64(statement_, column_++); }
    double real() { return sqlite3_column_double(statement_, column_++); }

  private:
    void check(int result) {
        if (result != SQLITE_OK) {
            give_up(std::string("the catalogue: ") + sqlite3_errmsg(database_));
        }
    }

    sqlite3 *database_;
    sqlite3_stmt *statement_ = nullptr;
    int bound_ = 0;
    int column_ = 0;
};

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
    }
    return "unknown";
}

bool is_over(State state) {
    return state == State::released || state == State::failed;
}

bool Catalogue::exists(const std::string &directory) {
    const std::string file = directory + "/" + path::catalogue_file;
    if (access(file.c_str(), F_OK) == 0) return true;
    if (errno != ENOENT && errno != ENOTDIR) give_up_on(file, errno);
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

void Catalogue::prepare_schema() {
    run("PRAGMA synchronous = FULL");
    run("BEGIN IMMEDIATE");
    int64_t version = 0;
    {
        Statement statement(database_, "PRAGMA user_version");
        if (statement.step()) version = statement.integer();
    }
    if (version == 0) {
        run(schema);
        run(("PRAGMA user_version = " + std::to_string(schema_version)).c_str());
    } else if (version != schema_version) {
        give_up("the catalogue has version " + std::to_string(version) +
                "; this fimctl knows version " + std::to_string(schema_version));
    }
    run("COMMIT");
}

int64_t Catalogue::enter(const std::string &config) {
    Statement(database_, "INSERT INTO snapshot (config) VALUES (?)").bind(config).step();
    return sqlite3_last_insert_rowid(database_);
}

void Catalogue::set_objects(int64_t id, const std::vector<ObjectRecord> &objects) {
    for (size_t i = 0; i < objects.size(); ++i) {
        const ObjectRecord &object = objects[i];
        Statement(database_,
                  "INSERT INTO object (snapshot, number, source, fifs, kind, inside, device, "
                  "made_fifs) VALUES (?, ?, ?, ?, ?, ?, ?, ?)")
            .bind(id)
            .bind(static_cast<int64_t>(i))
            .bind(object.source)
            .bind(object.fifs)
            .bind(object.kind)
            .bind(object.inside)
            .bind(object.device)
            .bind(static_cast<int64_t>(object.made_fifs))
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

void Catalogue::set_text(int64_t id, size_t object, const std::string &text) {
    Statement(database_, "UPDATE object SET text = ? WHERE snapshot = ? AND number = ?")
        .bind(text)
        .bind(id)
        .bind(static_cast<int64_t>(object))
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
    run("BEGIN IMMEDIATE");
    try {
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
        run("COMMIT");
    } catch (const Failure &) {
        sqlite3_exec(database_, "ROLLBACK", nullptr, nullptr, nullptr);
        throw;
    }
}

void Catalogue::load_objects(SnapshotRecord &snapshot) {
    Statement objects(database_,
                      "SELECT source, fifs, kind, inside, device, made_fifs, text, mounted_text, "
                      "copy FROM object WHERE snapshot = ? ORDER BY number");
    objects.bind(snapshot.id);
    while (objects.step()) {
        ObjectRecord object;
        object.source = objects.text();
        object.fifs = objects.text();
        object.kind = objects.text();
        object.inside = objects.text();
        object.device = objects.integer();
        object.made_fifs = objects.integer() != 0;
        object.text = objects.text();
        object.mounted_text = objects.text();
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

std::vector<SnapshotRecord> Catalogue::all() {
    std::vector<SnapshotRecord> snapshots;
    {
        Statement rows(database_,
                       "SELECT id, created, state, config, quiesced, frozen_ms, void_reason, note "
                       "FROM snapshot ORDER BY id");
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
            snapshots.push_back(std::move(snapshot));
        }
    }
    for (SnapshotRecord &snapshot : snapshots) load_objects(snapshot);
    return snapshots;
}

std::optional<SnapshotRecord> Catalogue::find(int64_t id) {
    for (const SnapshotRecord &snapshot : all()) {
        if (snapshot.id == id) return snapshot;
    }
    return std::nullopt;
}

}  // namespace fimctl
