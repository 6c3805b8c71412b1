

#include "PLMConstants.h"
#include "SyncHandlers/ContactsSyncHandler.h"
#include "unit/sync/SyncTestSupport.h"
#include "upload/PLMSyncMasterTable.h"

using namespace pelio::test;

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
    std::string addPerson(const std::string& name) {
        return std::to_string(contacts_.put(name, name));
    }
    // What an upload leaves behind: every row in step with the server, the version recorded.
    void markUploaded(ContactsSyncHandler& handler) {
        exec("UPDATE contacts SET dirty = 4, rev_id = '1-x'");
        ASSERT_EQ(handler.writeNewSyncContactsDbVersion(false), 0);
        ASSERT_EQ(master_set_string(plm::CONTACTS_SYNC_STATUS_P, "2"), 0);
        prefs_->setBoolean("is_force", false);
    }
    std::string status() { return master_get_value(plm::CONTACTS_SYNC_STATUS_P); }
    int storedVersion(ContactsSyncHandler& handler) {
        int version = -99;
        EXPECT_EQ(handler.readSyncContactsDbVersion(version), 0);
        return version;
    }

    RecordingHost host_;
};

}  // namespace

TEST_F(ContactsSyncHandlerTest, FirstRunThenNothingRequiredThenADelta) {
    const auto ann = addPerson("Ann");
    const auto bob = addPerson("Bob");
    const auto cid = addPerson("Cid");
    contacts_.put("noname", "");                       // no display name: never entered
    prefs_->setInt(plm::PREF_CONTACTS_DB_VERSION, 1);  // ignored while "is_force" is absent

    ContactsSyncHandler handler(&host_);
    EXPECT_EQ(handler.syncData(98), 0);
    using Dirty = std::map<std::string, std::vector<int>>;
    EXPECT_EQ(dirtyById(), (Dirty{{ann, {1}}, {bob, {1}}, {cid, {1}}}));
    EXPECT_EQ(query("SELECT DISTINCT version FROM contacts"),
              std::vector<std::string>{std::to_string(contacts_.version())});
    int stored = 0;
    EXPECT_NE(prefs_->getInt(plm::PREF_CONTACTS_DB_VERSION, stored), 0);  // removed
    EXPECT_EQ(status(), "0");
    EXPECT_TRUE(host_.statusCalls().empty());  // the worker, not syncData, reports to the host

    // In step and the versions match: nothing to do; after a failed sync, a collection anyway.
    markUploaded(handler);
    EXPECT_EQ(handler.syncData(98), 2);
    EXPECT_EQ(status(), "2");
    ASSERT_EQ(master_set_string(plm::CONTACTS_SYNC_STATUS_P, "1"), 0);
    EXPECT_EQ(handler.syncData(98), 0);
    EXPECT_EQ(status(), "0");

    contacts_.begin();
    contacts_.put("Ann", "Ann", "N:;Anna;;;\r\nTEL;TYPE=CELL:555\r\n");
    contacts_.remove("Bob");
    addPerson("Dee");
    contacts_.commit();
    const auto dee = std::to_string(contacts_.idOf("Dee"));
    // Cid, unchanged, also has an older pending row: its latest row (in step) is what counts.
    exec("UPDATE contacts SET dirty = 1 WHERE _id = '" + cid + "'");
    exec("INSERT INTO contacts (_id, contact_id, dirty, version) VALUES ('" + cid + "', " + cid +
         ", 4, 1)");
    log_.clear();
    EXPECT_EQ(handler.syncData(98), 0);
    // Cid is unchanged: left alone (and at its old version).
    EXPECT_EQ(dirtyById(), (Dirty{{ann, {3}}, {bob, {2}}, {cid, {1, 4}}, {dee, {1}}}));
    // Every stored person counts, whether the delta read its rows or not: three, and Dee new.
    EXPECT_TRUE(log_.hasMessage("ret[0], recordCnt[3], hashTableSize[3]"));
    EXPECT_TRUE(log_.hasMessage("Final Delta count is [4]"));
    EXPECT_EQ(query("SELECT DISTINCT version FROM contacts WHERE _id != '" + cid + "'"),
              std::vector<std::string>{std::to_string(contacts_.version())});
}

TEST_F(ContactsSyncHandlerTest, ReplayedChangesKeepPendingFlagsAndUnsyncedRemovalsSendNothing) {
    const auto ann = addPerson("Ann");
    const auto bob = addPerson("Bob");
    ContactsSyncHandler handler(&host_);
    ASSERT_EQ(handler.syncData(98), 0);
    // Not uploaded yet: the repeated insert record at the same version is ignored, but the
    // stored row (dirty 1) is written back, so the table holds it twice.
    ASSERT_EQ(handler.syncData(98), 0);
    EXPECT_EQ(dirtyById().at(ann), (std::vector<int>{1, 1}));

    // Pending at the version they were collected at: an update stays an update, a confirmed row
    // stays confirmed, when the same changes are read again (a retry after a failed upload).
    exec("DELETE FROM contacts");
    const std::string v = std::to_string(contacts_.version());
    exec("INSERT INTO contacts (_id, contact_id, dirty, version) VALUES ('" + ann + "', " + ann +
         ", 3, " + v + "), ('" + bob + "', " + bob + ", 4, " + v + ")");
    log_.clear();
    EXPECT_EQ(handler.syncData(98), 0);
    EXPECT_EQ(dirtyById().at(ann), std::vector<int>{3});
    EXPECT_EQ(dirtyById().at(bob), std::vector<int>{4});
    EXPECT_TRUE(log_.hasMessage(
        "calculate delta end - insertedCnt[0], updatedCnt[0], deletedCnt[0] - result[0]"));

    // Added and removed between two syncs: never on the server, so nothing is entered.
    const auto cy = addPerson("Cy");
    contacts_.remove("Cy");
    contacts_.remove("Bob");  // removed after it was synced: a deletion
    EXPECT_EQ(handler.syncData(98), 0);
    EXPECT_EQ(dirtyById().count(cy), 0u);
    EXPECT_EQ(dirtyById().at(bob), std::vector<int>{2});
}

TEST_F(ContactsSyncHandlerTest, ForcedSyncStartsFromAnEmptyTableAndSendsEveryRemoval) {
    const auto ann = addPerson("Ann");
    const auto bob = addPerson("Bob");
    contacts_.remove("Bob");  // removed since the last sync
    exec("INSERT INTO contacts (_id, contact_id, dirty, version) VALUES ('999', 999, 4, 1)");
    ContactsSyncHandler handler(&host_);
    EXPECT_EQ(handler.syncData(99), 0);
    // The emptied table cannot tell whether the server has Bob: the deletion goes up.
    EXPECT_EQ(dirtyById(), (std::map<std::string, std::vector<int>>{{ann, {1}}, {bob, {2}}}));
}

TEST_F(ContactsSyncHandlerTest, ForcedRequestDuringTheDeltaOrTheWriteChangesNothing) {
    addPerson("Ann");
    addPerson("Bob");
    {
        InterruptedContactsHandler handler(&host_, 1);
        EXPECT_EQ(handler.syncData(98), 2);
        EXPECT_TRUE(log_.hasMessage("Delta calculation failed[2]"));
        EXPECT_FALSE(log_.hasMessage("write new data - begin"));
        EXPECT_TRUE(query("SELECT * FROM contacts").empty());
    }
    {
        ContactsSyncHandler first(&host_);
        ASSERT_EQ(first.syncData(98), 0);  // also uses up the store's first (always committed)
                                           // transaction
        markUploaded(first);
    }
    const auto before = query("SELECT _id, dirty FROM contacts ORDER BY rowid");
    addPerson("Cid");
    addPerson("Dee");
    prefs_->setBoolean("is_force", true);
    // Polls: one per change record (4 with the version preference dropped), then one per
    // written entry; the interruption comes after the first entry was written.
    InterruptedContactsHandler handler(&host_, 6);
    log_.clear();
    EXPECT_EQ(handler.syncData(98), 2);
    EXPECT_TRUE(log_.hasMessage("write new data - begin"));
    EXPECT_EQ(query("SELECT _id, dirty FROM contacts ORDER BY rowid"), before);
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
    EXPECT_EQ(host_.queuedItems(), std::vector<int>{3});
    EXPECT_EQ(host_.statusCalls(),
              (std::vector<std::pair<std::string, std::string>>{{"CONTACTS_SYNC_STATUS_P", "0"}}));
    EXPECT_EQ(query("SELECT * FROM contacts").size(), 1u);
}

TEST_F(ContactsSyncHandlerTest, LargeAddressBookIsReadBackCompletely) {
    contacts_.putMany("P", 5200);
    ContactsSyncHandler handler(&host_);
    ASSERT_EQ(handler.syncData(98), 0);
    exec("UPDATE contacts SET dirty = 4");

    // Every insert record is seen again at the same version; only a complete read of the table
    // recognises all 5200 persons (a truncated one would insert the rest again).
    EXPECT_EQ(handler.syncData(98), 0);
    EXPECT_EQ(query("SELECT count(*), min(dirty) FROM contacts"),
              std::vector<std::string>{"5200|4"});
    EXPECT_FALSE(log_.contains("MAX_QUERY_SIZE"));
}

TEST_F(ContactsSyncHandlerTest, StoredVersionIsTheOneCollectedAndFailuresEndWithOne) {
    addPerson("Ann");
    ContactsSyncHandler handler(&host_);
    int version = 0;
    // No collection yet: nothing to record.
    EXPECT_EQ(handler.writeNewSyncContactsDbVersion(false), 0);
    EXPECT_NE(handler.readSyncContactsDbVersion(version), 0);

    ASSERT_EQ(handler.syncData(98), 0);  // uses up the store's first (always committed) transaction
    const int collected = contacts_.version();
    addPerson("Bob");  // changed while the upload runs
    EXPECT_EQ(handler.writeNewSyncContactsDbVersion(false), 0);
    EXPECT_EQ(storedVersion(handler), collected);
    EXPECT_EQ(handler.writeNewSyncContactsDbVersion(true), 0);
    EXPECT_EQ(storedVersion(handler), -1);
    ASSERT_EQ(handler.writeNewSyncContactsDbVersion(false), 0);
    const int stored = storedVersion(handler);

    // A failed row write fails the collection; nothing of it counts as collected.
    exec("CREATE TRIGGER refuse BEFORE INSERT ON contacts BEGIN SELECT RAISE(ABORT, 'full'); END");
    const auto cy = addPerson("Cy");
    EXPECT_EQ(handler.syncData(98), 1);
    EXPECT_EQ(dirtyById().count(cy), 0u);
    EXPECT_EQ(handler.writeNewSyncContactsDbVersion(false), 0);
    EXPECT_EQ(storedVersion(handler), stored);

    // The contacts service failing: its change log cannot be read.
    exec("DROP TRIGGER refuse");
    exec("ALTER TABLE changes RENAME COLUMN type TO kind",
         home_.dataHome() + "/pelio-platform/contacts.db");
    EXPECT_EQ(handler.syncData(98), 1);
    EXPECT_TRUE(log_.hasMessage("syncData failed for Contacts"));
    EXPECT_EQ(dirtyById().count(cy), 0u);
}
