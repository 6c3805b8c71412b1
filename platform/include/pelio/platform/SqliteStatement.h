// A prepared SQLite statement owned by one object, and the opening of the platform's index
// databases.
//
// Threads: a statement belongs to the thread that prepared it and is used there only, on a
// connection that outlives it.
// Errors: a failed prepare leaves the statement invalid (ok() false, error() the engine's code,
// SQLITE_MISUSE for a text without a statement); a failed bind is kept in error() until reset();
// step() returns SQLite's code.
#pragma once

#include <pelio/CHandles.h>
#include <sqlite3.h>

#include <string>

namespace pelio::platform {

// Opens (creating it when missing) a platform index database shared by several threads and
// processes: write-ahead log, synchronous=NORMAL, a 10 s busy time-out. Null when it cannot be
// opened; the failure is logged as "<what>: cannot open <path>: <reason>".
SqliteDb openIndexDatabase(const std::string& path, const char* what);

class SqliteStatement {
  public:
    SqliteStatement(sqlite3* db, const char* sql);
    SqliteStatement(sqlite3* db, const std::string& sql) : SqliteStatement(db, sql.c_str()) {}

    bool ok() const { return stmt_ != nullptr; }
    // SQLITE_OK, or the code of the failed prepare, or of the first bind that failed since the
    // last reset().
    int error() const { return error_; }

    SqliteStatement& bind(int index, int value);
    SqliteStatement& bind(int index, long long value);
    SqliteStatement& bind(int index, const std::string& value);
    // The text, or NULL (nothing bound) when it is empty.
    SqliteStatement& bindOrNull(int index, const std::string& value) {
        return value.empty() ? *this : bind(index, value);
    }
    // One step: SQLITE_ROW, SQLITE_DONE or an error code.
    int step();
    // Runs a statement that returns no rows; true on SQLITE_DONE.
    bool run();
    // The same when every bind since the last reset() succeeded; resets it either way.
    bool runBound() {
        if (error_ == SQLITE_OK)
            return run();
        reset();
        return false;
    }
    // Back to the first step with no values bound.
    void reset();

    int columnCount() const;
    bool columnIsNull(int column) const;
    int columnInt(int column) const;
    long long columnInt64(int column) const;
    // The column as text ("" for NULL) or as the bytes of a blob ("" for NULL or empty).
    std::string columnText(int column) const;
    std::string columnBlob(int column) const;

  private:
    // Keeps the first failure of a bind.
    SqliteStatement& noteBind(int rc);

    SqliteStmt stmt_;
    int error_ = SQLITE_OK;
};

}  // namespace pelio::platform
