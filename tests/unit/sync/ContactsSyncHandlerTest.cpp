#include <gtest/gtest.h>

#include <atomic>
#include <string>

#include "PLMConstants.h"
#include "SyncHandlers/ContactsSyncHandler.h"
#include "unit/sync/SyncTestSupport.h"
#include "upload/PLMSyncMasterTable.h"

using namespace pelio::test;
using pelio::platform::CONTACTS_NUMBER_TYPE_CELL;

namespace {

// Reports an interruption (as a pending forced request would) at the n-th poll.
class InterruptedContactsHandler : public ContactsSyncHandler {
  public:
    InterruptedContactsHandler(SyncHandlerHost* host, int atPoll)
        : ContactsSyncHandler(host), atPoll_(atPoll) {}

  protected:
    bool isInterrupted() override { return ++polls_ >= atPoll_; }

  private:
    int atPoll_;
    int polls_ = 0;
};

class ContactsSyncHandlerTest : public SyncStoreTest {
  protected:
    int addPerson(const std::string& name) {
        return contacts_->addContact(FakeContactsService::person(name, name));
    }
    // What an upload leaves behind: every row in step with the server, the version recorded.
    void markUploaded(ContactsSyncHandler& handler) {
        exec("UPDATE contacts SET dirty = 4, rev_id = '1-x'");
        ASSERT_EQ(handler.writeNewSyncContactsDbVersion(false), 0);
        ASSERT_EQ(master_set_string(plm::CONTACTS_SYNC_STATUS_P, "2"), 0);
        prefs_->setBoolean("is_force", false);
    }
    std::string status() { return master_get_value(plm::CONTACTS_SYNC_STATUS_P); }

    RecordingHost host_;
};

}  // namespace

TEST_F(ContactsSyncHandlerTest, FirstRunInsertsEveryNamedPersonWithAChange) {
    const int ann = addPerson("Ann");
    const int bob = addPerson("Bob");
    contacts_->addContact(FakeContactsService::person(""));  // no display name: never entered
    prefs_->setInt(plm::PREF_CONTACTS_DB_VERSION, 1);        // ignored while "is_force" is absent

    ContactsSyncHandler handler(&host_);
    EXPECT_EQ(handler.syncData(98), 0);

    const auto byId = dirtyById();
    ASSERT_EQ(byId.size(), 2u);
    EXPECT_EQ(byId.at(std::to_string(ann)), std::vector<int>{1});
    EXPECT_EQ(byId.at(std::to_string(bob)), std::vector<int>{1});
    for (const auto& row : rows())
        EXPECT_EQ(row.version, contacts_->version());
    EXPECT_TRUE(log_.hasMessage("No display name"));
    int stored = 0;
    EXPECT_NE(prefs_->getInt(plm::PREF_CONTACTS_DB_VERSION, stored), 0);  // removed
    EXPECT_EQ(status(), "0");
    // The crossed messages: a successful set says it failed.
    EXPECT_TRUE(log_.hasMessage("Failed to set master string for contacts"));
    EXPECT_TRUE(log_.hasMessage("syncData Done for Contacts"));
    EXPECT_TRUE(host_.statusCalls().empty());  // the worker, not syncData, reports to the host
}

TEST_F(ContactsSyncHandlerTest, NothingRequiredWhenInStepAndVersionsMatch) {
    addPerson("Ann");
    ContactsSyncHandler handler(&host_);
    ASSERT_EQ(handler.syncData(98), 0);
    markUploaded(handler);
    log_.clear();

    EXPECT_EQ(handler.syncData(98), 2);
    EXPECT_TRUE(log_.hasMessage("Skip by _isSyncRequired()"));
    EXPECT_TRUE(
        log_.hasMessage("They have same contact version in plm sync requested and "
                        "contact db's"));
    EXPECT_EQ(status(), "2");

    // A failed previous sync asks for a collection even with matching versions.
    ASSERT_EQ(master_set_string(plm::CONTACTS_SYNC_STATUS_P, "1"), 0);
    EXPECT_EQ(handler.syncData(98), 0);
    EXPECT_TRUE(log_.hasMessage("status is false hence trigger sync"));
    EXPECT_EQ(status(), "0");
}

TEST_F(ContactsSyncHandlerTest, DeltaMarksInsertsUpdatesAndDeletes) {
    const int ann = addPerson("Ann");
    const int bob = addPerson("Bob");
    const int cid = addPerson("Cid");
    ContactsSyncHandler handler(&host_);
    ASSERT_EQ(handler.syncData(98), 0);
    markUploaded(handler);

    contacts_->beginBatch();
    contacts_->updateContact(
        ann,
        FakeContactsService::person("Ann", "Anna").withNumber("555", CONTACTS_NUMBER_TYPE_CELL));
    contacts_->deleteContact(bob);
    const int dee = addPerson("Dee");
    contacts_->commitBatch();

    EXPECT_EQ(handler.syncData(98), 0);
    const auto byId = dirtyById();
    EXPECT_EQ(byId.at(std::to_string(ann)), std::vector<int>{3});
    EXPECT_EQ(byId.at(std::to_string(bob)), std::vector<int>{2});
    EXPECT_EQ(byId.at(std::to_string(cid)), std::vector<int>{4});  // unchanged: left alone
    EXPECT_EQ(byId.at(std::to_string(dee)), std::vector<int>{1});
    for (const auto& row : rows()) {
        if (row.id != std::to_string(cid)) {
            EXPECT_EQ(row.version, contacts_->version()) << row.id;
        }
    }
    EXPECT_TRUE(log_.hasMessage(
        "calculate delta end - insertedCnt[1], updatedCnt[1], deletedCnt[1] - result[0]"));
}

TEST_F(ContactsSyncHandlerTest, ReplayedChangesKeepPendingFlagsAndUnsyncedRemovalsSendNothing) {
    const int ann = addPerson("Ann");
    const int bob = addPerson("Bob");
    ContactsSyncHandler handler(&host_);
    ASSERT_EQ(handler.syncData(98), 0);
    // Pending at the version they were collected at: an update stays an update, a confirmed row
    // stays confirmed, when the same changes are read again (a retry after a failed upload).
    exec("DELETE FROM contacts WHERE _id = '" + std::to_string(ann) + "'");
    exec("INSERT INTO contacts (_id, contact_id, dirty, version) VALUES ('" + std::to_string(ann) +
         "', " + std::to_string(ann) + ", 3, " + std::to_string(contacts_->version()) + ")");
    exec("UPDATE contacts SET dirty = 4 WHERE _id = '" + std::to_string(bob) + "'");
    log_.clear();
    EXPECT_EQ(handler.syncData(98), 0);
    EXPECT_EQ(dirtyById().at(std::to_string(ann)), std::vector<int>{3});
    EXPECT_EQ(dirtyById().at(std::to_string(bob)), std::vector<int>{4});
    EXPECT_TRUE(log_.hasMessage(
        "calculate delta end - insertedCnt[0], updatedCnt[0], deletedCnt[0] - result[0]"));

    // Added and removed between two syncs: never on the server, so nothing is entered.
    const int cy = addPerson("Cy");
    ASSERT_TRUE(contacts_->deleteContact(cy));
    // Removed after it was synced: a deletion.
    ASSERT_TRUE(contacts_->deleteContact(bob));
    EXPECT_EQ(handler.syncData(98), 0);
    EXPECT_EQ(dirtyById().count(std::to_string(cy)), 0u);
    EXPECT_EQ(dirtyById().at(std::to_string(bob)), std::vector<int>{2});
}

TEST_F(ContactsSyncHandlerTest, RowsStillMarkedInsertedAreInsertedOnceMore) {
    const int ann = addPerson("Ann");
    ContactsSyncHandler handler(&host_);
    ASSERT_EQ(handler.syncData(98), 0);
    // Not uploaded yet; the repeated insert record at the same version is ignored, but the
    // stored row (dirty 1) is written back, so the table holds it twice.
    ASSERT_EQ(handler.syncData(98), 0);
    EXPECT_EQ(dirtyById().at(std::to_string(ann)), (std::vector<int>{1, 1}));
}

TEST_F(ContactsSyncHandlerTest, ForcedSyncStartsFromAnEmptyTableAndSendsEveryRemoval) {
    const int ann = addPerson("Ann");
    const int bob = addPerson("Bob");
    ASSERT_TRUE(contacts_->deleteContact(bob));  // removed since the last sync
    exec("INSERT INTO contacts (_id, contact_id, dirty, version) VALUES ('999', 999, 4, 1)");
    ContactsSyncHandler handler(&host_);
    EXPECT_EQ(handler.syncData(99), 0);
    const auto byId = dirtyById();
    EXPECT_EQ(byId.count("999"), 0u);
    EXPECT_EQ(byId.at(std::to_string(ann)), std::vector<int>{1});
    // The emptied table cannot tell whether the server has Bob: the deletion goes up.
    EXPECT_EQ(byId.at(std::to_string(bob)), std::vector<int>{2});
}

TEST_F(ContactsSyncHandlerTest, ForcedRequestDuringTheWriteRollsBackAndReturnsTwo) {
    addPerson("Ann");
    {
        ContactsSyncHandler first(&host_);
        ASSERT_EQ(first.syncData(98), 0);  // also uses up the store's first (always committed)
                                           // transaction
        markUploaded(first);
    }
    const auto before = rows();
    const int bob = addPerson("Bob");
    const int cid = addPerson("Cid");
    (void)bob;
    (void)cid;
    prefs_->setBoolean("is_force", true);

    // Polls: one per change record (3 with the version preference dropped), then one per
    // written entry; the interruption comes after the first entry was written.
    InterruptedContactsHandler handler(&host_, 5);
    log_.clear();
    EXPECT_EQ(handler.syncData(98), 2);
    EXPECT_TRUE(log_.hasMessage("write new data - begin"));
    const auto after = rows();
    ASSERT_EQ(after.size(), before.size());
    for (size_t i = 0; i < after.size(); ++i) {
        EXPECT_EQ(after[i].id, before[i].id);
        EXPECT_EQ(after[i].dirty, before[i].dirty);
    }
}

TEST_F(ContactsSyncHandlerTest, ForcedRequestDuringTheDeltaStopsBeforeWriting) {
    addPerson("Ann");
    addPerson("Bob");
    InterruptedContactsHandler handler(&host_, 1);
    EXPECT_EQ(handler.syncData(98), 2);
    EXPECT_TRUE(log_.hasMessage("Delta calculation failed[2]"));
    EXPECT_FALSE(log_.hasMessage("write new data - begin"));
    EXPECT_TRUE(rows().empty());
}

TEST_F(ContactsSyncHandlerTest, ForcedRequestWhileCollectingIsTakenNextThreaded) {
    addPerson("Ann");
    ContactsSyncHandler handler(&host_);
    std::unique_lock<std::mutex> domain(host_.domainLock);
    ASSERT_EQ(handler.requestSync(98), 0);
    ASSERT_TRUE(eventually([&] { return handler.queueLength() == 0; }));  // 98 taken
    handler.requestSync(99);
    domain.unlock();  // the 98 collection now runs with a forced request pending

    ASSERT_TRUE(eventually([&] { return !handler.isWorkerRunning(); }));
    EXPECT_TRUE(log_.hasMessage("Delta calculation failed[2]"));
    EXPECT_TRUE(log_.hasMessage("Nothing to be done for the domain[3]"));
    EXPECT_EQ(host_.queuedItems(), std::vector<int>{3});
    EXPECT_EQ(host_.statusCalls(),
              (std::vector<std::pair<std::string, std::string>>{{"CONTACTS_SYNC_STATUS_P", "0"}}));
    EXPECT_EQ(rows().size(), 1u);
}

TEST_F(ContactsSyncHandlerTest, LargeAddressBookIsReadBackCompletely) {
    contacts_->beginBatch();
    for (int i = 0; i < 5200; ++i)
        addPerson("P" + std::to_string(i));
    contacts_->commitBatch();
    ContactsSyncHandler handler(&host_);
    ASSERT_EQ(handler.syncData(98), 0);
    ASSERT_EQ(rows().size(), 5200u);
    exec("UPDATE contacts SET dirty = 4");

    // Every insert record is seen again at the same version; only a complete read of the table
    // recognises all 5200 persons (a truncated one would insert the rest again).
    log_.clear();
    EXPECT_EQ(handler.syncData(98), 0);
    EXPECT_EQ(rows().size(), 5200u);
    EXPECT_TRUE(log_.hasMessage(
        "calculate delta end - insertedCnt[0], updatedCnt[0], deletedCnt[0] - result[0]"));
    EXPECT_FALSE(log_.contains("MAX_QUERY_SIZE"));
}

TEST_F(ContactsSyncHandlerTest, StoredVersionIsTheOneTheCollectionReadOrReset) {
    addPerson("Ann");
    ContactsSyncHandler handler(&host_);
    int version = 0;
    // No collection yet: nothing to record.
    EXPECT_EQ(handler.writeNewSyncContactsDbVersion(false), 0);
    EXPECT_NE(handler.readSyncContactsDbVersion(version), 0);

    ASSERT_EQ(handler.syncData(98), 0);
    const int collected = contacts_->version();
    addPerson("Bob");  // changed while the upload runs
    EXPECT_EQ(handler.writeNewSyncContactsDbVersion(false), 0);
    EXPECT_EQ(handler.readSyncContactsDbVersion(version), 0);
    EXPECT_EQ(version, collected);
    EXPECT_TRUE(
        log_.hasMessage("writeNewSyncContactsDbVersion [" + std::to_string(collected) + "]"));
    EXPECT_EQ(handler.writeNewSyncContactsDbVersion(true), 0);
    EXPECT_EQ(handler.readSyncContactsDbVersion(version), 0);
    EXPECT_EQ(version, -1);
}

TEST_F(ContactsSyncHandlerTest, AFailedRowWriteFailsTheCollectionAndKeepsTheStoredVersion) {
    addPerson("Ann");
    ContactsSyncHandler handler(&host_);
    ASSERT_EQ(handler.syncData(98), 0);  // uses up the store's first (always committed) transaction
    ASSERT_EQ(handler.writeNewSyncContactsDbVersion(false), 0);
    int stored = 0;
    ASSERT_EQ(handler.readSyncContactsDbVersion(stored), 0);
    exec("CREATE TRIGGER refuse BEFORE INSERT ON contacts BEGIN SELECT RAISE(ABORT, 'full'); END");
    const int bob = addPerson("Bob");
    EXPECT_EQ(handler.syncData(98), 1);
    EXPECT_EQ(dirtyById().count(std::to_string(bob)), 0u);
    // Nothing of the failed collection counts as collected.
    EXPECT_EQ(handler.writeNewSyncContactsDbVersion(false), 0);
    int version = 0;
    ASSERT_EQ(handler.readSyncContactsDbVersion(version), 0);
    EXPECT_EQ(version, stored);
}

TEST_F(ContactsSyncHandlerTest, ContactsServiceFailureEndsWithOne) {
    addPerson("Ann");
    contacts_->failNext(FakeContactsService::Op::GetChangesByVersion,
                        pelio::platform::CONTACTS_ERROR_DB);
    ContactsSyncHandler handler(&host_);
    EXPECT_EQ(handler.syncData(98), 1);
    EXPECT_TRUE(log_.hasMessage("syncData failed for Contacts"));
    EXPECT_TRUE(rows().empty());
}
