#include "lab/array/store/database.h"

namespace lab {
namespace {

[[noreturn]] void store_fails(sqlite3 *database, const std::string &what) {
    throw StoreError(what + ": " +
                     (database != nullptr ? sqlite3_errmsg(database) : "no memory for SQLite"));
}

}  // namespace

Statement::~Statement() {
    sqlite3_reset(statement_);
    sqlite3_clear_bindings(statement_);
}

Statement &Statement::bind(int64_t value) {
    if (sqlite3_bind_int64(statement_, ++bound_, value) != SQLITE_OK) {
        store_fails(database_, "bind");
    }
    return *this;
}

Statement &Statement::bind(const std::string &value) {
    if (sqlite3_bind_text(statement_, ++bound_, value.data(), static_cast<int>(value.size()),
                          SQLITE_TRANSIENT) != SQLITE_OK) {
        store_fails(database_, "bind");
    }
    return *this;
}

bool Statement::step() {
    const int answer = sqlite3_step(statement_);
    if (answer == SQLITE_ROW) return true;
    if (answer != SQLITE_DONE) store_fails(database_, sqlite3_sql(statement_));
    return false;
}

std::string Statement::text(int column) const {
    const unsigned char *text = sqlite3_column_text(statement_, column);
    return text == nullptr ? "" : reinterpret_cast<const char *>(text);
}

Database::Database(const std::string &path) {
    sqlite3 *opened = nullptr;
    const int answer =
        sqlite3_open_v2(path.c_str(), &opened,
                        SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE | SQLITE_OPEN_NOMUTEX, nullptr);
    database_.reset(opened);
    if (answer != SQLITE_OK) store_fails(opened, "open " + path);
    // The state has to survive a killed daemon, not a machine without power.
    execute("PRAGMA journal_mode = WAL; PRAGMA synchronous = OFF; PRAGMA foreign_keys = ON;");
}

Statement Database::prepare(const std::string &sql) {
    auto &kept = prepared_[sql];
    if (kept == nullptr) {
        sqlite3_stmt *made = nullptr;
        if (sqlite3_prepare_v2(database_.get(), sql.c_str(), -1, &made, nullptr) != SQLITE_OK) {
            store_fails(database_.get(), sql);
        }
        kept.reset(made);
    }
    return {database_.get(), kept.get()};
}

void Database::execute(const std::string &sql) {
    if (sqlite3_exec(database_.get(), sql.c_str(), nullptr, nullptr, nullptr) != SQLITE_OK) {
        store_fails(database_.get(), sql);
    }
}

Transaction::Transaction(Database *database) : database_(database) {
    database_->run("BEGIN IMMEDIATE");
}

Transaction::~Transaction() {
    if (!open_) return;
    try {
        database_->run("ROLLBACK");
    } catch (const StoreError &) {
        // The error that ended the transaction is on its way already; SQLite has rolled back
        // itself.
    }
}

void Transaction::commit() {
    database_->run("COMMIT");
    open_ = false;
}

}  // namespace lab
