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
//
// Destruction: destroyInstance() raises the stop flag, wakes the worker out of every wait (queue,
// sync condition, retry pauses) and joins it before any member goes away; an upload call that is
// running finishes first (its own transfer time-outs bound that wait).
//
// Tests: setHooksForTesting() replaces the pauses, the upload handler, the composer, the calls to
// the domain handlers and the worker start, before the singleton is created.
#pragma once

#include <atomic>
#include <condition_variable>
#include <functional>
#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "SyncHandlers/SyncHandlerHost.h"
#include "upload/SyncData.h"

class BaseSyncHandler;
class DataUploadHandler;
class IntentMgr;
class MainObserver;
class NetworkMgr;
class PLMSyncManager;
class PrefMgr;
class SyncQueue;
class SyncLock;
class SyncResult;

// Replaceable collaborators of the sync manager. An empty member keeps the service's own choice.
struct PLMSyncManagerHooks {
    // The retry pauses (10 s after a failed open, 15 s after a failed close). Default: a wait
    // that the manager's destruction cuts short.
    std::function<void(int seconds)> sleep;
    // The upload handler, made on first use by composeAndSync. Default: a DataUploadHandler.
    std::function<std::unique_ptr<DataUploadHandler>(PLMSyncManager&)> makeUploadHandler;
    // Composes a domain: hands each body to sink as it is complete (stopping when the sink says
    // so) and returns the record (null: nothing to send). Default:
    // JSONComposer::makeSyncData(item, sink).
    std::function<std::unique_ptr<SyncData>(int item, const BodySink& sink)> makeSyncData;
    // requestSync(code) on a domain handler (3 contacts, 1 applications, 2 media). Default: the
    // contacts, application and media handlers.
    std::function<void(int domain, int code)> requestDomainSync;
    // The contacts handler's writeNewSyncContactsDbVersion(reset) after a contacts PDS close.
    std::function<void(bool reset)> writeContactsDbVersion;
    // Cancels the domain handlers' worker threads. Default: the contacts, application and media
    // handlers' stopWorker().
    std::function<void()> stopDomainWorkers;
    // Whether getInstance() starts the worker thread (tests of single steps leave it off).
    bool startWorker = true;
};

class PLMSyncManager : public SyncHandlerHost {
  public:
    // The results of the posts of one PDS session, owned by the list (deleted through the
    // virtual destructor when it lets go of them).
    using SyncResults = std::vector<std::unique_ptr<SyncResult>>;

    // The singleton, created on first call (which starts the worker thread).
    static PLMSyncManager* getInstance();
    // The singleton if it exists, else null (never creates it).
    static PLMSyncManager* peekInstance();
    // Deletes the singleton (through the virtual destructor) if it exists.
    static void destroyInstance();

    ~PLMSyncManager() override;

    // Queues and triggers.
    void addSyncItemToQueue(int item) override;
    void collectionFailed(int item) override;
    void collectionFoundNothing(int item) override;
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

    // Worker steps (the worker thread; tests call them directly with the worker off).
    // composeAndSync: true when every document of the item was posted and answered. Bodies are
    // posted as they are composed, two at a time, and released once answered; the session is
    // opened for the first one.
    bool composeAndSync(int item);
    // The idle work of the worker: close an open PDS session (with retries), apply the outcomes,
    // move a pending item back to syncQueue or run the exit check. The caller holds the sync lock.
    void closeSessionAndApplyOutcomes();
    // Server wipe and close, exceptions caught.
    void* pdssWipe(DataUploadHandler* handler, void* arg);
    void closePds(DataUploadHandler* handler);
    void handleSyncError();
    void pdsUploadStarted();
    void clearSyncResultList();

    // Inspection (tests and status dumps).
    std::vector<int> syncQueueItems();
    std::vector<int> pendingQueueItems();
    size_t syncResultCount();
    // Adds a result to the list as a post would (tests of the close path).
    void appendSyncResultForTesting(std::unique_ptr<SyncResult> result);

    static void setHooksForTesting(PLMSyncManagerHooks hooks);

  private:
    PLMSyncManager();
    void handleMessage();
    void _sleep(int seconds);
    void _requestDomainSync(int domain, int code);
    void _processSyncResults();

    // The steps of composeAndSync. One run per call, on the worker thread.
    struct UploadRun {
        int item = 0;
        DataUploadHandler* handler = nullptr;
        bool sessionTried = false;  // the open step ran (for the first body)
        bool sessionOpen = false;
        // Every body so far posted and answered; cleared by the body poster's threads, read by
        // the worker once the poster has finished.
        std::atomic<bool> allPosted{true};
    };
    std::unique_ptr<SyncData> _composeAndPost(UploadRun& run);
    // Opens the PDS session unless it is open (two attempts); on failure the item is failed.
    bool _openSessionFor(UploadRun& run);
    // Posts one body and keeps its result; false stops the composition. Runs on one of the body
    // poster's threads while the worker composes the next body; the session is open.
    bool _postBody(UploadRun& run, std::string body, const std::shared_ptr<SentRows>& sent);
    // Nothing was composed: the item is in step, or failed when rows could not be composed.
    void _nothingToSync(int item, const SyncData* syncData);
    bool _finishUpload(UploadRun& run, const SyncData* syncData);
    // Items of this session with a part not posted or a row not composed.
    void _markIncomplete(int item);
    std::set<int> _takeIncompleteItems();
    DataUploadHandler* _uploader();
    DataUploadHandler* _ensureUploader();
    bool _tryClose(DataUploadHandler* handler);
    bool _hasResultOf(int item);
    SyncResults _takeSyncResults();  // empties the list; the caller owns what it held
    // A domain handler that has a request queued or a collection running (it runs the exit check
    // itself when it is done).
    bool _anyDomainCollecting();
    // The handler of item 1, 2 or 3 (made on first use and marked as reached); null otherwise.
    BaseSyncHandler* _domainHandler(int domain);
    void _deleteDomainHandler(int domain);
    void _stopWorker();
    bool _workerShouldStop() const { return mStopping.load(); }

    std::mutex mApplicationLock;
    std::mutex mContactsLock;
    std::mutex mFourthDomainLock;
    std::mutex mMediaLock;

    PLMSyncManagerHooks mHooks;
    std::unique_ptr<PrefMgr> mPrefMgr;
    std::unique_ptr<MainObserver> mMainObserver;
    std::unique_ptr<NetworkMgr> mNetworkMgr;
    std::unique_ptr<IntentMgr> mIntentMgr;
    std::unique_ptr<DataUploadHandler> mDataUploadHandler;
    std::mutex mPrefMgrMutex;
    // Guards the upload-handler pointer (made on the worker, read from the main loop).
    mutable std::mutex mHandlerMutex;
    // Cuts the retry pauses short when the manager goes away.
    std::mutex mStopMutex;
    std::condition_variable mStopCondition;
    // The items with a domain handler, and whether each handler was reached (indexed by item), so
    // that shutdown stops and deletes only those.
    static constexpr int kHandlerDomains[] = {3, 1, 2};  // contacts, applications, media
    std::atomic<bool> mHandlerUsed[4] = {};

    std::unique_ptr<SyncQueue> mSyncQueue;
    std::unique_ptr<SyncQueue> mPendingQueue;
    std::unique_ptr<SyncLock> mSyncLock;
    // Owned SyncResult records, one per posted body; guarded by the sync lock or used by the
    // worker.
    SyncResults mSyncResults;
    std::mutex mSyncResultsMutex;
    std::set<int> mIncompleteItems;  // guarded by mSyncResultsMutex
    std::atomic<int> mCurrentItem{-1};
    std::atomic<bool> mPdsOpened{false};
    std::atomic<bool> mPendingResync{false};
    std::atomic<bool> mStopping{false};
    std::thread mWorker;
};
