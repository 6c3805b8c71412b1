// BaseSyncHandler: abstract base of the per-domain collectors. Each handler owns a one-deep
// request queue and at most one worker thread, started on demand by requestSync(). The worker
// runs the domain's syncData() under the domain's lock of the sync manager and reports the outcome
// to the sync manager (status "0" and addSyncItemToQueue when there is something to upload).
//
// Queue rules: the queue never holds more than one request. A difference request (98, or any
// other type >= 1) is queued only when the queue is empty; a forced request (99) empties the queue
// and takes its place. A request that finds the queue lock busy is dropped ("Failed to lock").
//
// Worker: a std::thread. The decision "queue empty, the worker ends" and the decision "no worker
// runs, start one" are both taken under the queue lock, so a request never stays queued without a
// worker and there is never more than one worker per handler. A finished worker's thread object
// is joined by the next requestSync() (it has nothing left to do but return) or by stopWorker().
// stopWorker() is cooperative: it raises a stop flag that the worker checks before taking the next
// request (collectors also see it through isInterrupted()), then joins the thread. It must not be
// called while holding this domain's lock of the sync manager (the worker may be waiting for it).
//
// Threads: requestSync(), isForcedPending(), stopWorker() from any thread (main loop, sync worker,
// the handler's own worker); syncData() runs on the handler's own worker thread.
// Ownership: handlers are created by their domain's getInstance() and live for the whole run; the
// host (sync manager) outlives them. Every concrete handler's destructor must call stopWorker()
// first (the worker calls the virtual syncData()); the base destructor does it again as a backstop.
// Errors: return values and log lines; nothing here throws except formatFixedWidthId().
#pragma once

#include <glib.h>

#include <atomic>
#include <cstddef>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <thread>

#include <pelio/CHandles.h>
#include <pelio/platform/Bundle.h>

#include "SyncHandlers/SyncHandlerHost.h"

class DbManager;

class BaseSyncHandler {
  public:
    // host: the sync manager (PLMSyncManager::getInstance()) unless a test hands in its own.
    explicit BaseSyncHandler(SyncHandlerHost* host = nullptr);
    virtual ~BaseSyncHandler();

    BaseSyncHandler(const BaseSyncHandler&) = delete;
    BaseSyncHandler& operator=(const BaseSyncHandler&) = delete;

    // 0 when there is something to upload, 2 when there is nothing to do, other values on failure.
    virtual int syncData(int syncType) = 0;

    int initHandler();
    // 0 when it started a worker; -1 otherwise (also when the request was queued for a running
    // worker, rejected (type < 1) or dropped because the queue was busy).
    int requestSync(int syncType);
    // Pops every queued request.
    void resetQueue();
    // True when a request is queued and it is a forced one (99).
    bool isForcedPending();
    // Stops the worker (if any) after its current request and joins it. The queued request, if
    // any, stays queued for the next worker.
    void stopWorker();

    // Introspection (tests, the sync manager's diagnostics).
    int queueLength();
    // A request is queued or its collection is running (reporting its outcome does not count).
    bool isCollecting() const { return mCollecting.load() || mPendingType.load() != 0; }
    bool isWorkerRunning();
    int domainId() const { return mDomainId; }

    // Fixed-width document id: prefix followed by zeros, cut to width, with the decimal id text
    // overwriting its tail. Throws std::logic_error when the id text is longer than width.
    static std::string formatFixedWidthId(const std::string& prefix, const std::string& idText,
                                          size_t width);
    // The row id inside a document id: the text after the four-character prefix without leading
    // zeros ("con_00000057" -> "57"). Inverts formatFixedWidthId for four-character prefixes and
    // ids that fit in the width (8 digits at width 12). A text of four characters or less, or
    // all zeros after the prefix, gives "".
    static std::string decodeDocumentId(const std::string& documentId);

  protected:
    int selectAll(const std::string& table, const std::string& projection,
                  pelio::platform::Bundle* result);
    int deleteAll(const std::string& table);
    // A forced sync: every row but a pending deletion is sent again as an insert (dirty 1). The
    // rows and their revisions stay, so an item removed since the last sync still ends as a
    // deletion on the server, and inserts carry no revision, so the server takes them whether it
    // kept the documents or lost its database.
    int markAllForResend(const std::string& table);
    // The worker's body: drains the queue, one syncData() per request.
    void handleSyncRequest();
    // What collectors poll between rows of long loops: a forced request is waiting, or the worker
    // is asked to stop. Either way they roll back and return 2.
    virtual bool isInterrupted();
    // Calls visit(value) for every value of map, asking isInterrupted() before each; false (and
    // no more visits) once it says so.
    bool visitUnlessInterrupted(GHashTable* map, const std::function<void(gpointer)>& visit);

    // The database manager, looked up on every use (so a test that resets the store singleton
    // never leaves a handler with a stale pointer).
    static DbManager* db();

    SyncHandlerHost* mSyncManager = nullptr;
    int mDomainId = -1;

  private:
    // Under mQueueLock: keeps mPendingType in step with the queue content.
    void _pushLocked(int syncType);
    int _popLocked();  // 0 when empty
    void _resetQueueLocked();

    std::mutex mQueueLock;
    pelio::GAsyncQueuePtr mQueue;
    // The queued request type (0: none). Written under mQueueLock, read without it, so that
    // collectors polling isForcedPending() never make requestSync() find the lock busy.
    std::atomic<int> mPendingType{0};

    std::thread mWorker;          // guarded by mQueueLock
    bool mWorkerRunning = false;  // guarded by mQueueLock
    std::atomic<bool> mStopRequested{false};
    std::atomic<bool> mCollecting{false};
};
