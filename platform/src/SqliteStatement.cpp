#include "SqliteStatement.h"

#include <pelio/platform/Log.h>

namespace pelio::platform {

SqliteStatement::SqliteStatement(sqlite3* db, const char* sql) {
    if (db == nullptr || sqlite3_prepare_v2(db, sql, -1, &stmt_, nullptr) != SQLITE_OK) {
        sqlite3_finalize(stmt_);
        stmt_ = nullptr;
    }
}

SqliteStatement::~SqliteStatement() {
    sqlite3_finalize(stmt_);
}

SqliteStatement& SqliteStatement::bind(int index, int value) {
    if (stmt_)
        sqlite3_bind_int(stmt_, index, value);
    return *this;
}

SqliteStatement& SqliteStatement::bind(int index, long long value) {
    if (stmt_)
        sqlite3_bind_int64(stmt_, index, value);
    return *this;
}

SqliteStatement& SqliteStatement::bind(int index, const std::string& value) {
    if (stmt_)
        sqlite3_bind_text(stmt_, index, value.c_str(), static_cast<int>(value.size()),
                          SQLITE_TRANSIENT);
    return *this;
}

int SqliteStatement::step() {
    return stmt_ ? sqlite3_step(stmt_) : SQLITE_MISUSE;
}

bool SqliteStatement::run() {
    const int rc = step();
    reset();
    return rc == SQLITE_DONE;
}

void SqliteStatement::reset() {
    if (stmt_) {
        sqlite3_reset(stmt_);
        sqlite3_clear_bindings(stmt_);
    }
}

int SqliteStatement::columnInt(int column) const {
    return sqlite3_column_int(stmt_, column);
}

long long SqliteStatement::columnInt64(int column) const {
    return sqlite3_column_int64(stmt_, column);
}

std::string SqliteStatement::columnText(int column) const {
    const unsigned char* text = sqlite3_column_text(stmt_, column);
    if (text == nullptr)
        return {};
    return std::string(reinterpret_cast<const char*>(text),
                       static_cast<size_t>(sqlite3_column_bytes(stmt_, column)));
}

SqliteHandle openIndexDatabase(const std::string& path, const char* what) {
    constexpr int kBusyTimeoutMs = 10000;
    sqlite3* raw = nullptr;
    const int rc = sqlite3_open_v2(
        path.c_str(), &raw, SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE | SQLITE_OPEN_FULLMUTEX,
        nullptr);
    SqliteHandle db(raw);  // sqlite3_open_v2 hands out a handle even when it fails
    if (rc != SQLITE_OK) {
        dlog_print(DLOG_ERROR, "PelioPlatform", "%s: cannot open %s: %s", what, path.c_str(),
                   raw ? sqlite3_errmsg(raw) : "out of memory");
        return nullptr;
    }
    sqlite3_busy_timeout(db.get(), kBusyTimeoutMs);
    if (sqlite3_exec(db.get(), "PRAGMA journal_mode=WAL; PRAGMA synchronous=NORMAL;", nullptr,
                     nullptr, nullptr) != SQLITE_OK) {
        dlog_print(DLOG_WARN, "PelioPlatform", "%s: %s stays in rollback-journal mode: %s", what,
                   path.c_str(), sqlite3_errmsg(db.get()));
    }
    return db;
}

}  // namespace pelio::platform
