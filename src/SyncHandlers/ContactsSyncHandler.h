// ContactsSyncHandler: the contacts domain collector (sync item 3). Its syncData() decides whether
// the phone book changed since the last collection and, if so, works out from the contacts
// service's change log which persons were added, changed or removed, and records that as dirty
// flags in the local "contacts" table (1 insert, 2 delete, 3 update). The contacts composer later
// turns the rows whose flag is not 4 into documents.
//
// Persisted state: preference "ORVANE_CONATCT_DB_VERSION" (the contacts database version of the
// last collection; written by the sync manager after a PDS close through
// writeNewSyncContactsDbVersion), preference "is_force" (absent or true: ignore the stored
// version), master key "CONTACTS_SYNC_STATUS_P".
//
// Threads: syncData() runs on this handler's worker thread under the sync manager's contacts lock,
// with its own contacts-service connection. readSyncContactsDbVersion() and
// writeNewSyncContactsDbVersion() may be called from any thread (the sync manager's worker).
// Ownership: a process-wide singleton (getInstance / deleteInstance).
// Errors: syncData() returns 0 (something to upload), 2 (nothing to do, or interrupted by a
// forced request: the write transaction is rolled back) or 1 (failure); all failures are logged.
#pragma once

#include <glib.h>

#include <atomic>
#include <memory>
#include <mutex>
#include <set>
#include <unordered_map>
#include <vector>

#include <pelio/platform/Contacts.h>

#include "SyncHandlers/BaseSyncHandler.h"
#include "database/DirtyFlag.h"

// One person of the delta map.
struct ContactSyncInfo {
    int id = -1;         // "_id" of the row: the person id
    int contactId = -1;  // "contact_id": the same person id
    int spare = -1;
    int dirty = plm::DIRTY_DELETED;  // DIRTY_SYNCED entries are not written back
    int version = -1;
    bool newRow = false;  // not in the table yet: written with an insert whatever its state
};

class ContactsSyncHandler : public BaseSyncHandler {
  public:
    static ContactsSyncHandler* getInstance();
    static void deleteInstance();

    // Tests and embedders: a handler on its own host (null: the sync manager). getInstance() is
    // what the service uses.
    explicit ContactsSyncHandler(SyncHandlerHost* host);
    ~ContactsSyncHandler() override;

    int syncData(int syncType) override;

    // The stored version: 0 and version filled on success, the preference error otherwise.
    int readSyncContactsDbVersion(int& version);
    // Stores -1 when reset, else the version that the last stored collection read (nothing is
    // written when no collection was stored since start). 0 on success.
    int writeNewSyncContactsDbVersion(bool reset);

    // Rows per SELECT of the stored-row reads (keeps one SELECT within the row-transfer bound).
    static constexpr int kReadPageRows = 750;

  private:
    using SyncMap = pelio::GHashTablePtr;

    bool _isSyncRequired();
    bool _isSyncRequiredByPreviousSyncStatus();
    bool _isSyncRequiredByContactsDbVersion();
    // Counts the stored persons and reads the rows of those still waiting for an upload.
    int _readOldSyncData(GHashTable* map);
    // Reads the stored rows of these persons into the map, but for persons already in it.
    int _readStoredRows(GHashTable* map, const std::set<int>& personIds);
    // The size the map would have with every stored person in it.
    int _deltaCount(GHashTable* map) const;
    int _calcuDeltaSyncData(GHashTable* map);

    // What one delta calculation marked, for its closing log line.
    struct DeltaCounts {
        int inserted = 0;
        int updated = 0;
        int deleted = 0;
    };
    using ContactsById = std::unordered_map<int, pelio::platform::ContactSummary>;
    // Reads the current version, the contact list's size and the change log since `synced` on
    // this thread's connection; 0, or 1 when the contacts service failed.
    int _readContactChanges(int synced, int& current,
                            std::vector<pelio::platform::ContactChange>& changes);
    // Looks up the contact of every change record by id and reads its person's stored rows into
    // the map; 0, or 1 when the contacts service or the table failed.
    int _lookUpChangedContacts(GHashTable* map,
                               const std::vector<pelio::platform::ContactChange>& changes,
                               ContactsById& byId);
    // Marks the person of one change record in the map (a new entry, a deletion, an update, or
    // nothing for a record without a valid person or name).
    void _applyContactChange(GHashTable* map, const pelio::platform::ContactChange& change,
                             const ContactsById& byId, int current, DeltaCounts& counts);
    int _writeNewSyncData(GHashTable* map);

    // Version read by the running collection, and by the last one whose rows were committed
    // (-1: none since start). Written by the worker, read by the sync manager's worker.
    int mReadVersion = -1;
    // Whether the running collection is a forced one (it started from an empty table).
    bool mForcedCollection = false;
    // Distinct persons in the table when the running collection started.
    int mStoredIds = 0;
    std::atomic<int> mCollectedVersion{-1};
};

// Value-free function of the delta map.
void free_contact_info(gpointer info);
