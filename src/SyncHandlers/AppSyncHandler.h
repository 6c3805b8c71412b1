// AppSyncHandler: the applications domain collector (sync item 1). Its syncData() reads the
// installed applications from the package manager (entries without the no-display property),
// adds the contacts and task-manager applications when they are missing, compares them with the
// "application" shadow table and records the differences as dirty flags: 1 insert, 3 update,
// 2 for an application that is gone from the device. The application composer turns the rows
// whose flag is not 4 into documents.
//
// Decisions, per package name:
// - new on the device: a row at dirty 1;
// - present with the same name, version and preload flag: the row is left as it is (a pending
//   insert or update stays pending); a row at dirty 2 (removal not yet confirmed) comes back as
//   3 when it has a revision, else as 1;
// - present with other texts: the row takes them; dirty 3 when the server has the document
//   (a revision), else it stays 1;
// - gone from the device: dirty 2 when the server has the document; a row never uploaded
//   (no revision) is removed locally and nothing is sent.
//
// Persisted state: master key "APP_SYNC_STATUS_P", the "application" table.
// Threads: syncData() runs on this handler's worker thread under the sync manager's application
// lock. Ownership: a process-wide singleton (getInstance / deleteInstance).
// Errors: syncData() returns 0 when something is to be sent or the domain is not in step yet
// (the composer settles it), 2 when there is nothing to do (the status is written back as it
// was) or when interrupted by a forced request or a stop (the write transaction rolls back),
// 1 when the table could not be read; all failures are logged.
#pragma once

#include <functional>
#include <memory>
#include <mutex>
#include <string>

#include <pelio/platform/Bundle.h>

#include "SyncHandlers/BaseSyncHandler.h"
#include "database/DirtyFlag.h"

// One application, as collected or as stored.
struct AppSyncInfo {
    std::string id;  // "_id": the package name
    std::string revId;
    std::string version;
    std::string name;
    std::string customId;
    std::string package;
    int preInstalled = 0;
    int dirty = plm::DIRTY_INSERTED;
    bool stored = false;   // a row exists in the table
    bool present = false;  // found on the device in this collection
};

class AppSyncHandler : public BaseSyncHandler {
  public:
    static constexpr const char* kTable = "application";
    static constexpr const char* kContactsApp = "com.quorvin.w-contacts2";
    static constexpr const char* kTaskManagerApp = "com.quorvin.w-taskmanager";
    // Rows per SELECT: a page of eight columns stays within the row-transfer bound.
    static constexpr int kReadPageRows = 450;

    static AppSyncHandler* getInstance();
    static void deleteInstance();

    explicit AppSyncHandler(SyncHandlerHost* host);
    ~AppSyncHandler() override;

    int syncData(int syncType) override;

    // Reads the "application" rows matching where ("" for all) page by page (KeysetReader: COL0
    // is the rowid, the projection's columns follow from COL1) and hands each row to onRow.
    // 0, or -1 when a query failed (rows already handed over stay handed over).
    static int forEachApplicationRow(
        const std::string& projection, const std::string& where,
        const std::function<void(const pelio::platform::Bundle&)>& onRow);

  private:
    using SyncMap = pelio::GHashTablePtr;

    // Loads the stored rows into map; sets mPending when one of them is not in step.
    int _readStoredApps(GHashTable* map);
    void _collectInstalledApps(GHashTable* map);
    void _applyRecord(GHashTable* map, std::unique_ptr<AppSyncInfo> fresh);
    int _writeNewSyncData(GHashTable* map);

    bool mPending = false;  // this collection left something to send (worker thread only)
};

// Value-free function of the application map.
void free_app_info(gpointer info);
