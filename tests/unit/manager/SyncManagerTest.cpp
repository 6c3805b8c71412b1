#include <algorithm>

#include "ManagerTestSupport.h"

using namespace manager_test;
using pelio::test::eventually;

namespace {

class SyncManagerTest : public ManagerFixture {};

TEST_F(SyncManagerTest, QueueHoldsAnItemOnceAndPendsItWhileItsResultAwaitsTheClose) {
    PLMSyncManager* manager = start(false);
    bodies_[3] = {"{\"docs\":[]}"};
    ASSERT_TRUE(manager->composeAndSync(3));
    ASSERT_EQ(manager->syncResultCount(), 1u);
    manager->addSyncItemToQueue(3);
    EXPECT_TRUE(manager->syncQueueItems().empty());
    EXPECT_EQ(manager->pendingQueueItems(), (std::vector<int>{3}));

    manager->closeSessionAndApplyOutcomes();
    EXPECT_EQ(uploader_->closeCalls.load(), 1);
    EXPECT_EQ(manager->syncQueueItems(), (std::vector<int>{3}));
    EXPECT_TRUE(manager->pendingQueueItems().empty());
    // The exit check is not run while an item moves back.
    EXPECT_EQ(app_->exits.load(), 0);
    EXPECT_EQ(status(plm::CONTACTS_SYNC_STATUS_P), "2");

    for (int item : {3, 1, 3})
        manager->addSyncItemToQueue(item);
    EXPECT_EQ(manager->syncQueueItems(), (std::vector<int>{3, 1}));
    manager->addSyncItemToQueue(2);
    manager->clearQueue();
    EXPECT_EQ(manager->syncQueueItems(), (std::vector<int>{1, 3, 2}));
    EXPECT_TRUE(manager->pendingQueueItems().empty());
}

TEST_F(SyncManagerTest, ExitCheckEndsOnlyWhenNoDomainWaitsElseRunsAPendingForcedSync) {
    PLMSyncManager* manager = start(false);
    statuses("2", "0", "1");
    manager->check_for_process_exit();
    EXPECT_EQ(app_->exits.load(), 0);

    statuses("2", "1", "1");
    manager->check_for_process_exit();
    EXPECT_EQ(app_->exits.load(), 1);
    EXPECT_EQ(intPref(plm::PREF_SYNC_CONDITION), 1);
    EXPECT_TRUE(domainRequests_.empty());

    statuses("2", "2", "2");
    prefs_->setString(plm::PREF_CONTACT_SYNCED_PLM_ID, "plm-7");
    manager->setPendingResync(true);
    manager->check_for_process_exit();
    EXPECT_EQ(app_->exits.load(), 1);
    EXPECT_FALSE(manager->getPendingResync());
    EXPECT_TRUE(boolPref(plm::PLMConstants::IS_FORCE));
    EXPECT_FALSE(boolPref(plm::PLMConstants::CLEAR_SERVER));
    // A forced sync forgets the stored ids first.
    EXPECT_EQ(stringPref(plm::PREF_CONTACT_SYNCED_PLM_ID), "");
    ASSERT_FALSE(domainRequests_.empty());
    EXPECT_EQ(domainRequests_.front(), (std::pair<int, int>{3, 99}));
}

TEST_F(SyncManagerTest, NothingToSendMarksInStepWithoutOpening) {
    PLMSyncManager* manager = start(false);
    master_set_string(plm::CONTACTS_SYNC_STATUS_P, "0");
    EXPECT_FALSE(manager->composeAndSync(3));
    EXPECT_EQ(uploader_->openCalls.load(), 0);
    EXPECT_EQ(status(plm::CONTACTS_SYNC_STATUS_P), "2");
    EXPECT_EQ(versionWrites_, (std::vector<bool>{false}));
}

TEST_F(SyncManagerTest, OpenFailuresRetryOnceAndPauseOnlyForGenericErrors) {
    struct Case {
        int rc;
        const char* line;
        std::vector<int> pauses;
    };
    const Case cases[] = {
        {13, "PDSS error", {}},
        {23, "Sync blocked", {}},
        {-1, "pds open failed with retry time [2]!! sleeping 10 secs and retyr", {10, 10}}};
    for (const Case& c : cases) {
        SCOPED_TRACE(c.rc);
        PLMSyncManager* manager = start(false);
        bodies_[1] = {"{\"docs\":[1]}"};
        configureUploader_ = [&c](FakeUploader& u) { u.openScript = {c.rc, c.rc}; };
        master_set_string(plm::APP_SYNC_STATUS_P, "0");
        LogCapture log;
        EXPECT_FALSE(manager->composeAndSync(1));
        EXPECT_EQ(uploader_->openCalls.load(), 2);
        EXPECT_EQ(log.count(c.line), c.rc == -1 ? 1 : 2);
        EXPECT_EQ(sleeps_, c.pauses);
        EXPECT_TRUE(uploader_->posted.empty());
        EXPECT_EQ(status(plm::APP_SYNC_STATUS_P), "1");
        EXPECT_EQ(status(plm::ALL_SYNC_STATUS_P), "0");
        PLMSyncManager::destroyInstance();
        sleeps_.clear();
    }

    // Open succeeding at the second attempt: one pause, every part posted.
    PLMSyncManager* manager = start(false);
    bodies_[3] = {"a", "b"};
    configureUploader_ = [](FakeUploader& u) { u.openScript = {-1, 0}; };
    EXPECT_TRUE(manager->composeAndSync(3));
    EXPECT_EQ(sleeps_, (std::vector<int>{10}));
    std::vector<std::string> posted = uploader_->posted;  // two at once, in either order
    std::sort(posted.begin(), posted.end());
    EXPECT_EQ(posted, (std::vector<std::string>{"a", "b"}));
    EXPECT_EQ(manager->syncResultCount(), 2u);
    EXPECT_TRUE(manager->isSyncInProgress());
}

// The part never answered leaves the domain failed after the close, so it is sent again.
TEST_F(SyncManagerTest, EmptyAnswerStopsComposingKeepsEarlierResultsAndFailsItAfterTheClose) {
    PLMSyncManager* manager = start(false);
    bodies_[3] = {"a", "b", "c", "d", "e"};
    configureUploader_ = [](FakeUploader& u) {
        u.answer = [](const std::string& doc) { return doc == "b" ? "" : "[]"; };
    };
    LogCapture log;
    EXPECT_FALSE(manager->composeAndSync(3));
    EXPECT_TRUE(log.hasMessage("syncResult->jsonResponse has no length"));
    // Two bodies are on the wire at once: bodies handed over before the failure of "b" was known
    // may go up, in order; the composition stops there.
    std::vector<std::string> posted = uploader_->posted;
    std::sort(posted.begin(), posted.end());
    ASSERT_GE(posted.size(), 2u);
    EXPECT_EQ(posted,
              std::vector<std::string>(bodies_[3].begin(), bodies_[3].begin() + posted.size()));
    // A body is composed while earlier ones are posted, at most two ahead of the posts.
    ASSERT_GE(composedBeforePost_.size(), 3u);
    for (size_t i = 1; i < composedBeforePost_.size(); ++i)
        EXPECT_GE(composedBeforePost_[i] + 2, i) << i;
    EXPECT_EQ(manager->syncResultCount(), posted.size() - 1);
    manager->closeSessionAndApplyOutcomes();
    EXPECT_EQ(status(plm::CONTACTS_SYNC_STATUS_P), "1");

    // A composition aborted after its first body went up: that body's result is kept, the
    // domain is not in step.
    bodies_[1] = {"x"};
    abortedItems_ = {1};
    EXPECT_FALSE(manager->composeAndSync(1));
    EXPECT_TRUE(log.hasMessage("composition of item [1] ended early"));
    EXPECT_EQ(manager->syncResultCount(), 1u);
    manager->closeSessionAndApplyOutcomes();
    EXPECT_EQ(status(plm::APP_SYNC_STATUS_P), "1");
}

TEST_F(SyncManagerTest, CloseRetriesWithPausesThenMarksEveryPostedDomainFailed) {
    PLMSyncManager* manager = start(false);
    bodies_[3] = {"c"};
    bodies_[1] = {"a"};
    bodies_[2] = {"m"};  // posted without an answer: no result, but failed all the same
    configureUploader_ = [](FakeUploader& u) {
        u.closeScript = {false, false};
        u.answer = [](const std::string& doc) { return doc == "m" ? "" : "[]"; };
    };
    ASSERT_TRUE(manager->composeAndSync(3));
    ASSERT_TRUE(manager->composeAndSync(1));
    EXPECT_FALSE(manager->composeAndSync(2));
    EXPECT_EQ(uploader_->openCalls.load(), 1);  // one session for every domain

    LogCapture log;
    manager->closeSessionAndApplyOutcomes();
    EXPECT_EQ(uploader_->closeCalls.load(), 2);
    EXPECT_EQ(sleeps_, (std::vector<int>{15, 15}));
    EXPECT_TRUE(
        log.hasMessage("pds close failed with retry time [2]!! sleeping 15 secs and retyr"));
    EXPECT_EQ(manager->syncResultCount(), 0u);
    EXPECT_EQ(status(plm::CONTACTS_SYNC_STATUS_P), "1");
    EXPECT_EQ(status(plm::APP_SYNC_STATUS_P), "1");
    EXPECT_EQ(status(plm::MEDIA_SYNC_STATUS_P), "1");
}

TEST_F(SyncManagerTest, CloseSucceedingOnRetryAppliesOutcomesAndRecordsPlmId) {
    PLMSyncManager* manager = start(false);
    bodies_[3] = {"c"};
    configureUploader_ = [](FakeUploader& u) { u.closeScript = {false, true}; };
    ASSERT_TRUE(manager->composeAndSync(3));
    uploader_->setSucceededLatestPLMId("plm-42");
    manager->closeSessionAndApplyOutcomes();
    EXPECT_EQ(sleeps_, (std::vector<int>{15}));
    EXPECT_EQ(uploader_->getLastContactPlmId(), "plm-42");
    EXPECT_EQ(uploader_->getLastApplicationPlmId(), "");
    EXPECT_EQ(status(plm::CONTACTS_SYNC_STATUS_P), "2");
    EXPECT_FALSE(manager->isSyncInProgress());
    EXPECT_TRUE(manager->hasPlmId(3));
    EXPECT_FALSE(manager->hasPlmId(1));
}

TEST_F(SyncManagerTest, StatusKeysAndClearServer) {
    PLMSyncManager* manager = start(false);
    // The overall status is "2" only when no domain is waiting or failed.
    statuses("2", "2", "1");
    manager->update_master_sync_pref_key();
    EXPECT_EQ(status(plm::ALL_SYNC_STATUS_P), "0");
    statuses("2", "2", "2");
    manager->update_master_sync_pref_key();
    EXPECT_EQ(status(plm::ALL_SYNC_STATUS_P), "2");
    LogCapture log;
    manager->set_sync_status("", "0");
    manager->set_sync_status(plm::MEDIA_SYNC_STATUS_P, "");
    EXPECT_TRUE(log.hasMessage("Invalid Key string"));
    EXPECT_TRUE(log.hasMessage("Invalid val string"));
    manager->update_preference_status_on_sync_fail(4);
    EXPECT_TRUE(log.hasMessage("Not supported key value"));
    EXPECT_EQ(status(plm::ALL_SYNC_STATUS_P), "2");

    prefs_->setBoolean(plm::PLMConstants::IS_FORCE, true);
    prefs_->setString(plm::PREF_SYNC_SYSTEM_VERSION, "v9");
    manager->clearServer();
    for (const char* key : {plm::MEDIA_SYNC_STATUS_P, plm::CONTACTS_SYNC_STATUS_P,
                            plm::APP_SYNC_STATUS_P, plm::ALL_SYNC_STATUS_P})
        EXPECT_EQ(status(key), "0") << key;
    EXPECT_FALSE(boolPref(plm::PLMConstants::IS_FORCE));
    EXPECT_EQ(stringPref(plm::PREF_SYNC_SYSTEM_VERSION), "");
    ASSERT_NE(uploader_, nullptr);
    EXPECT_EQ(uploader_->getLastContactPlmId(), "");
    EXPECT_EQ(uploader_->getSucceededLatestPLMId(), "");
}

TEST_F(SyncManagerTest, ThreadedWorkerSyncsAContactsChangeAndExits) {
    bodies_[3] = {"{\"docs\":[{\"_id\":\"con_0000000007\"}]}"};
    sent_[3] = {{"con_0000000007", SentRow{"contacts", {{"_id", "7"}}, {{"dirty", "1"}}}}};
    configureUploader_ = [](FakeUploader& u) {
        u.answer = [](const std::string&) {
            return "[{\"id\":\"con_0000000007\",\"rev\":\"1-a\"}]";
        };
    };
    PLMSyncManager* manager = start(true);
    exec("INSERT INTO contacts(_id, dirty) VALUES('7', 1)");
    statuses("2", "2", "2");
    manager->contact_changed();
    EXPECT_EQ(status(plm::CONTACTS_SYNC_STATUS_P), "0");
    manager->addSyncItemToQueue(3);  // what the contacts handler does when it found changes

    ASSERT_TRUE(eventually([&] { return app_->exits.load() >= 1; }));
    EXPECT_EQ(status(plm::CONTACTS_SYNC_STATUS_P), "2");
    EXPECT_EQ(status(plm::ALL_SYNC_STATUS_P), "2");
    EXPECT_EQ(query("SELECT rev_id, dirty FROM contacts WHERE _id = '7'"),
              (std::vector<std::string>{"1-a|4"}));
    EXPECT_EQ(uploader_->closeCalls.load(), 1);
    EXPECT_FALSE(manager->isSyncInProgress());
}

TEST_F(SyncManagerTest, ThreadedPendingItemIsSyncedAgainAfterClose) {
    bodies_[3] = {"x", "y"};
    std::atomic<int> posts{0};
    PLMSyncManager* manager = nullptr;
    configureUploader_ = [&](FakeUploader& u) {
        u.answer = [&](const std::string&) {
            // A new contacts change arrives while the first upload is under way, once its first
            // result waits for the close (the two bodies may be posted at once).
            if (posts.fetch_add(1) == 1) {
                eventually([&] { return manager->syncResultCount() >= 1; });
                manager->addSyncItemToQueue(3);
            }
            return std::string("[]");
        };
    };
    master_set_string(plm::APP_SYNC_STATUS_P, "2");
    master_set_string(plm::MEDIA_SYNC_STATUS_P, "2");
    manager = start(true);
    manager->addSyncItemToQueue(3);
    ASSERT_TRUE(eventually([&] { return app_->exits.load() >= 1; }));
    EXPECT_EQ(posts.load(), 4);
    EXPECT_EQ(uploader_->closeCalls.load(), 2);
    EXPECT_EQ(uploader_->openCalls.load(), 2);
}

TEST_F(SyncManagerTest, ThreadedDestructionStopsAnIdleOrPausedWorker) {
    PLMSyncManager* manager = start(true);
    manager->addSyncItemToQueue(5);  // no lock, nothing to compose
    ASSERT_TRUE(eventually([&] { return manager->syncQueueItems().empty(); }));
    PLMSyncManager::destroyInstance();
    EXPECT_EQ(PLMSyncManager::peekInstance(), nullptr);
    EXPECT_EQ(stopCalls_.load(), 1);
}

}  // namespace
