// Shared set-up of the sync manager's unit tests: in-memory platform doubles, a real SQLite file
// in throw-away application paths, a scripted fake uploader and recorded pauses and domain calls.
#pragma once

#include <gtest/gtest.h>
#include <sqlite3.h>

#include <atomic>
#include <deque>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include <pelio/platform/AppPaths.h>
#include <pelio/platform/Contacts.h>
#include <pelio/platform/Preferences.h>
#include <pelio/platform/ServiceApp.h>
#include <pelio/platform/Timer.h>

#include "database/DbManager.h"
#include "doubles/FakeAppPaths.h"
#include "doubles/FakeContactsService.h"
#include "doubles/FakeMediaContentService.h"
#include "doubles/FakePlatformApp.h"
#include "doubles/FakePreferences.h"
#include "support/LogCapture.h"
#include "support/TempHome.h"
#include "upload/DataUploadHandler.h"
#include "upload/PLMSyncManager.h"
#include "upload/PLMSyncMasterTable.h"
#include "upload/SyncData.h"
#include "upload/SyncResult.h"

namespace manager_test {

// Exit requests counted atomically (the sync worker asks for the exit from its own thread).
class CountingServiceApp : public pelio::test::FakeServiceApp {
  public:
    void exit() override { exits.fetch_add(1); }
    std::atomic<int> exits{0};
};

// An uploader whose open / close results come from a script (default: success) and whose post
// answers come from a function of the posted document (default: an empty answer).
class FakeUploader : public DataUploadHandler {
  public:
    FakeUploader() : DataUploadHandler(nullptr, nullptr, {}) {}

    int openPds(int) override {
        ++openCalls;
        int rc = 0;
        {
            std::lock_guard<std::mutex> g(mutex);
            if (!openScript.empty()) {
                rc = openScript.front();
                openScript.pop_front();
            }
        }
        if (rc == 0) {
            opened = true;
            closed = false;
        }
        return rc;
    }
    bool closePds() override {
        ++closeCalls;
        bool ok = true;
        {
            std::lock_guard<std::mutex> g(mutex);
            if (!closeScript.empty()) {
                ok = closeScript.front();
                closeScript.pop_front();
            }
        }
        if (ok) {
            opened = false;
            closed = true;
        }
        return ok;
    }
    bool wipePds(bool) override { return true; }
    void performSync(SyncData* data, SyncResult* result) override {
        std::function<std::string(const std::string&)> answerFn;
        {
            std::lock_guard<std::mutex> g(mutex);
            posted.push_back(data->message);
            answerFn = answer;
        }
        // The answer runs without the fake's lock: it may call back into the manager.
        result->itemType = data->itemType;
        result->jsonResponse = answerFn ? answerFn(data->message) : std::string();
    }
    bool getPdsOpened() override { return opened.load(); }
    bool getPdsClosed() override { return closed.load(); }
    std::string getSucceededLatestPLMId() override { return get(latest); }
    void setSucceededLatestPLMId(const std::string& id) override { set(latest, id); }
    std::string getLastApplicationPlmId() override { return get(app); }
    void setLastApplicationPlmId(const std::string& id) override { set(app, id); }
    std::string getLastContactPlmId() override { return get(contact); }
    void setLastContactPlmId(const std::string& id) override { set(contact, id); }
    std::string getLastMediaPlmId() override { return get(media); }
    void setLastMediaPlmId(const std::string& id) override { set(media, id); }

    std::string get(const std::string& field) {
        std::lock_guard<std::mutex> g(mutex);
        return field;
    }
    void set(std::string& field, const std::string& value) {
        std::lock_guard<std::mutex> g(mutex);
        field = value;
    }

    std::mutex mutex;
    std::deque<int> openScript;
    std::deque<bool> closeScript;
    std::function<std::string(const std::string&)> answer;
    std::vector<std::string> posted;
    std::atomic<int> openCalls{0};
    std::atomic<int> closeCalls{0};
    std::atomic<bool> opened{false};
    std::atomic<bool> closed{true};
    std::string latest = "Unknown", app = "Unknown", contact = "Unknown", media = "Unknown";
};

// One domain's upload record with the given bodies.
inline std::unique_ptr<SyncData> syncDataWith(int item, std::vector<std::string> documents) {
    auto data = std::make_unique<SyncData>();
    data->itemType = item;
    data->documents = std::move(documents);
    data->insertedCount = static_cast<int>(data->documents.size());
    data->deletedCount = 0;
    data->updatedCount = 0;
    return data;
}

class ManagerFixture : public ::testing::Test {
  protected:
    void SetUp() override {
        pelio::platform::installAppPaths(std::make_unique<pelio::test::FakeAppPaths>());
        auto prefs = std::make_unique<pelio::test::FakePreferences>();
        prefs_ = prefs.get();
        pelio::platform::installPreferences(std::move(prefs));
        auto contacts = std::make_unique<pelio::test::FakeContactsService>();
        contacts_ = contacts.get();
        pelio::platform::installContactsService(std::move(contacts));
        pelio::platform::installMediaContentService(
            std::make_unique<pelio::test::FakeMediaContentService>());
        auto app = std::make_unique<CountingServiceApp>();
        app_ = app.get();
        pelio::platform::installServiceApp(std::move(app));
        auto timers = std::make_unique<pelio::test::ManualTimers>();
        timers_ = timers.get();
        pelio::platform::installTimers(std::move(timers));
        DbManager::resetInstanceForTesting();
    }

    void TearDown() override {
        PLMSyncManager::destroyInstance();
        PLMSyncManager::setHooksForTesting({});
        DbManager::resetInstanceForTesting();
        pelio::platform::installTimers(nullptr);
        pelio::platform::installServiceApp(nullptr);
        pelio::platform::installContactsService(nullptr);
        pelio::platform::installMediaContentService(nullptr);
        pelio::platform::installPreferences(nullptr);
        pelio::platform::installAppPaths(nullptr);
    }

    // Creates the manager with the test's doubles; the worker runs only when asked.
    PLMSyncManager* start(bool worker) {
        PLMSyncManagerHooks hooks;
        hooks.startWorker = worker;
        hooks.sleep = [this](int seconds) {
            std::lock_guard<std::mutex> g(mutex_);
            sleeps_.push_back(seconds);
        };
        hooks.makeUploadHandler = [this](PLMSyncManager&) {
            auto uploader = std::make_unique<FakeUploader>();
            uploader_ = uploader.get();
            if (configureUploader_)
                configureUploader_(*uploader);
            return std::unique_ptr<DataUploadHandler>(std::move(uploader));
        };
        hooks.makeSyncData = [this](int item) -> std::unique_ptr<SyncData> {
            std::lock_guard<std::mutex> g(mutex_);
            ++composed_[item];
            auto it = bodies_.find(item);
            if (it == bodies_.end())
                return nullptr;
            auto data = syncDataWith(item, it->second);
            if (auto sent = sent_.find(item); sent != sent_.end())
                data->sentRows = std::make_shared<SentRows>(sent->second);
            return data;
        };
        hooks.requestDomainSync = [this](int domain, int code) {
            std::lock_guard<std::mutex> g(mutex_);
            domainRequests_.push_back({domain, code});
        };
        hooks.writeContactsDbVersion = [this](bool reset) {
            std::lock_guard<std::mutex> g(mutex_);
            versionWrites_.push_back(reset);
        };
        hooks.stopDomainWorkers = [this] { ++stopCalls_; };
        PLMSyncManager::setHooksForTesting(hooks);
        return PLMSyncManager::getInstance();
    }

    static std::string status(const char* key) { return master_get_value(key); }

    // Runs one statement on the database file (rows for the outcome tests).
    static void exec(const std::string& sql) {
        sqlite3* db = nullptr;
        ASSERT_EQ(sqlite3_open(DbManager::databasePath().c_str(), &db), SQLITE_OK);
        char* error = nullptr;
        const int rc = sqlite3_exec(db, sql.c_str(), nullptr, nullptr, &error);
        std::string text = error != nullptr ? error : "";
        sqlite3_free(error);
        sqlite3_close(db);
        ASSERT_EQ(rc, SQLITE_OK) << text;
    }

    // The rows of a query, columns joined with '|'.
    static std::vector<std::string> rows(const std::string& sql) {
        std::vector<std::string> out;
        sqlite3* db = nullptr;
        if (sqlite3_open(DbManager::databasePath().c_str(), &db) != SQLITE_OK)
            return out;
        sqlite3_exec(
            db, sql.c_str(),
            [](void* sink, int n, char** values, char**) {
                std::string row;
                for (int i = 0; i < n; ++i) {
                    if (i > 0)
                        row += "|";
                    row += values[i] != nullptr ? values[i] : "NULL";
                }
                static_cast<std::vector<std::string>*>(sink)->push_back(row);
                return 0;
            },
            &out, nullptr);
        sqlite3_close(db);
        return out;
    }

    pelio::test::TempHome home_;
    pelio::test::FakePreferences* prefs_ = nullptr;
    pelio::test::FakeContactsService* contacts_ = nullptr;
    CountingServiceApp* app_ = nullptr;
    pelio::test::ManualTimers* timers_ = nullptr;
    FakeUploader* uploader_ = nullptr;
    std::function<void(FakeUploader&)> configureUploader_;

    std::mutex mutex_;
    std::vector<int> sleeps_;
    std::map<int, std::vector<std::string>> bodies_;
    std::map<int, SentRows> sent_;  // what the bodies of an item were composed from
    std::map<int, int> composed_;
    std::vector<std::pair<int, int>> domainRequests_;
    std::vector<bool> versionWrites_;
    std::atomic<int> stopCalls_{0};
};

}  // namespace manager_test
