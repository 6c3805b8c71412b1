// Shared set-up of the sync manager's unit tests: in-memory platform doubles, a real SQLite file
// in throw-away application paths, a scripted fake uploader and recorded pauses and domain calls.
#pragma once

#include <atomic>
#include <deque>
#include <set>

#include <pelio/platform/MediaContent.h>
#include <pelio/platform/PackageManager.h>
#include <pelio/platform/ServiceApp.h>
#include <pelio/platform/SystemSettings.h>
#include <pelio/platform/Timer.h>

#include "PLMConstants.h"
#include "doubles/FakeContactsService.h"
#include "doubles/FakeMediaContentService.h"
#include "doubles/FakePackageManager.h"
#include "doubles/FakePlatformApp.h"
#include "doubles/FakeSystemSettings.h"
#include "unit/sync/SyncTestSupport.h"
#include "upload/DataUploadHandler.h"
#include "upload/PLMSyncManager.h"
#include "upload/PLMSyncMasterTable.h"
#include "upload/SyncData.h"
#include "upload/SyncResult.h"

namespace manager_test {

using pelio::test::exec;
using pelio::test::Installed;
using pelio::test::LogCapture;
using pelio::test::query;
namespace pp = pelio::platform;

// Exit requests counted atomically (the sync worker asks for the exit from its own thread).
class CountingServiceApp : public pelio::test::FakeServiceApp {
  public:
    void exit() override { exits.fetch_add(1); }
    std::atomic<int> exits{0};
};

// An uploader whose open / close results come from a script (default: success) and whose post
// answers come from a function of the posted document (default: an empty answer). The PLM ids
// are the real ones, kept in the preferences.
class FakeUploader : public DataUploadHandler {
  public:
    FakeUploader() : DataUploadHandler(nullptr, nullptr, {}) {}

    int openPds(int) override {
        ++openCalls;
        const int rc = next(openScript, 0);
        if (rc == 0) {
            opened = true;
            closed = false;
        }
        return rc;
    }
    bool closePds() override {
        ++closeCalls;
        const bool ok = next(closeScript, true);
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
    std::mutex mutex;
    std::deque<int> openScript;
    std::deque<bool> closeScript;
    std::function<std::string(const std::string&)> answer;
    std::vector<std::string> posted;
    std::atomic<int> openCalls{0};
    std::atomic<int> closeCalls{0};
    std::atomic<bool> opened{false};
    std::atomic<bool> closed{true};

  private:
    template <class T>
    T next(std::deque<T>& script, T otherwise) {
        std::lock_guard<std::mutex> g(mutex);
        if (script.empty())
            return otherwise;
        const T value = script.front();
        script.pop_front();
        return value;
    }
};

class ManagerFixture : public ::testing::Test {
  protected:
    void SetUp() override { DbManager::resetInstanceForTesting(); }

    void TearDown() override {
        PLMSyncManager::destroyInstance();
        PLMSyncManager::setHooksForTesting({});
        DbManager::resetInstanceForTesting();
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
            uploader->answer = [](const std::string&) { return "[]"; };
            if (configureUploader_)
                configureUploader_(*uploader);
            return std::unique_ptr<DataUploadHandler>(std::move(uploader));
        };
        // Hands the item's bodies over one at a time, as the composers do; composedBeforePost_
        // records, per body, how many posts the uploader had seen when it was composed.
        hooks.makeSyncData = [this](int item, const BodySink& sink) -> std::unique_ptr<SyncData> {
            std::vector<std::string> bodies;
            {
                std::lock_guard<std::mutex> g(mutex_);
                auto it = bodies_.find(item);
                if (it == bodies_.end())
                    return nullptr;
                bodies = it->second;
            }
            auto data = std::make_unique<SyncData>();
            data->itemType = item;
            data->insertedCount = static_cast<int>(bodies.size());
            data->deletedCount = data->updatedCount = 0;
            if (auto sent = sent_.find(item); sent != sent_.end())
                data->sentRows = std::make_shared<SentRows>(sent->second);
            for (std::string& body : bodies) {
                composedBeforePost_.push_back(postedCount());
                if (!sink(std::move(body), data->sentRows)) {
                    data->complete = false;
                    break;
                }
            }
            if (abortedItems_.count(item) != 0)  // as a composition cut short by an error
                data->insertedCount = data->deletedCount = data->updatedCount = -1;
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

    size_t postedCount() {
        if (uploader_ == nullptr)
            return 0;
        std::lock_guard<std::mutex> g(uploader_->mutex);
        return uploader_->posted.size();
    }

    static std::string status(const char* key) { return master_get_value(key); }
    // Sets the three domain statuses (applications, contacts, media).
    static void statuses(const char* app, const char* contacts, const char* media) {
        master_set_string(plm::APP_SYNC_STATUS_P, app);
        master_set_string(plm::CONTACTS_SYNC_STATUS_P, contacts);
        master_set_string(plm::MEDIA_SYNC_STATUS_P, media);
    }
    using Requests = std::vector<std::pair<int, int>>;
    // A stored preference ("<none>" / -1 when it is not there).
    std::string stringPref(const char* key) {
        std::string value = "<none>";
        prefs_->getString(key, value);
        return value;
    }
    int intPref(const char* key) {
        int value = -1;
        prefs_->getInt(key, value);
        return value;
    }
    bool boolPref(const char* key) {
        bool value = false;
        EXPECT_EQ(prefs_->getBoolean(key, value), 0) << key;
        return value;
    }

    pelio::test::TempHome home_;
    Installed<pelio::test::FakeAppPaths, &pp::installAppPaths> paths_;
    Installed<pelio::test::FakePreferences, &pp::installPreferences> prefs_;
    Installed<pelio::test::FakeContactsService, &pp::installContactsService> contacts_;
    Installed<pelio::test::FakeMediaContentService, &pp::installMediaContentService> media_;
    Installed<CountingServiceApp, &pp::installServiceApp> app_;
    Installed<pelio::test::ManualTimers, &pp::installTimers> timers_;
    Installed<pelio::test::FakePackageManager, &pp::installPackageManager> packages_;
    Installed<pelio::test::FakeSystemSettings, &pp::installSystemSettings> settings_;
    FakeUploader* uploader_ = nullptr;
    std::function<void(FakeUploader&)> configureUploader_;

    std::mutex mutex_;
    std::vector<int> sleeps_;
    std::map<int, std::vector<std::string>> bodies_;
    std::map<int, SentRows> sent_;  // what the bodies of an item were composed from
    std::vector<size_t> composedBeforePost_;
    std::set<int> abortedItems_;  // items whose composition ends with counts of -1
    Requests domainRequests_;
    std::vector<bool> versionWrites_;
    std::atomic<int> stopCalls_{0};
};

}  // namespace manager_test
