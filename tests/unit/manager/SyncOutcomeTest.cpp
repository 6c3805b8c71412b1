#include "ManagerTestSupport.h"
#include "PLMConstants.h"
#include "upload/SyncOutcomeProcessor.h"

using namespace manager_test;
using pelio::test::LogCapture;

namespace {

class SyncOutcomeTest : public ManagerFixture {
  protected:
    // Runs a close with the given answer posted for item.
    void closeWithAnswer(PLMSyncManager* manager, int item, const std::string& answer) {
        auto* result = new SyncResult();
        result->itemType = item;
        result->jsonResponse = answer;
        manager->appendSyncResultForTesting(result);
        uploader_->opened = true;
        uploader_->closed = false;
        manager->closeSessionAndApplyOutcomes();
    }
    PLMSyncManager* startWithSession() {
        PLMSyncManager* manager = start(false);
        manager->clearServer();  // makes the uploader
        uploader_->setLastApplicationPlmId("Unknown");
        return manager;
    }
};

TEST_F(SyncOutcomeTest, AcceptedContactDeletesDirtyTwoRowsAndMarksOthersSynced) {
    PLMSyncManager* manager = startWithSession();
    exec("INSERT INTO contacts(_id, dirty, rev_id) VALUES('42', 2, '1-old')");
    exec("INSERT INTO contacts(_id, dirty, rev_id) VALUES('43', 3, '1-old')");
    exec("INSERT INTO contacts(_id, dirty, rev_id) VALUES('44', 1, NULL)");
    closeWithAnswer(manager, 3,
                    "[{\"id\":\"con_0042\",\"rev\":\"3-x\"},"
                    "{\"id\":\"con_0000000043\",\"rev\":\"2-y\"},"
                    "{\"id\":\"con_0044\",\"error\":\"forbidden\",\"reason\":\"no\"}, 17]");
    EXPECT_TRUE(rows("SELECT * FROM contacts WHERE _id = '42'").empty());
    EXPECT_EQ(rows("SELECT rev_id, dirty FROM contacts WHERE _id = '43'"),
              (std::vector<std::string>{"2-y|4"}));
    // A refusal other than a conflict leaves the row to be sent again.
    EXPECT_EQ(rows("SELECT rev_id, dirty FROM contacts WHERE _id = '44'"),
              (std::vector<std::string>{"NULL|1"}));
    EXPECT_EQ(status(plm::CONTACTS_SYNC_STATUS_P), "2");
    EXPECT_EQ(versionWrites_, (std::vector<bool>{false}));
}

TEST_F(SyncOutcomeTest, AcceptedContactRowNotDeletedSetsRevisionAndDirtyFour) {
    PLMSyncManager* manager = startWithSession();
    exec("INSERT INTO contacts(_id, dirty, rev_id) VALUES('42', 1, NULL)");
    closeWithAnswer(manager, 3, "[{\"id\":\"con_0042\",\"rev\":\"3-x\"}]");
    EXPECT_EQ(rows("SELECT rev_id, dirty FROM contacts WHERE _id = '42'"),
              (std::vector<std::string>{"3-x|4"}));
}

TEST_F(SyncOutcomeTest, ApplicationConflictKeepsRowDirtyStoresRevisionAndFailsDomain) {
    PLMSyncManager* manager = startWithSession();
    exec(
        "INSERT INTO application(_id, package, dirty, rev_id) VALUES('com.a.b', 'com.a.b', 3, "
        "'1')");
    LogCapture log;
    closeWithAnswer(manager, 1,
                    "[{\"id\":\"pkg_com.a.b\",\"error\":\"conflict\","
                    "\"reason\":\"Document update conflict.\",\"rev\":\"5-z\"}]");
    EXPECT_EQ(rows("SELECT rev_id, dirty FROM application WHERE _id = 'com.a.b'"),
              (std::vector<std::string>{"5-z|3"}));
    EXPECT_EQ(status(plm::APP_SYNC_STATUS_P), "1");
    EXPECT_FALSE(log.hasMessage("setting contact doc update conflict status"));
}

TEST_F(SyncOutcomeTest, ContactConflictResetsVersionAndFailsContacts) {
    PLMSyncManager* manager = startWithSession();
    exec("INSERT INTO contacts(_id, dirty, rev_id) VALUES('9', 2, '1-a')");
    LogCapture log;
    closeWithAnswer(manager, 3,
                    "[{\"id\":\"con_0009\",\"error\":\"conflict\","
                    "\"reason\":\"Document update conflict.\",\"rev\":\"2-b\"}]");
    EXPECT_EQ(rows("SELECT rev_id, dirty FROM contacts WHERE _id = '9'"),
              (std::vector<std::string>{"2-b|2"}));
    EXPECT_TRUE(log.hasMessage("Doc update conflict for contact id 9"));
    EXPECT_TRUE(log.hasMessage("setting contact doc update conflict status"));
    EXPECT_EQ(status(plm::CONTACTS_SYNC_STATUS_P), "1");
    EXPECT_EQ(versionWrites_, (std::vector<bool>{true}));
}

TEST_F(SyncOutcomeTest, PrefixIsFoundAnywhereAndNonArrayAnswersChangeNothing) {
    PLMSyncManager* manager = startWithSession();
    exec("INSERT INTO contacts(_id, dirty) VALUES('5', 1)");
    exec("INSERT INTO contacts(_id, dirty) VALUES('con_7', 1)");
    exec("INSERT INTO audio(audio_id, type, dirty) VALUES(0, 0, 1)");
    SyncOutcomeProcessor::Marks marks;
    // "con_" inside the id counts and wins over "aud_": the contacts table is updated, keyed by
    // the text after the first four characters.
    EXPECT_TRUE(
        SyncOutcomeProcessor::applyResponse("[{\"id\":\"aud_con_7\",\"rev\":\"1-q\"}]", marks));
    EXPECT_EQ(rows("SELECT rev_id, dirty FROM contacts WHERE _id = 'con_7'"),
              (std::vector<std::string>{"1-q|4"}));
    EXPECT_EQ(rows("SELECT dirty FROM audio"), (std::vector<std::string>{"1"}));

    exec("UPDATE contacts SET dirty = 1");
    EXPECT_FALSE(SyncOutcomeProcessor::applyResponse("{\"id\":\"con_0005\",\"rev\":\"2\"}", marks));
    EXPECT_FALSE(SyncOutcomeProcessor::applyResponse("not json", marks));
    EXPECT_EQ(rows("SELECT dirty FROM contacts WHERE _id = '5'"), (std::vector<std::string>{"1"}));
    closeWithAnswer(manager, 3, "{}");
    EXPECT_EQ(status(plm::CONTACTS_SYNC_STATUS_P), "2");  // still marked in step
}

TEST_F(SyncOutcomeTest, AudioPlaylistAndTypedAudioAnswersUseTheirKeys) {
    start(false);
    exec("INSERT INTO audio(audio_id, type, dirty) VALUES(12, 3, 1)");
    exec("INSERT INTO audio(audio_id, type, dirty) VALUES(12, 4, 2)");
    exec("INSERT INTO audio_playlist(playlist_id, dirty) VALUES(8, 2)");
    exec("INSERT INTO audio_playlist(playlist_id, dirty) VALUES(9, 3)");
    SyncOutcomeProcessor::Marks marks;
    ASSERT_TRUE(SyncOutcomeProcessor::applyResponse(
        "[{\"id\":\"aab_0012\",\"rev\":\"1-al\"},{\"id\":\"aat_0012\",\"rev\":\"1-ar\"},"
        "{\"id\":\"apl_0008\",\"rev\":\"1-p\"},{\"id\":\"apl_0009\",\"error\":\"c\","
        "\"reason\":\"Document update conflict.\",\"rev\":\"2-p\"},"
        "{\"id\":\"aud_0077\",\"error\":\"c\",\"reason\":\"Document update conflict.\"}]",
        marks));
    EXPECT_EQ(rows("SELECT type, rev_id, dirty FROM audio ORDER BY type"),
              (std::vector<std::string>{"3|1-al|4"}));
    EXPECT_EQ(rows("SELECT playlist_id, rev_id, dirty FROM audio_playlist"),
              (std::vector<std::string>{"9|2-p|3"}));
    // A conflict without a revision is skipped.
    EXPECT_FALSE(marks.mediaFailed);
}

TEST_F(SyncOutcomeTest, DirtyFlagResetDeletesUpdatedRowsAndSyncsTheRest) {
    start(false);
    exec("INSERT INTO contacts(_id, dirty) VALUES('1', 1), ('2', 3), ('3', 4)");
    SyncOutcomeProcessor::update_dirty_flags(3);
    EXPECT_EQ(rows("SELECT _id, dirty FROM contacts ORDER BY _id"),
              (std::vector<std::string>{"1|4", "3|4"}));
    LogCapture log;
    SyncOutcomeProcessor::update_dirtyflag("");
    EXPECT_TRUE(log.hasMessage("Invalid table name"));
}

}  // namespace
