#include "ManagerTestSupport.h"
#include "PlmSyncAppEvent.h"
#include "TerminatingTimer.h"

using namespace manager_test;

namespace {

class PlmSyncAppEventTest : public ManagerFixture {
  protected:
    void TearDown() override {
        deleteTerminatingTimer();
        ManagerFixture::TearDown();
    }
    // Sends one request; returns its reply (replied is false when there was none).
    pp::LaunchReply send(pp::Extras extras) {
        pp::AppControl request = pp::AppControl::incoming(std::move(extras));
        plmsync_handle_app_event(request, nullptr);
        return *request.reply();
    }
    // A manager whose upload session is open (a sync is in progress).
    PLMSyncManager* startSyncing() {
        PLMSyncManager* manager = start(false);
        bodies_[3] = {"c"};
        EXPECT_TRUE(manager->composeAndSync(3));
        EXPECT_TRUE(manager->isSyncInProgress());
        return manager;
    }
};

TEST_F(PlmSyncAppEventTest, ConfigurationExtrasGoToPreferences) {
    start(false);
    auto reply = send({{"SET_IP", "127.0.0.1"},
                       {"SET_PORT", "8443x"},
                       {"SET_CERT_PATH", "/tmp/ca.pem"},
                       {"SET_LOCALE", "ko-KR"}});
    EXPECT_FALSE(reply.replied);
    EXPECT_EQ(stringPref("server_ip") + "|" + std::to_string(intPref("port")) + "|" +
                  stringPref("cert_path") + "|" + stringPref("locale"),
              "127.0.0.1|8443|/tmp/ca.pem|ko-KR");
    bool existing = true;
    prefs_->isExisting("is_force", existing);
    EXPECT_FALSE(existing);
}

TEST_F(PlmSyncAppEventTest, ForcedTriggerFollowsTheStoredFlagAndWaitsForARunningSync) {
    start(false);
    prefs_->setBoolean("clear_server", true);
    // No stored flag yet: the first write enables forcing whatever was asked.
    send({{"SET_IS_FORCE", "false"}, {"EVENT_TYPE", "TRIGGER_FORCE_SYNC"}});
    EXPECT_TRUE(boolPref("is_force"));
    EXPECT_FALSE(boolPref("clear_server"));
    EXPECT_EQ(domainRequests_, (Requests{{3, 99}, {1, 99}, {2, 99}}));

    domainRequests_.clear();
    prefs_->setBoolean("is_force", false);
    send({{"SET_IS_FORCE", "false"}, {"EVENT_TYPE", "TRIGGER_FORCE_SYNC"}});
    EXPECT_FALSE(boolPref("is_force"));
    EXPECT_EQ(domainRequests_.front().second, 98);

    domainRequests_.clear();
    prefs_->setBoolean("is_force", true);
    send({{"EVENT_TYPE", "TRIGGER_FORCE_SYNC"}});  // no SET_IS_FORCE: always a difference sync
    EXPECT_EQ(domainRequests_.front().second, 98);

    // During a sync the forced trigger is deferred to the exit check.
    PLMSyncManager::destroyInstance();
    PLMSyncManager* manager = startSyncing();
    domainRequests_.clear();
    send({{"SET_IS_FORCE", "true"}, {"EVENT_TYPE", "TRIGGER_FORCE_SYNC"}});
    EXPECT_TRUE(manager->getPendingResync());
    EXPECT_TRUE(domainRequests_.empty());
}

TEST_F(PlmSyncAppEventTest, ClearServerComparesFourCharactersAndEndsTheService) {
    start(false);
    // Neither a "false" clear nor a device id request (not supported) does anything.
    EXPECT_FALSE(send({{"CLEAR_SERVER", "false"}, {"EVENT_TYPE", "GET_DEVICE_ID"}}).replied);
    EXPECT_EQ(app_->exits.load(), 0);
    EXPECT_NE(PLMSyncManager::peekInstance(), nullptr);

    LogCapture log;
    send({{"CLEAR_SERVER", "trueish"}, {"EVENT_TYPE", "NO_SUCH_OP"}});
    EXPECT_TRUE(boolPref("clear_server"));
    EXPECT_EQ(status(plm::CONTACTS_SYNC_STATUS_P), "0");
    EXPECT_EQ(stopCalls_.load(), 2);  // by the request, then by the manager's shutdown
    EXPECT_EQ(PLMSyncManager::peekInstance(), nullptr);
    EXPECT_EQ(app_->exits.load(), 1);
    // The request goes on to its operation.
    EXPECT_TRUE(log.hasMessage(pp::DLOG_ERROR, "PLM service No allowed action"));
}

TEST_F(PlmSyncAppEventTest, CheckPlmIdRepliesPerSelection) {
    start(false);
    auto all = send({{"EVENT_TYPE", "CHECK_PLM_ID"}, {"TYPE", "ALL"}});
    EXPECT_TRUE(all.replied && all.result == pp::APP_CONTROL_RESULT_SUCCEEDED);
    EXPECT_EQ(
        all.extras,
        (pp::Extras{
            {"PLM_ID_RESULT", "ALL"}, {"APPLICATION", "-1"}, {"CONTACT", "-1"}, {"MEDIA", "-1"}}));

    auto none = send({{"EVENT_TYPE", "CHECK_PLM_ID"}, {"TYPE", "NONE"}});
    EXPECT_TRUE(none.replied && none.result == pp::APP_CONTROL_RESULT_FAILED);
    EXPECT_EQ(none.extras, (pp::Extras{{"PLM_ID_RESULT", "NONE"}}));

    prefs_->setString("contact_synced_plm_id", "plm-c");
    auto contact = send({{"EVENT_TYPE", "CHECK_PLM_ID"}, {"TYPE", "CONTACT"}});
    EXPECT_EQ(contact.extras, (pp::Extras{{"PLM_ID_RESULT", "CONTACT"}, {"CONTACT", "plm-c"}}));

    LogCapture log;
    auto missing = send({{"EVENT_TYPE", "CHECK_PLM_ID"}});
    EXPECT_FALSE(missing.replied);
    EXPECT_TRUE(log.hasMessage("No Invalid keys"));
}

TEST_F(PlmSyncAppEventTest, CheckStatusReportsIdAndSyncStateThenChecksExit) {
    PLMSyncManager* manager = start(false);
    auto noHandler = send({{"EVENT_TYPE", "CHECK_STATUS"}, {"EVENT_DATA", "CONTACT"}});
    EXPECT_EQ(noHandler.extras, (pp::Extras{{"STATUS_RESULT", "1"}}));
    EXPECT_EQ(noHandler.result, pp::APP_CONTROL_RESULT_SUCCEEDED);
    EXPECT_EQ(app_->exits.load(), 1);  // no domain waits

    bodies_[3] = {"c"};
    ASSERT_TRUE(manager->composeAndSync(3));
    uploader_->setLastContactPlmId("plm-c");
    master_set_string(plm::CONTACTS_SYNC_STATUS_P, "0");
    auto syncing = send({{"EVENT_TYPE", "CHECK_STATUS"}, {"EVENT_DATA", "CONTACT"}});
    EXPECT_EQ(syncing.extras, (pp::Extras{{"STATUS_RESULT", "2"}}));
    EXPECT_EQ(app_->exits.load(), 1);  // contacts waits: keeps running
    auto media = send({{"EVENT_TYPE", "CHECK_STATUS"}, {"EVENT_DATA", "MEDIA"}});
    EXPECT_EQ(media.extras, (pp::Extras{{"STATUS_RESULT", "1"}}));

    uploader_->closePds();
    auto idle = send({{"EVENT_TYPE", "CHECK_STATUS"}, {"EVENT_DATA", "CONTACT"}});
    EXPECT_EQ(idle.extras, (pp::Extras{{"STATUS_RESULT", "3"}}));
}

TEST_F(PlmSyncAppEventTest, TerminatingExitsAtOnceOrWaitsForTheSync) {
    startSyncing();
    send({{"EVENT_TYPE", "APPLICATION_TERMINATING"}});
    ASSERT_EQ(timers_->created.size(), 1u);
    EXPECT_DOUBLE_EQ(timers_->created[0]->seconds, 10.0);
    EXPECT_EQ(app_->exits.load(), 0);

    uploader_->closePds();
    send({{"EVENT_TYPE", "APPLICATION_TERMINATING"}});
    EXPECT_TRUE(timers_->created[0]->deleted);
    EXPECT_EQ(PLMSyncManager::peekInstance(), nullptr);
    EXPECT_EQ(app_->exits.load(), 1);
}

}  // namespace
