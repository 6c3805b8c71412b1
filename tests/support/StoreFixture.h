// The shared fixture of the tests on the local store: a fresh database in a temporary directory
// behind the fake application paths, a preference store of its own and captured log lines; with
// it, request bundles from key/value lists, decoded result rows, and rows read straight from the
// database file (columns joined with '|'). Test thread only; failures are test failures.
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
#include "doubles/FakePreferences.h"
#include "support/Installed.h"
#include "support/LogCapture.h"

namespace pelio::test {

using Request = std::vector<std::pair<std::string, std::string>>;
using Rows = std::vector<std::string>;

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

// Runs SQL on the shadow database (or another database file) directly.
inline void exec(const std::string& sql, const std::string& path = DbManager::databasePath()) {
    sqlite3* db = nullptr;
    ASSERT_EQ(sqlite3_open(path.c_str(), &db), SQLITE_OK);
    char* err = nullptr;
    const int rc = sqlite3_exec(db, sql.c_str(), nullptr, nullptr, &err);
    const std::string message = err ? err : "";
    sqlite3_free(err);
    sqlite3_close(db);
    ASSERT_EQ(rc, SQLITE_OK) << message;
}

// The rows of a query, columns joined with '|' (NULL shown as "").
inline std::vector<std::string> query(const std::string& sql) {
    std::vector<std::string> out;
    sqlite3* db = nullptr;
    if (sqlite3_open(DbManager::databasePath().c_str(), &db) == SQLITE_OK) {
        sqlite3_exec(
            db, sql.c_str(),
            [](void* sink, int n, char** values, char**) {
                std::string row;
                for (int i = 0; i < n; ++i)
                    row += (i > 0 ? "|" : "") + std::string(values[i] ? values[i] : "");
                static_cast<std::vector<std::string>*>(sink)->push_back(row);
                return 0;
            },
            &out, nullptr);
    }
    sqlite3_close(db);
    return out;
}

class StoreFixture : public ::testing::Test {
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
    Installed<FakePreferences, &pelio::platform::installPreferences> prefs_;
    DbManager* db_ = nullptr;
};

}  // namespace pelio::test
