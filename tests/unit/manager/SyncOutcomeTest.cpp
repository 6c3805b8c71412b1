#include "ManagerTestSupport.h"
#include "upload/SyncOutcomeProcessor.h"

using namespace manager_test;

namespace {

// The row of contacts person id as the composer records it.
SentRow contactRow(const std::string& id, int dirty, int version) {
    return {"contacts",
            {{"_id", id}},
            {{"dirty", std::to_string(dirty)}, {"version", std::to_string(version)}}};
}

class SyncOutcomeTest : public ManagerFixture {
  protected:
    // Runs a close with the given answer posted for item, composed from sent.
    void closeWithAnswer(PLMSyncManager* manager, int item, const std::string& answer,
                         SentRows sent = {}) {
        auto result = std::make_unique<SyncResult>();
        result->itemType = item;
        result->jsonResponse = answer;
        result->sentRows = std::make_shared<const SentRows>(std::move(sent));
        manager->appendSyncResultForTesting(std::move(result));
        uploader_->opened = true;
        uploader_->closed = false;
        manager->closeSessionAndApplyOutcomes();
    }
    PLMSyncManager* startWithSession() {
        PLMSyncManager* manager = start(false);
        manager->clearServer();                         // makes the uploader
        uploader_->setSucceededLatestPLMId("Unknown");  // no PLM id known: none is recorded
        return manager;
    }
};

TEST_F(SyncOutcomeTest, AnswersApplyOnlyToTheRowsAsSentAndOnlyToIdsThatWereSent) {
    PLMSyncManager* manager = startWithSession();
    // 45 and 46 were collected again while the upload ran: a new version, or deleted after being
    // sent as an edit. 99 is not part of this upload: a reply must not reach it, however its id
    // is written.
    exec(
        "INSERT INTO contacts(_id, dirty, rev_id, version) VALUES('42', 2, '1-old', 5), "
        "('43', 3, '1-old', 5), ('44', 1, NULL, 5), ('45', 3, '1-old', 6), "
        "('46', 3, '1-old', 6), ('99', 2, '1-old', 5)");
    SentRows sent;
    for (auto [id, dirty] : {std::pair{42, 2}, {43, 3}, {44, 1}, {45, 3}, {46, 2}})
        sent["con_000000" + std::to_string(id)] = contactRow(std::to_string(id), dirty, 5);
    closeWithAnswer(manager, 3,
                    "[{\"id\":\"con_00000042\",\"rev\":\"3-x\"},"
                    "{\"id\":\"con_00000043\",\"rev\":\"2-y\"},"
                    "{\"id\":\"con_00000044\",\"error\":\"forbidden\",\"reason\":\"no\"}, 17,"
                    "{\"id\":\"con_00000045\",\"rev\":\"2-z\"},"
                    "{\"id\":\"con_00000046\",\"rev\":\"2-d\"},"
                    "{\"id\":\"con_00000099\",\"rev\":\"9-a\"},"
                    "{\"id\":\"con_0099' OR '1'='1\",\"rev\":\"9-b\"}]",
                    sent);
    EXPECT_TRUE(query("SELECT * FROM contacts WHERE _id = '42'").empty());
    EXPECT_EQ(
        query("SELECT _id, rev_id, dirty FROM contacts WHERE _id != '42' ORDER BY _id"),
        (std::vector<std::string>{"43|2-y|4", "44||1", "45|2-z|3", "46|2-d|3", "99|1-old|2"}));
    // A refused document leaves the domain failed, so the next sync sends it again.
    EXPECT_EQ(status(plm::CONTACTS_SYNC_STATUS_P), "1");
    EXPECT_EQ(versionWrites_, (std::vector<bool>{false}));
}

TEST_F(SyncOutcomeTest, AllAcceptedMarksTheDomainInStepAndEndsForcedMode) {
    PLMSyncManager* manager = startWithSession();
    prefs_->setBoolean(plm::PLMConstants::IS_FORCE, true);
    exec("INSERT INTO contacts(_id, dirty, version) VALUES('7', 1, 2)");
    closeWithAnswer(manager, 3, "[{\"id\":\"con_00000007\",\"rev\":\"1-a\"}]",
                    {{"con_00000007", contactRow("7", 1, 2)}});
    EXPECT_EQ(query("SELECT rev_id, dirty FROM contacts"), (std::vector<std::string>{"1-a|4"}));
    EXPECT_EQ(status(plm::CONTACTS_SYNC_STATUS_P), "2");
    EXPECT_FALSE(boolPref(plm::PLMConstants::IS_FORCE));
}

TEST_F(SyncOutcomeTest, ConflictsKeepRowsDirtyStoreTheRevisionAndFailTheirDomain) {
    PLMSyncManager* manager = startWithSession();
    exec(
        "INSERT INTO application(_id, package, dirty, rev_id) VALUES('com.a.b', 'com.a.b', 3, "
        "'1')");
    exec("INSERT INTO contacts(_id, dirty, rev_id, version) VALUES('9', 2, '1-a', 3)");
    const SentRow app{"application", {{"_id", "com.a.b"}}, {{"dirty", "3"}}};
    closeWithAnswer(manager, 1,
                    "[{\"id\":\"pkg_com.a.b\",\"error\":\"conflict\","
                    "\"reason\":\"Document update conflict.\",\"rev\":\"5-z\"}]",
                    {{"pkg_com.a.b", app}});
    EXPECT_EQ(query("SELECT rev_id, dirty FROM application"), (std::vector<std::string>{"5-z|3"}));
    EXPECT_EQ(status(plm::APP_SYNC_STATUS_P), "1");
    EXPECT_TRUE(versionWrites_.empty());  // only a contacts conflict resets the version

    closeWithAnswer(manager, 3,
                    "[{\"id\":\"con_00000009\",\"error\":\"conflict\","
                    "\"reason\":\"Document update conflict.\",\"rev\":\"2-b\"}]",
                    {{"con_00000009", contactRow("9", 2, 3)}});
    EXPECT_EQ(query("SELECT rev_id, dirty FROM contacts"), (std::vector<std::string>{"2-b|2"}));
    EXPECT_EQ(status(plm::CONTACTS_SYNC_STATUS_P), "1");
    EXPECT_EQ(versionWrites_, (std::vector<bool>{true}));
}

TEST_F(SyncOutcomeTest, UnreadableOrMissingAnswersLeaveRowsDirtyAndTheDomainFailed) {
    PLMSyncManager* manager = startWithSession();
    exec("INSERT INTO contacts(_id, dirty, version) VALUES('5', 1, 1)");
    const SentRows sent{{"con_00000005", contactRow("5", 1, 1)}};
    for (const char* answer : {"{\"id\":\"con_00000005\",\"rev\":\"2\"}", "not json", "[]"}) {
        closeWithAnswer(manager, 3, answer, sent);
        EXPECT_EQ(query("SELECT dirty FROM contacts"), (std::vector<std::string>{"1"})) << answer;
        EXPECT_EQ(status(plm::CONTACTS_SYNC_STATUS_P), "1") << answer;
    }
    // The id's prefix may stand anywhere in it; the sent row decides where the answer goes.
    closeWithAnswer(manager, 3, "[{\"id\":\"aud_con_5\",\"rev\":\"1-q\"}]",
                    {{"aud_con_5", contactRow("5", 1, 1)}});
    EXPECT_EQ(query("SELECT rev_id, dirty FROM contacts"), (std::vector<std::string>{"1-q|4"}));
}

TEST_F(SyncOutcomeTest, DirtyFlagResetDeletesUpdatedRowsAndSyncsTheRest) {
    start(false);
    exec("INSERT INTO contacts(_id, dirty) VALUES('1', 1), ('2', 3), ('3', 4)");
    SyncOutcomeProcessor::update_dirty_flags(3);
    EXPECT_EQ(query("SELECT _id, dirty FROM contacts ORDER BY _id"),
              (std::vector<std::string>{"1|4", "3|4"}));
    LogCapture log;
    SyncOutcomeProcessor::update_dirtyflag("");
    EXPECT_TRUE(log.hasMessage("Invalid table name"));
}

}  // namespace
