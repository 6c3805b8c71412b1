// Helpers of the local-store unit tests: a fresh database in a temporary directory behind the
// fake application paths, request bundles from key/value lists, decoded result rows, and rows
// read straight from the database file.
#pragma once

#include <gtest/gtest.h>
#include <sqlite3.h>

#include <filesystem>
#include <fstream>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "database/DbManager.h"
#include "doubles/FakeAppPaths.h"
#include "support/Installed.h"
#include "support/LogCapture.h"

namespace pelio::test {

using Request = std::vector<std::pair<std::string, std::string>>;
using Rows = std::vector<std::vector<std::string>>;

inline pelio::platform::Bundle makeRequest(const Request& pairs) {
    pelio::platform::Bundle b;
    for (const auto& [k, v] : pairs)
        b.addStr(k, v);
    return b;
}

// A request of OPERATION on TABLE; COLUMNS become COLUMN_COUNT, COLn and their values.
inline Request request(const std::string& operation, const std::string& table,
                       const Request& columns = {}, const Request& rest = {}) {
    Request r{{"OPERATION_KEY", operation}};
    if (!table.empty())
        r.emplace_back("URI_TABLE_NAME", table);
    if (!columns.empty())
        r.emplace_back("COLUMN_COUNT", std::to_string(columns.size()));
    for (std::size_t i = 0; i < columns.size(); ++i) {
        r.emplace_back("COL" + std::to_string(i + 1), columns[i].first);
        r.emplace_back(columns[i]);
    }
    r.insert(r.end(), rest.begin(), rest.end());
    return r;
}

// The row bundle stored under "record<n>", or nullopt.
inline std::optional<pelio::platform::Bundle> rowOf(const pelio::platform::Bundle& result, int n) {
    std::vector<uint8_t> bytes;
    if (result.getByte("record" + std::to_string(n), bytes) != 0)
        return std::nullopt;
    return pelio::platform::Bundle::decode(bytes);
}

inline std::string strOf(const pelio::platform::Bundle& b, const std::string& key) {
    std::string v;
    return b.getStr(key, v) == 0 ? v : std::string("<absent>");
}

// Rows of a query run straight on a database file (outside DbManager), each cell as text or
// "NULL"; empty when the file cannot be opened or the query fails.
inline Rows sqlRows(const std::string& path, const std::string& sql) {
    Rows rows;
    sqlite3* db = nullptr;
    if (sqlite3_open_v2(path.c_str(), &db, SQLITE_OPEN_READONLY, nullptr) != SQLITE_OK) {
        sqlite3_close(db);
        return rows;
    }
    sqlite3_stmt* stmt = nullptr;
    if (sqlite3_prepare_v2(db, sql.c_str(), -1, &stmt, nullptr) == SQLITE_OK) {
        while (sqlite3_step(stmt) == SQLITE_ROW) {
            std::vector<std::string> row;
            for (int c = 0; c < sqlite3_column_count(stmt); ++c) {
                const unsigned char* t = sqlite3_column_text(stmt, c);
                row.push_back(t ? reinterpret_cast<const char*>(t) : "NULL");
            }
            rows.push_back(row);
        }
    }
    sqlite3_finalize(stmt);
    sqlite3_close(db);
    return rows;
}

class StoreTest : public ::testing::Test {
  protected:
    void SetUp() override {
        DbManager::resetInstanceForTesting();
        db_ = DbManager::getInstance();
    }
    void TearDown() override { DbManager::resetInstanceForTesting(); }

    // Runs one request; returns plmsvc_db_process's code, the result in *result.
    int run(const Request& pairs, pelio::platform::Bundle* result = nullptr) {
        pelio::platform::Bundle ignored;
        auto bundle = makeRequest(pairs);
        return db_->plmsvc_db_process(&bundle, result ? result : &ignored);
    }
    std::string dbPath() const { return paths_->root() + "shared/trusted/databases/.orvane.db"; }
    // The databases directory replaced by a plain file: nothing can be opened below it.
    void breakDatabaseDirectory() {
        const std::string dir = paths_->root() + "shared/trusted/databases";
        std::filesystem::remove_all(dir);
        std::ofstream(dir) << "not a directory";
        DbManager::resetInstanceForTesting();
    }

    LogCapture log_;
    Installed<FakeAppPaths, &pelio::platform::installAppPaths> paths_;
    DbManager* db_ = nullptr;
};

}  // namespace pelio::test
