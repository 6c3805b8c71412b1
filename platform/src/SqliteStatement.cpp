#include "pelio/platform/SqliteStatement.h"

#include <pelio/platform/Log.h>

namespace pelio::platform {

SqliteStatement::SqliteStatement(sqlite3* db, const char* sql) {
    if (db == nullptr) {
        error_ = SQLITE_MISUSE;
        return;
    }
    sqlite3_stmt* raw = nullptr;
    error_ = sqlite3_prepare_v2(db, sql, -1, &raw, nullptr);
    stmt_.reset(raw);
    if (error_ != SQLITE_OK)
        stmt_.reset();
    else if (!stmt_)
        error_ = SQLITE_MISUSE;  // the text held no statement (blank or only a comment)
}

SqliteStatement& SqliteStatement::noteBind(int rc) {
    if (error_ == SQLITE_OK)
        error_ = rc;
    return *this;
}

SqliteStatement& SqliteStatement::bind(int index, int value) {
    return stmt_ ? noteBind(sqlite3_bind_int(stmt_.get(), index, value)) : *this;
}

SqliteStatement& SqliteStatement::bind(int index, long long value) {
    return stmt_ ? noteBind(sqlite3_bind_int64(stmt_.get(), index, value)) : *this;
}

SqliteStatement& SqliteStatement::bind(int index, const std::string& value) {
    return stmt_ ? noteBind(sqlite3_bind_text(stmt_.get(), index, value.c_str(),
                                              static_cast<int>(value.size()), SQLITE_TRANSIENT))
                 : *this;
}

int SqliteStatement::step() {
    return stmt_ ? sqlite3_step(stmt_.get()) : SQLITE_MISUSE;
}

bool SqliteStatement::run() {
    const int rc = step();
    reset();
    return rc == SQLITE_DONE;
}

void SqliteStatement::reset() {
    if (stmt_) {
        sqlite3_reset(stmt_.get());
        sqlite3_clear_bindings(stmt_.get());
        error_ = SQLITE_OK;
    }
}

int SqliteStatement::columnCount() const {
    return sqlite3_column_count(stmt_.get());
}

bool SqliteStatement::columnIsNull(int column) const {
    return sqlite3_column_type(stmt_.get(), column) == SQLITE_NULL;
}

int SqliteStatement::columnInt(int column) const {
    return sqlite3_column_int(stmt_.get(), column);
}

long long SqliteStatement::columnInt64(int column) const {
    return sqlite3_column_int64(stmt_.get(), column);
}

std::string SqliteStatement::columnText(int column) const {
    const unsigned char* text = sqlite3_column_text(stmt_.get(), column);
    if (text == nullptr)
        return {};
    return std::string(reinterpret_cast<const char*>(text),
                       static_cast<size_t>(sqlite3_column_bytes(stmt_.get(), column)));
}

std::string SqliteStatement::columnBlob(int column) const {
    const void* blob = sqlite3_column_blob(stmt_.get(), column);
    if (blob == nullptr)
        return {};
    return std::string(static_cast<const char*>(blob),
                       static_cast<size_t>(sqlite3_column_bytes(stmt_.get(), column)));
}

SqliteDb openIndexDatabase(const std::string& path, const char* what) {
    constexpr int kBusyTimeoutMs = 10000;
    sqlite3* raw = nullptr;
    const int rc = sqlite3_open_v2(
        path.c_str(), &raw, SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE | SQLITE_OPEN_FULLMUTEX,
        nullptr);
    SqliteDb db(raw);  // sqlite3_open_v2 hands out a handle even when it fails
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
