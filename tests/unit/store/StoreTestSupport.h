// Helpers of the local-store unit tests: a fresh database in a temporary directory behind the
// fake application paths, request bundles from key/value lists, and decoded result rows.
#pragma once

#include <gtest/gtest.h>

#include <initializer_list>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "database/DbManager.h"
#include "doubles/FakeAppPaths.h"
#include "support/Installed.h"
#include "support/LogCapture.h"

namespace pelio::test {

inline pelio::platform::Bundle makeRequest(
    std::initializer_list<std::pair<std::string, std::string>> pairs) {
    pelio::platform::Bundle b;
    for (const auto& [k, v] : pairs)
        b.addStr(k, v);
    return b;
}

inline pelio::platform::Bundle makeRequest(
    const std::vector<std::pair<std::string, std::string>>& pairs) {
    pelio::platform::Bundle b;
    for (const auto& [k, v] : pairs)
        b.addStr(k, v);
    return b;
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

class StoreTest : public ::testing::Test {
  protected:
    void SetUp() override {
        DbManager::resetInstanceForTesting();
        db_ = DbManager::getInstance();
    }
    void TearDown() override { DbManager::resetInstanceForTesting(); }

    // Runs one request; returns plmsvc_db_process's code, the result in *result.
    int run(std::initializer_list<std::pair<std::string, std::string>> pairs,
            pelio::platform::Bundle* result) {
        auto request = makeRequest(pairs);
        return db_->plmsvc_db_process(&request, result);
    }
    int run(std::initializer_list<std::pair<std::string, std::string>> pairs) {
        pelio::platform::Bundle result;
        return run(pairs, &result);
    }

    LogCapture log_;
    Installed<FakeAppPaths, &pelio::platform::installAppPaths> paths_;
    DbManager* db_ = nullptr;
};

}  // namespace pelio::test

#include <sqlite3.h>

namespace pelio::test {

// Rows of a query run straight on a database file (outside DbManager), each cell as text or
// "NULL"; empty when the file cannot be opened or the query fails.
inline std::vector<std::vector<std::string>> sqlRows(const std::string& path,
                                                     const std::string& sql) {
    std::vector<std::vector<std::string>> rows;
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

}  // namespace pelio::test
