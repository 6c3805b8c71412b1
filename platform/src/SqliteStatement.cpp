#include "SqliteStatement.h"

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

}  // namespace pelio::platform
