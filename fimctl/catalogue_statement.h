// One prepared statement of the catalogue.
#pragma once

#include <sqlite3.h>

#include <string>

#include "fimctl/catalogue.h"
#include "fimctl/failure.h"

namespace fimctl {

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
            throw Failure(Step::catalogue, ExitCode::failed,
                          std::string("the catalogue: ") + sqlite3_errmsg(database_));
        }
    }

    sqlite3 *database_;
    sqlite3_stmt *statement_ = nullptr;
    int bound_ = 0;
    int column_ = 0;
};

}  // namespace fimctl
