#include "SyncHandlers/ContactsSyncHandler.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <set>
#include <string>
#include <unordered_map>
#include <vector>

#include <pelio/platform/Contacts.h>
#include <pelio/platform/Preferences.h>
#include <pelio/platform/SqliteStatement.h>

#include "PLMConstants.h"
#include "PelioLog.h"
#include "SyncHandlers/HandlerInstance.h"
#include "database/DbManager.h"
#include "database/KeysetReader.h"
#include "upload/PLMSyncMasterTable.h"
#include "utils/BundleMacro.h"

using pelio::platform::Bundle;
namespace pp = pelio::platform;

namespace {

constexpr const char* kContactsTable = "contacts";
constexpr const char* kColId = "_id";
constexpr const char* kColContactId = "contact_id";
constexpr const char* kColDirty = "dirty";
constexpr const char* kColVersion = "version";

// Base-10 value of a column text; fallback when the column is absent.
int parseColumn(const std::string& text, int fallback) {
    if (text.empty())
        return fallback;
    return static_cast<int>(std::strtol(text.c_str(), nullptr, 10));
}

ContactSyncInfo* lookup(GHashTable* map, int id) {
    return static_cast<ContactSyncInfo*>(g_hash_table_lookup(map, GINT_TO_POINTER(id)));
}

void put(GHashTable* map, ContactSyncInfo* info) {
    g_hash_table_insert(map, GINT_TO_POINTER(info->id), info);
}

// One stored row (rowid, _id, contact_id, dirty, version) into the map; a repeated _id keeps the
// latest row's values.
void putStoredRow(GHashTable* map, const Bundle& row) {
    auto* info = new ContactSyncInfo;
    info->id = parseColumn(getValStr(&row, columnKey(1)), -1);
    info->contactId = parseColumn(getValStr(&row, columnKey(2)), -1);
    info->dirty = parseColumn(getValStr(&row, columnKey(3)), 2);
    info->version = parseColumn(getValStr(&row, columnKey(4)), -1);
    put(map, info);
}

// The stored rows' column list, spaces kept.
std::string storedProjection() {
    char projection[128];
    std::snprintf(projection, sizeof(projection), " %s, %s, %s, %s ", kColId, kColContactId,
                  kColDirty, kColVersion);
    return projection;
}

// Longest id list of one "_id IN (...)" condition: with the rest of its SELECT it stays well
// inside the query text buffer.
constexpr size_t kMaxIdListChars = 3000;

// Up to this many change records, each contact is looked up by id; more read the whole list.
constexpr size_t kLookUpLimit = 256;

}  // namespace

void free_contact_info(gpointer info) {
    if (info == nullptr) {
        LOGE("Info is already NULL");
        return;
    }
    delete static_cast<ContactSyncInfo*>(info);
}

ContactsSyncHandler* ContactsSyncHandler::getInstance() {
    return HandlerInstance<ContactsSyncHandler>::get();
}

void ContactsSyncHandler::deleteInstance() {
    HandlerInstance<ContactsSyncHandler>::destroy();
}

ContactsSyncHandler::ContactsSyncHandler(SyncHandlerHost* host) : BaseSyncHandler(host) {
    mDomainId = plm::SYNC_ITEM_CONTACTS;
}

ContactsSyncHandler::~ContactsSyncHandler() {
    stopWorker();
}

int ContactsSyncHandler::readSyncContactsDbVersion(int& version) {
    const int ret = pp::preferences().getInt(plm::PREF_CONTACTS_DB_VERSION, version);
    if (ret != pp::PREFERENCE_ERROR_NONE) {
        LOGE("readSyncContactsDbVersion failed. retval[%d]", ret);
    }
    return ret;
}

int ContactsSyncHandler::writeNewSyncContactsDbVersion(bool reset) {
    int version = -1;
    if (!reset) {
        // The version the last committed collection read, not the one current now: a change made
        // while its documents were uploading is after it, so the next collection still sees it.
        version = mCollectedVersion.load();
        if (version < 0) {
            LOGD("no collection since start, stored version kept");
            return 0;
        }
    }
    LOGD("writeNewSyncContactsDbVersion [%d]", version);
    const int ret = pp::preferences().setInt(plm::PREF_CONTACTS_DB_VERSION, version);
    if (ret != pp::PREFERENCE_ERROR_NONE) {
        LOGE("writeSyncContactsDbVersion failed. retval[%d]", ret);
    }
    return ret;
}

int ContactsSyncHandler::syncData(int syncType) {
    bool isForce = true;
    if (pp::preferences().getBoolean(plm::PLMConstants::IS_FORCE, isForce) !=
        pp::PREFERENCE_ERROR_NONE) {
        isForce = true;  // never set: behave as a first run
    }
    // A forced request empties the table below, so it always collects from the start of the
    // change log; a stored version would leave only the latest changes in the table.
    isForce = isForce || syncType == plm::SYNC_TYPE_FORCE;
    if (isForce) {
        pp::preferences().remove(plm::PREF_CONTACTS_DB_VERSION);
    } else if (!_isSyncRequired()) {
        LOGD("Skip by _isSyncRequired()");
        return 2;
    }

    LOGI("Contacts Sync Start");
    // The two messages are crossed on purpose; log readers know them so.
    if (master_set_string(plm::CONTACTS_SYNC_STATUS_P, plm::STATUS_WAITING) == 0) {
        LOGD("Failed to set master string for contacts");
    } else {
        LOGD("Succeded to set master string for contacts");
    }

    // Only an emptied table has forgotten which persons the server holds.
    mForcedCollection = syncType == plm::SYNC_TYPE_FORCE;
    if (mForcedCollection) {
        deleteAll(kContactsTable);
    }

    SyncMap map(g_hash_table_new_full(g_direct_hash, g_direct_equal, nullptr, free_contact_info));
    int result = 1;
    if (_readOldSyncData(map.get()) != 0) {
        LOGE("Failed to read the stored contacts");
    } else {
        result = _calcuDeltaSyncData(map.get());
        LOGD("Final Delta count is [%d]", _deltaCount(map.get()));
        if (result == 0) {
            result = _writeNewSyncData(map.get());
        } else {
            LOGD("Delta calculation failed[%d]", result);
        }
    }
    map.reset();

    if (result == 1) {
        LOGE("syncData failed for Contacts");
    } else {
        LOGD("syncData Done for Contacts");
    }
    return result;
}

bool ContactsSyncHandler::_isSyncRequired() {
    if (_isSyncRequiredByPreviousSyncStatus())
        return true;
    return _isSyncRequiredByContactsDbVersion();
}

bool ContactsSyncHandler::_isSyncRequiredByPreviousSyncStatus() {
    char* raw = nullptr;
    if (master_get_string(plm::CONTACTS_SYNC_STATUS_P, &raw) != 0) {
        LOGE("master_get_string failed");
        free(raw);
        return false;
    }
    pelio::MallocPtr<char> value(raw);
    LOGD("status : %s", value ? value.get() : "NULL");
    if (!value || std::strcmp(value.get(), plm::STATUS_WAITING) == 0 ||
        std::strcmp(value.get(), plm::STATUS_FAILED) == 0) {
        LOGD("status is false hence trigger sync");
        return true;
    }
    return false;
}

bool ContactsSyncHandler::_isSyncRequiredByContactsDbVersion() {
    int synced = -1;
    if (readSyncContactsDbVersion(synced) != pp::PREFERENCE_ERROR_NONE) {
        synced = -1;
    }
    int current = -1;
    auto& contacts = pp::contactsService();
    if (contacts.connectOnThread() != pp::CONTACTS_ERROR_NONE) {
        LOGE("contacts_connect_on_thread is failed");
    } else {
        if (contacts.getCurrentVersion(current) != pp::CONTACTS_ERROR_NONE) {
            LOGE("contacts_db_get_current_version is failed!!");
        }
        contacts.disconnectOnThread();
    }
    LOGD("syncedContactsDbVer[%d] AND currentContactDbVersion[%d]", synced, current);
    if (synced == -1) {
        LOGD("It's never been synced currentContactDbVersion is marked as synced version : [%d]",
             current);
        return true;
    }
    if (synced == current) {
        LOGD("They have same contact version in plm sync requested and contact db's");
        return false;
    }
    LOGD("contact version mismatched between we have and contactDb's : [%d]", current);
    return true;
}

int ContactsSyncHandler::_readOldSyncData(GHashTable* map) {
    // The delta needs a stored person only when a change record names it (read then, by id) or
    // when its rows still wait for an upload (they are written back): those are read here. The
    // other rows are counted, as persons, so the map's size is known without reading them.
    mStoredIds = 0;
    Bundle counted;
    if (selectAll(kContactsTable, std::string("COUNT(DISTINCT ") + kColId + ")", &counted) != 0 ||
        getValStr(&counted, bundlekeys::RECORD0) != bundlekeys::SUCCESS) {
        LOGE("counting the stored contacts failed");
        return -1;
    }
    std::vector<uint8_t> bytes;
    if (counted.getByte(recordKey(1), bytes) == pelio::platform::BUNDLE_ERROR_NONE) {
        if (auto row = Bundle::decode(bytes))
            mStoredIds = parseColumn(getValStr(&*row, columnKey(0)), 0);
    }
    if (mStoredIds == 0) {
        LOGD("no information present");
        return 0;
    }
    const std::string waiting = std::string(kColId) + " IN (SELECT " + kColId + " FROM " +
                                kContactsTable + " WHERE " + kColDirty +
                                " != " + plm::dirtyText(plm::DIRTY_SYNCED) + ")";
    // One SELECT may move only a bounded number of columns, so the rows are read in pages.
    return KeysetReader::readAll(kContactsTable, storedProjection(), waiting, kReadPageRows,
                                 [map](const Bundle& row) { putStoredRow(map, row); })
               ? 0
               : -1;
}

int ContactsSyncHandler::_readStoredRows(GHashTable* map, const std::set<int>& personIds) {
    if (mStoredIds == 0)
        return 0;  // an empty table (a first or forced collection): only this collector adds rows
    std::string list;
    auto flush = [&]() {
        if (list.empty())
            return true;
        const std::string where = std::string(kColId) + " IN (" + list + ")";
        list.clear();
        return KeysetReader::readAll(kContactsTable, storedProjection(), where, kReadPageRows,
                                     [map](const Bundle& row) { putStoredRow(map, row); });
    };
    for (const int id : personIds) {
        if (lookup(map, id) != nullptr)
            continue;  // its rows are read already
        if (!list.empty())
            list += ',';
        list += '\'' + std::to_string(id) + '\'';  // _id is text: compared as text, by its index
        if (list.size() >= kMaxIdListChars && !flush())
            return -1;
    }
    return flush() ? 0 : -1;
}

int ContactsSyncHandler::_deltaCount(GHashTable* map) const {
    // The stored persons, and the new ones this collection added.
    int count = mStoredIds;
    GHashTableIter iter;
    gpointer key = nullptr;
    gpointer value = nullptr;
    g_hash_table_iter_init(&iter, map);
    while (g_hash_table_iter_next(&iter, &key, &value)) {
        if (static_cast<const ContactSyncInfo*>(value)->newRow)
            ++count;
    }
    return count;
}

int ContactsSyncHandler::_readContactChanges(int synced, int& current,
                                             std::vector<pp::ContactChange>& changes) {
    auto& contacts = pp::contactsService();
    int ret = contacts.getCurrentVersion(current);
    if (ret != pp::CONTACTS_ERROR_NONE) {
        LOGE("contacts_db_get_current_version is failed!!");
        return 1;
    }
    LOGD("syncedVersion[%d] vs currentVersion[%d]", synced, current);

    int allCount = 0;
    ret = contacts.getContactsCount(allCount);
    LOGD("ret[%d], allCnt[%d]", ret, allCount);
    if (ret != pp::CONTACTS_ERROR_NONE && ret != pp::CONTACTS_ERROR_NO_DATA) {
        LOGE("contacts list next failed with ret[%d]", ret);
        return 1;
    }
    int changesVersion = 0;
    ret = contacts.getChangesByVersion(-1, synced, changes, changesVersion);
    LOGD("ret[%d], recordCnt[%d], hashTableSize[%d]", ret, static_cast<int>(changes.size()),
         mStoredIds);
    if (ret != pp::CONTACTS_ERROR_NONE && ret != pp::CONTACTS_ERROR_NO_DATA) {
        LOGE("contacts list next failed with ret[%d]", ret);
        return 1;
    }
    return 0;
}

void ContactsSyncHandler::_applyContactChange(GHashTable* map, const pp::ContactChange& change,
                                              const ContactsById& byId, int current,
                                              DeltaCounts& counts) {
    const auto found = byId.find(change.contactId);
    if (found == byId.end()) {
        LOGE("Invalid contact");
        return;
    }
    const pp::ContactSummary& contact = found->second;
    if (contact.personId < 1) {
        LOGE("Invalid person");
        return;
    }
    if (contact.displayName.empty()) {
        LOGE("No display name");
        return;
    }
    const int personId = contact.personId;
    ContactSyncInfo* info = lookup(map, personId);
    if (info == nullptr) {
        const bool removed = change.type == pp::CONTACTS_CHANGE_DELETED;
        if (removed && !mForcedCollection) {
            // Never uploaded (or already removed from the server): nothing to delete.
            LOGD("removed person[%d] was never synced, nothing to send", personId);
            return;
        }
        // A forced collection starts from an empty table, so it cannot tell a removal the
        // server never heard of from one it did: it sends the deletion (the server answers a
        // deletion of a missing document as done).
        info = new ContactSyncInfo;
        info->id = personId;
        info->contactId = personId;
        info->dirty = removed ? plm::DIRTY_DELETED : plm::DIRTY_INSERTED;
        info->version = current;
        info->newRow = true;
        put(map, info);
        ++(removed ? counts.deleted : counts.inserted);
    } else if (change.type == pp::CONTACTS_CHANGE_DELETED) {
        info->dirty = plm::DIRTY_DELETED;
        info->version = current;
        ++counts.deleted;
    } else if (info->version == current) {
        // Seen again at the version it was collected at (a replay or a retry): the entry keeps
        // its pending flag.
        LOGD("person[%d] already collected at version[%d], dirty[%d] kept", personId, current,
             info->dirty);
    } else {
        info->dirty = plm::DIRTY_UPDATED;
        info->version = current;
        info->id = personId;
        info->contactId = personId;
        ++counts.updated;
    }
}

int ContactsSyncHandler::_lookUpChangedContacts(GHashTable* map,
                                                const std::vector<pp::ContactChange>& changes,
                                                ContactsById& byId) {
    // Each contact a change record names, found by its id in the contact list, and the stored
    // rows of its person. Many records (a first or forced collection) read the list once.
    auto& contacts = pp::contactsService();
    if (changes.size() > kLookUpLimit) {
        std::vector<pp::ContactSummary> all;
        const int ret = contacts.getAllContacts(all);
        if (ret != pp::CONTACTS_ERROR_NONE && ret != pp::CONTACTS_ERROR_NO_DATA) {
            LOGE("contacts list next failed with ret[%d]", ret);
            return 1;
        }
        for (auto& c : all)
            byId.emplace(c.id, std::move(c));  // the first entry of an id wins, as in a walk
    } else {
        for (const auto& change : changes) {
            pp::ContactSummary summary;
            const int ret = contacts.getContactSummary(change.contactId, summary);
            if (ret == pp::CONTACTS_ERROR_NO_DATA)
                continue;  // not in the list: "Invalid contact" when the record is applied
            if (ret != pp::CONTACTS_ERROR_NONE) {
                LOGE("contacts list next failed with ret[%d]", ret);
                return 1;
            }
            byId.emplace(change.contactId, std::move(summary));
        }
    }
    std::set<int> personIds;
    for (const auto& change : changes) {
        const auto found = byId.find(change.contactId);
        if (found != byId.end() && found->second.personId >= 1)
            personIds.insert(found->second.personId);
    }
    if (_readStoredRows(map, personIds) != 0) {
        LOGE("Failed to read the stored contacts");
        return 1;
    }
    return 0;
}

int ContactsSyncHandler::_calcuDeltaSyncData(GHashTable* map) {
    LOGD("calculate delta - begin");
    int synced = 0;
    if (readSyncContactsDbVersion(synced) != pp::PREFERENCE_ERROR_NONE || synced < 0) {
        synced = 0;
    }

    auto& contacts = pp::contactsService();
    if (contacts.connectOnThread() != pp::CONTACTS_ERROR_NONE) {
        LOGE("contacts_connect_on_thread is failed");
        return 1;
    }

    DeltaCounts counts;
    int current = 0;
    std::vector<pp::ContactChange> changes;
    ContactsById byId;
    int result = _readContactChanges(synced, current, changes);
    if (result == 0)
        result = _lookUpChangedContacts(map, changes, byId);
    if (result == 0) {
        for (const auto& change : changes) {
            if (isInterrupted()) {
                LOGD("forced sync pending, delta calculation stopped");
                result = 2;
                break;
            }
            _applyContactChange(map, change, byId, current, counts);
        }
        if (result == 0)
            mReadVersion = current;
    }

    contacts.disconnectOnThread();
    LOGD("calculate delta end - insertedCnt[%d], updatedCnt[%d], deletedCnt[%d] - result[%d]",
         counts.inserted, counts.updated, counts.deleted, result);
    return result;
}

int ContactsSyncHandler::_writeNewSyncData(GHashTable* map) {
    LOGD("write new data - begin");
    int failedWrites = 0;
    bool interrupted = false;
    // The rows are written through statements prepared once, with bound values (the columns'
    // types turn the texts of numbers back into numbers), in one transaction.
    const bool committed = db()->runInTransaction([&](sqlite3* db) {
        pp::SqliteStatement insert(
            db, "INSERT INTO contacts (_id, contact_id, dirty, version) VALUES (?, ?, ?, ?)");
        pp::SqliteStatement update(
            db,
            "UPDATE contacts SET _id = ?1, contact_id = ?2, dirty = ?3, version = ?4 "
            "WHERE _id = ?1");
        interrupted = !visitUnlessInterrupted(map, [&](gpointer value) {
            const auto* info = static_cast<const ContactSyncInfo*>(value);
            if (info->dirty == plm::DIRTY_SYNCED)
                return;
            const std::string idText = std::to_string(info->id);
            pp::SqliteStatement* statement = nullptr;
            if (info->dirty == plm::DIRTY_INSERTED || info->newRow) {
                statement = &insert;
            } else if (info->dirty == plm::DIRTY_DELETED || info->dirty == plm::DIRTY_UPDATED) {
                statement = &update;
            } else {
                LOGW("unexpected dirty value %d for '%s', left alone", info->dirty, idText.c_str());
                return;
            }
            const bool written = statement->bind(1, idText)
                                     .bind(2, std::to_string(info->contactId))
                                     .bind(3, std::to_string(info->dirty))
                                     .bind(4, std::to_string(info->version))
                                     .runBound();
            if (!written) {
                LOGE("error in querying '%s'", idText.c_str());
                ++failedWrites;
            }
        });
        // Interrupted, or a failed write: the transaction is not committed, it rolls back.
        return !interrupted && failedWrites == 0;
    });
    if (interrupted) {
        LOGD("forced sync pending, write rolled back");
        LOGD("write new data - end");
        return 2;
    }
    LOGD("write new data - end");
    if (!committed) {
        // Nothing of this collection is kept: the stored version stays, so the next collection
        // reads the same changes again.
        // No failed write: the commit itself failed.
        LOGE("collection not stored: [%d] failed writes%s", failedWrites,
             failedWrites == 0 ? ", the commit failed" : "");
        return 1;
    }
    mCollectedVersion.store(mReadVersion);
    return 0;
}
