// Small RAII helpers around SQLite: an owned connection handle and a prepared statement.
//
// Threads: a statement belongs to the thread that prepared it and is used there only.
// Errors: prepare failures leave the statement invalid (ok() false); step() returns SQLite's code.
#pragma once

#include <sqlite3.h>

#include <memory>
#include <string>

namespace pelio::platform {

struct SqliteCloser {
    void operator()(sqlite3* db) const { sqlite3_close_v2(db); }
};
using SqliteHandle = std::unique_ptr<sqlite3, SqliteCloser>;

// Opens (creating it when missing) a platform index database shared by several threads and
// processes: write-ahead log, synchronous=NORMAL, a 10 s busy time-out. Null when it cannot be
// opened; the failure is logged as "<what>: cannot open <path>: <reason>".
SqliteHandle openIndexDatabase(const std::string& path, const char* what);

class SqliteStatement {
  public:
    SqliteStatement(sqlite3* db, const char* sql);
    ~SqliteStatement();
    SqliteStatement(const SqliteStatement&) = delete;
    SqliteStatement& operator=(const SqliteStatement&) = delete;

    bool ok() const { return stmt_ != nullptr; }
    SqliteStatement& bind(int index, int value);
    SqliteStatement& bind(int index, long long value);
    SqliteStatement& bind(int index, const std::string& value);
    // One step: SQLITE_ROW, SQLITE_DONE or an error code.
    int step();
    // Runs a statement that returns no rows; true on SQLITE_DONE.
    bool run();
    void reset();

    int columnInt(int column) const;
    long long columnInt64(int column) const;
    std::string columnText(int column) const;

  private:
    sqlite3_stmt* stmt_ = nullptr;
};

}  // namespace pelio::platform
