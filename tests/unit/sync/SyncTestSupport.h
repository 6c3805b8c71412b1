// Shared set-up of the sync unit tests: a throw-away home with in-memory preferences, app paths
// and contacts service, a fresh DbManager on a real SQLite file, a recording sync-manager host
// and direct SQLite access to the shadow table.
#pragma once

#include <gtest/gtest.h>
#include <sqlite3.h>

#include <chrono>
#include <condition_variable>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

#include <pelio/platform/AppPaths.h>
#include <pelio/platform/Contacts.h>
#include <pelio/platform/Preferences.h>

#include "SyncHandlers/SyncHandlerHost.h"
#include "database/DbManager.h"
#include "doubles/FakeAppPaths.h"
#include "doubles/FakeContactsService.h"
#include "doubles/FakePreferences.h"
#include "support/Eventually.h"
#include "support/Installed.h"
#include "support/LogCapture.h"
#include "support/TempHome.h"

namespace pelio::test {

// Records what a domain handler reports to the sync manager.
class RecordingHost : public SyncHandlerHost {
  public:
    std::mutex* getDomainLock(int item) override {
        return item == 1 || item == 2 || item == 3 || item == 11 ? &domainLock : nullptr;
    }
    void set_sync_status(const char* key, const char* value) override {
        std::lock_guard<std::mutex> guard(mutex_);
        statuses.emplace_back(key, value);
    }
    void addSyncItemToQueue(int item) override {
        {
            std::lock_guard<std::mutex> guard(mutex_);
            queued.push_back(item);
        }
        cv_.notify_all();
    }
    std::vector<std::pair<std::string, std::string>> statusCalls() {
        std::lock_guard<std::mutex> guard(mutex_);
        return statuses;
    }
    std::vector<int> queuedItems() {
        std::lock_guard<std::mutex> guard(mutex_);
        return queued;
    }

    std::mutex domainLock;

  private:
    std::mutex mutex_;
    std::condition_variable cv_;
    std::vector<std::pair<std::string, std::string>> statuses;
    std::vector<int> queued;
};

struct ShadowRow {
    std::string id;
    int dirty;
    int version;
    std::string rev;
};

class SyncStoreTest : public ::testing::Test {
  protected:
    void SetUp() override {
        auto contacts = makeContactsService();
        contacts_ = contacts.get();
        pelio::platform::installContactsService(std::move(contacts));
        DbManager::resetInstanceForTesting();
        DbManager::getInstance();
    }
    void TearDown() override {
        DbManager::resetInstanceForTesting();
        pelio::platform::installContactsService(nullptr);
    }
    virtual std::unique_ptr<FakeContactsService> makeContactsService() {
        return std::make_unique<FakeContactsService>();
    }

    // Runs SQL on the shadow database directly.
    void exec(const std::string& sql) {
        sqlite3* db = nullptr;
        ASSERT_EQ(sqlite3_open(DbManager::databasePath().c_str(), &db), SQLITE_OK);
        char* err = nullptr;
        const int rc = sqlite3_exec(db, sql.c_str(), nullptr, nullptr, &err);
        const std::string message = err ? err : "";
        sqlite3_free(err);
        sqlite3_close(db);
        ASSERT_EQ(rc, SQLITE_OK) << message;
    }

    std::vector<ShadowRow> rows() {
        std::vector<ShadowRow> out;
        sqlite3* db = nullptr;
        if (sqlite3_open(DbManager::databasePath().c_str(), &db) != SQLITE_OK)
            return out;
        sqlite3_stmt* stmt = nullptr;
        sqlite3_prepare_v2(db,
                           "SELECT _id, dirty, version, ifnull(rev_id,'') FROM contacts "
                           "ORDER BY rowid",
                           -1, &stmt, nullptr);
        while (stmt && sqlite3_step(stmt) == SQLITE_ROW) {
            out.push_back({reinterpret_cast<const char*>(sqlite3_column_text(stmt, 0)),
                           sqlite3_column_int(stmt, 1), sqlite3_column_int(stmt, 2),
                           reinterpret_cast<const char*>(sqlite3_column_text(stmt, 3))});
        }
        sqlite3_finalize(stmt);
        sqlite3_close(db);
        return out;
    }

    // id -> dirty values of its rows, in row order.
    std::map<std::string, std::vector<int>> dirtyById() {
        std::map<std::string, std::vector<int>> out;
        for (const auto& r : rows())
            out[r.id].push_back(r.dirty);
        return out;
    }

    TempHome home_;
    LogCapture log_;
    Installed<FakePreferences, &pelio::platform::installPreferences> prefs_;
    Installed<FakeAppPaths, &pelio::platform::installAppPaths> paths_;
    FakeContactsService* contacts_ = nullptr;
};

}  // namespace pelio::test
