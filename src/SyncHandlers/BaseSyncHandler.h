// BaseSyncHandler: abstract base of the per-domain collectors. Each handler owns a one-deep
// request queue and at most one worker thread, started on demand by requestSync(). The worker
// runs the domain's syncData() under the domain's lock of the sync manager and reports the outcome
// to the sync manager (status "0" and addSyncItemToQueue when there is something to upload).
//
// Threads: requestSync() from any thread (main loop, sync worker); syncData() on the handler's
// own worker thread. Ownership: handlers are created by their domain's getInstance() and live for
// the whole run.
#pragma once

#include <glib.h>

#include <atomic>
#include <mutex>
#include <string>
#include <thread>

#include <pelio/platform/Bundle.h>

#include "SyncHandlers/SyncHandlerHost.h"

class DbManager;

class BaseSyncHandler {
public:
    // host: the sync manager (PLMSyncManager::getInstance()) unless a test hands in its own.
    explicit BaseSyncHandler(SyncHandlerHost* host = nullptr);
    virtual ~BaseSyncHandler();

    // 0 when there is something to upload, 2 when there is nothing to do, other values on failure.
    virtual int syncData(int syncType) = 0;

    int initHandler();
    // 0 when it started a worker; -1 otherwise (also when the request was queued for a running
    // worker, or dropped because the queue was busy).
    int requestSync(int syncType);
    void resetQueue();
    bool isForcedPending();
    void stopWorker();

    // Fixed-width document id: prefix followed by zeros, cut to width, with the decimal id text
    // overwriting its tail. Throws std::logic_error when the id text is longer than width.
    static std::string formatFixedWidthId(const std::string& prefix, const std::string& idText,
                                          size_t width);
    // The row id inside a document id: the text after the four-character prefix without leading
    // zeros.
    static std::string decodeDocumentId(const std::string& documentId);

protected:
    int selectAll(const std::string& table, const std::string& projection,
                  pelio::platform::Bundle* result);
    int deleteAll(const std::string& table);
    void handleSyncRequest();

    SyncHandlerHost* mSyncManager = nullptr;
    int mDomainId = -1;
    DbManager* mDbManager = nullptr;
};
