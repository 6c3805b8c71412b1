// PLMSyncManager: the process-wide sync orchestrator.
//
// Observers and control requests ask it for syncs; it forwards difference (98) and forced (99)
// syncs to the domain handlers, keeps the queue of domains ready to upload (syncQueue) and the
// queue of domains that must wait for the current PDS close (pendingQueue), and runs one worker
// thread (handleMessage) that composes, opens the PDS session, posts, closes and applies the
// outcomes, then decides whether the service can end.
//
// Threads: the public entry points are called from the main-loop thread (control requests,
// observers, timers) and from the domain handlers' worker threads; the worker runs handleMessage.
// Locks, outermost first: the sync lock, then a queue lock; four domain locks (applications,
// contacts, item 11, media) are held while one domain is collected, or composed and posted.
// Ownership: a singleton created by getInstance() and destroyed only through destroyInstance()
// (the service's terminate paths). It owns the observers, the preference store, the network
// helper, the upload handler and the notification sender.
// Errors: logged; exceptions from the upload handler are caught here and never leave.
#pragma once

#include <functional>
#include <mutex>
#include <string>

#include "SyncHandlers/SyncHandlerHost.h"

class DataUploadHandler;
class IntentMgr;
class NetworkMgr;
class PrefMgr;

class PLMSyncManager : public SyncHandlerHost {
  public:
    // The singleton, created on first call (which starts the worker thread).
    static PLMSyncManager* getInstance();
    // The singleton if it exists, else null (never creates it).
    static PLMSyncManager* peekInstance();
    // Deletes the singleton (through the virtual destructor) if it exists.
    static void destroyInstance();

    ~PLMSyncManager() override;

    // Queues and triggers.
    void addSyncItemToQueue(int item) override;
    void trigger_sync(int code);
    void clearQueue();
    void clearServer();
    void check_for_process_exit();

    // Observer entry points.
    void media_changed();
    void contact_changed();
    void app_changed();
    void calllog_changed();
    void bookmark_changed();
    void cellular_changed();

    // Status keys of the master table.
    void set_sync_status(const char* key, const char* value) override;
    void update_preference_status_on_sync_fail(int item);
    void update_preference_status_on_pds_close(int item, bool conflict);
    void update_master_sync_pref_key();

    // Queries of the control-request handler.
    // A sync is in progress when the upload handler exists and its PDS session is open or its
    // close has not finished.
    bool isSyncInProgress();
    // Whether the domain (0 any, 1 applications, 2 media, 3 contacts) has a PLM id.
    bool hasPlmId(int domain);
    bool getPendingResync() const;
    void setPendingResync(bool pending);
    PrefMgr* getPrefMgr();
    IntentMgr* getIntentMgr();
    DataUploadHandler* getDataUploadHandler();

    // Domain locks: the lock of a sync item (1, 2, 3, 11), or null for items without one.
    std::mutex* getDomainLock(int item) override;

    // Cancels the worker threads of the contacts, application and media handlers.
    void stopHandlerThreads();

  private:
    PLMSyncManager();
};
