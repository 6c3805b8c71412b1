#include "ShadowDatabase.h"

#include <cstdlib>
#include <cstring>
#include <filesystem>

namespace {

constexpr int kBusyTimeoutMs = 2000;

using Statement = pelio::SqliteStmt;

Statement prepare(sqlite3* db, const std::string& sql) {
    sqlite3_stmt* s = nullptr;
    sqlite3_prepare_v2(db, sql.c_str(), -1, &s, nullptr);
    return Statement(s);
}

std::string text(sqlite3_stmt* s, int column) {
    const unsigned char* t = sqlite3_column_text(s, column);
    return t ? reinterpret_cast<const char*>(t) : "";
}

}  // namespace

std::string ShadowDatabase::path() {
    const char* xdg = std::getenv("XDG_DATA_HOME");
    std::string dataHome;
    if (xdg && *xdg) {
        dataHome = xdg;
    } else {
        const char* home = std::getenv("HOME");
        dataHome = std::string(home ? home : "") + "/.local/share";
    }
    return dataHome + "/com.quorvin.plmsvc/shared/trusted/databases/.orvane.db";
}

bool ShadowDatabase::open() {
    const std::string file = path();
    std::error_code ec;
    if (!std::filesystem::exists(file, ec)) {
        error_ = "no database yet";
        return false;
    }
    sqlite3* raw = nullptr;
    const int rc = sqlite3_open_v2(file.c_str(), &raw, SQLITE_OPEN_READONLY, nullptr);
    db_.reset(raw);
    if (rc != SQLITE_OK) {
        error_ = "cannot open " + file + ": " + (raw ? sqlite3_errmsg(raw) : "out of memory");
        db_.reset();
        return false;
    }
    sqlite3_busy_timeout(db_.get(), kBusyTimeoutMs);
    return true;
}

void ShadowDatabase::begin() {
    failed_ = false;
    if (db_ && sqlite3_exec(db_.get(), "BEGIN", nullptr, nullptr, nullptr) != SQLITE_OK)
        failed_ = true;
}

bool ShadowDatabase::end() {
    if (db_)
        sqlite3_exec(db_.get(), "COMMIT", nullptr, nullptr, nullptr);
    return db_ && !failed_;
}

bool ShadowDatabase::countByDirty(const std::string& table, std::map<int, long>& counts) {
    counts.clear();
    if (!db_)
        return false;
    // table is one of pelioctl's own constants, never user input.
    Statement stmt = prepare(
        db_.get(), "SELECT dirty, COUNT(*) FROM " + table + " GROUP BY dirty ORDER BY dirty");
    if (!stmt)
        return noteMissingOrFailed();
    int rc = SQLITE_ROW;
    while ((rc = sqlite3_step(stmt.get())) == SQLITE_ROW) {
        const int dirty = sqlite3_column_type(stmt.get(), 0) == SQLITE_NULL
                              ? -1
                              : sqlite3_column_int(stmt.get(), 0);
        counts[dirty] += sqlite3_column_int64(stmt.get(), 1);
    }
    if (rc != SQLITE_DONE)
        failed_ = true;
    return true;
}

bool ShadowDatabase::masterRows(const std::string& likePattern, const std::string& exactKey,
                                std::map<std::string, std::string>& rows) {
    rows.clear();
    if (!db_)
        return false;
    Statement stmt =
        prepare(db_.get(), "SELECT key, value FROM master WHERE key LIKE ?1 OR key = ?2");
    if (!stmt)
        return noteMissingOrFailed();
    sqlite3_bind_text(stmt.get(), 1, likePattern.c_str(), -1, SQLITE_TRANSIENT);
    sqlite3_bind_text(stmt.get(), 2, exactKey.c_str(), -1, SQLITE_TRANSIENT);
    int rc = SQLITE_ROW;
    while ((rc = sqlite3_step(stmt.get())) == SQLITE_ROW)
        rows[text(stmt.get(), 0)] = text(stmt.get(), 1);
    if (rc != SQLITE_DONE)
        failed_ = true;
    return true;
}

bool ShadowDatabase::noteMissingOrFailed() {
    // A missing table is a state of the database (the service has not made it yet); anything
    // else (a lock, a damaged file) makes this reading unreliable.
    const char* message = sqlite3_errmsg(db_.get());
    if (std::strncmp(message, "no such table", 13) != 0)
        failed_ = true;
    return false;
}
