// SQLite with owners: a connection, a statement, a transaction that is rolled back unless
// committed.
#pragma once

#include <sqlite3.h>

#include <memory>
#include <stdexcept>
#include <string>
#include <unordered_map>

namespace lab {

struct StoreError : std::runtime_error {
    using std::runtime_error::runtime_error;
};

// A prepared statement with its values bound in order; reset when it goes out of scope.
class Statement {
  public:
    Statement(sqlite3 *database, sqlite3_stmt *statement)
        : database_(database), statement_(statement) {}
    Statement(const Statement &) = delete;
    Statement &operator=(const Statement &) = delete;
    ~Statement();

    Statement &bind(int64_t value);
    Statement &bind(const std::string &value);
    // The next row; false when there is none.
    bool step();
    void run() {
        while (step()) {
        }
    }
    int64_t number(int column) const { return sqlite3_column_int64(statement_, column); }
    std::string text(int column) const;

  private:
    sqlite3 *database_;
    sqlite3_stmt *statement_;
    int bound_ = 0;
};

class Database {
  public:
    explicit Database(const std::string &path);
    // Statements are prepared once.
    Statement prepare(const std::string &sql);
    void run(const std::string &sql) { prepare(sql).run(); }
    // Several statements without values.
    void execute(const std::string &sql);

  private:
    struct Close {
        void operator()(sqlite3 *database) const { sqlite3_close_v2(database); }
    };
    struct Finalize {
        void operator()(sqlite3_stmt *statement) const { sqlite3_finalize(statement); }
    };
    std::unique_ptr<sqlite3, Close> database_;
    std::unordered_map<std::string, std::unique_ptr<sqlite3_stmt, Finalize>> prepared_;
};

class Transaction {
  public:
    explicit Transaction(Database *database);
    Transaction(const Transaction &) = delete;
    Transaction &operator=(const Transaction &) = delete;
    ~Transaction();
    void commit();

  private:
    Database *database_;
    bool open_ = true;
};

}  // namespace lab
