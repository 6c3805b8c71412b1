#include "SyncHandlers/BaseSyncHandler.h"

#include <stdexcept>
#include <system_error>

#include "PLMConstants.h"
#include "PelioLog.h"
#include "database/DbManager.h"
#include "upload/PLMSyncManager.h"
#include "utils/BundleMacro.h"

using pelio::platform::Bundle;

BaseSyncHandler::BaseSyncHandler(SyncHandlerHost* host)
    : mSyncManager(host != nullptr ? host : PLMSyncManager::getInstance()),
      mQueue(g_async_queue_new()) {
    if (db() != nullptr) {
        LOGD("DbManager::getInstance Success from BaseSyncHandler");
    }
}

BaseSyncHandler::~BaseSyncHandler() {
    stopWorker();
    mSyncManager = nullptr;
}

DbManager* BaseSyncHandler::db() {
    return DbManager::getInstance();
}

int BaseSyncHandler::initHandler() {
    return 0;
}

void BaseSyncHandler::_pushLocked(int syncType) {
    g_async_queue_push(mQueue.get(), GINT_TO_POINTER(syncType));
    mPendingType.store(syncType);
}

int BaseSyncHandler::_popLocked() {
    const int type = GPOINTER_TO_INT(g_async_queue_try_pop(mQueue.get()));
    mPendingType.store(0);  // the queue holds at most one request
    return type;
}

void BaseSyncHandler::_resetQueueLocked() {
    int count = 0;
    for (;;) {
        const int type = _popLocked();
        if (type == 0)
            break;
        LOGD("popped during reset[%d]", type);
        ++count;
    }
    LOGD("count is [%d]", count);
}

void BaseSyncHandler::resetQueue() {
    std::lock_guard<std::mutex> guard(mQueueLock);
    _resetQueueLocked();
}

int BaseSyncHandler::requestSync(int syncType) {
    LOGD("syncType[%d]", syncType);
    if (syncType < 1) {
        LOGE("Unknown sync type");
        return -1;
    }

    std::unique_lock<std::mutex> lock(mQueueLock, std::try_to_lock);
    if (!lock.owns_lock()) {
        LOGE("Failed to lock");
        return -1;
    }

    if (syncType == plm::SYNC_TYPE_FORCE) {
        _resetQueueLocked();
    }
    if (g_async_queue_length(mQueue.get()) <= 0) {
        _pushLocked(syncType);
    }
    const int length = g_async_queue_length(mQueue.get());

    // The worker ends only after finding the queue empty under this same lock, so a request
    // queued here is always seen by a running worker or by the one started below.
    bool started = false;
    const bool alreadyRunning = mWorkerRunning;
    if (!alreadyRunning) {
        if (mWorker.joinable()) {
            mWorker.join();  // a finished worker: it already gave up the lock for good
        }
        mStopRequested.store(false);  // a stop asked of an earlier worker is done with
        try {
            mWorker = std::thread(&BaseSyncHandler::handleSyncRequest, this);
            mWorkerRunning = true;
            started = true;
        } catch (const std::system_error& e) {
            LOGE("Failed to create thread: %s", e.what());
        }
    }
    lock.unlock();

    LOGD("queue length after request [%d]", length);
    if (!started) {
        if (alreadyRunning) {
            LOGD("thread already created");
        }
        return -1;
    }
    return 0;
}

bool BaseSyncHandler::isForcedPending() {
    return mPendingType.load() == plm::SYNC_TYPE_FORCE;
}

bool BaseSyncHandler::isInterrupted() {
    return mStopRequested.load() || isForcedPending();
}

bool BaseSyncHandler::visitUnlessInterrupted(GHashTable* map,
                                             const std::function<void(gpointer)>& visit) {
    GHashTableIter iter;
    gpointer value = nullptr;
    g_hash_table_iter_init(&iter, map);
    while (g_hash_table_iter_next(&iter, nullptr, &value)) {
        if (isInterrupted())
            return false;
        visit(value);
    }
    return true;
}

int BaseSyncHandler::queueLength() {
    std::lock_guard<std::mutex> guard(mQueueLock);
    return g_async_queue_length(mQueue.get());
}

bool BaseSyncHandler::isWorkerRunning() {
    std::lock_guard<std::mutex> guard(mQueueLock);
    return mWorkerRunning;
}

void BaseSyncHandler::stopWorker() {
    mStopRequested.store(true);
    std::thread worker;
    {
        std::lock_guard<std::mutex> guard(mQueueLock);
        if (mWorker.joinable() && mWorker.get_id() == std::this_thread::get_id()) {
            // Asked from inside syncData(): the worker ends after this request; the next
            // requestSync() joins it.
            return;
        }
        worker = std::move(mWorker);
    }
    if (worker.joinable()) {
        worker.join();
        LOGD("worker stopped");
    }
    mStopRequested.store(false);
}

void BaseSyncHandler::handleSyncRequest() {
    for (;;) {
        LOGD("waiting on queue");
        std::unique_lock<std::mutex> lock(mQueueLock);
        // Collecting from before the request leaves the queue, so that isCollecting() never reads
        // false in between.
        mCollecting.store(true);
        const int syncType = mStopRequested.load() ? 0 : _popLocked();
        if (syncType == 0) {
            mCollecting.store(false);
            mWorkerRunning = false;
            lock.unlock();
            LOGD("thread exited");
            return;
        }
        LOGD("popped[%d], syncDomain[%d]", syncType, mDomainId);
        lock.unlock();

        int ret;
        {
            std::mutex* domainLock =
                mSyncManager != nullptr ? mSyncManager->getDomainLock(mDomainId) : nullptr;
            std::unique_lock<std::mutex> domainGuard;
            if (domainLock != nullptr) {
                domainGuard = std::unique_lock<std::mutex>(*domainLock);
            }
            ret = syncData(syncType);
        }
        LOGD("Sync type called from base[%d], ret[%d]", syncType, ret);

        if (ret == 0) {
            LOGD("Sync type called from base[%d]", syncType);
            // The collecting domains have a status key; bookmarks (5) and item 11 have none here.
            const char* key =
                mDomainId == plm::SYNC_ITEM_BOOKMARKS ? nullptr : plm::statusKeyOf(mDomainId);
            if (key == nullptr)
                LOGD("BaseSyncHandler else case");
            if (mSyncManager != nullptr && key != nullptr)
                mSyncManager->set_sync_status(key, plm::STATUS_WAITING);
            // The domain is marked waiting, which holds the exit off from here on; the upload
            // of the queued item runs the exit check when it is done, and must not find this
            // handler still collecting then.
            mCollecting.store(false);
            if (mSyncManager != nullptr)
                mSyncManager->addSyncItemToQueue(mDomainId);
        } else if (ret == 2) {
            LOGD("Nothing to be done for the domain[%d]", mDomainId);
            mCollecting.store(false);
            if (mSyncManager != nullptr)
                mSyncManager->collectionFoundNothing(mDomainId);
        } else {
            LOGE("Sync failed for domain[%d]", mDomainId);
            mCollecting.store(false);
            if (mSyncManager != nullptr)
                mSyncManager->collectionFailed(mDomainId);
        }
    }
}

int BaseSyncHandler::selectAll(const std::string& table, const std::string& projection,
                               Bundle* result) {
    Bundle request;
    request.addStr(bundlekeys::OPERATION_KEY, bundlekeys::OP_SELECT);
    request.addStr(bundlekeys::URI_TABLE_NAME, table);
    request.addStr(bundlekeys::PROJECTION, projection);
    return db()->plmsvc_db_process(&request, result);
}

int BaseSyncHandler::markAllForResend(const std::string& table) {
    Bundle request;
    Bundle result;
    request.addStr(bundlekeys::OPERATION_KEY, bundlekeys::OP_UPDATE);
    request.addStr(bundlekeys::URI_TABLE_NAME, table);
    request.addStr(bundlekeys::WHERE,
                   std::string("dirty != ") + plm::dirtyText(plm::DIRTY_DELETED));
    request.addStr(bundlekeys::COLUMN_COUNT, "1");
    request.addStr(columnKey(1), "dirty");
    request.addStr("dirty", plm::dirtyText(plm::DIRTY_INSERTED));
    return db()->plmsvc_db_process(&request, &result);
}

int BaseSyncHandler::deleteAll(const std::string& table) {
    Bundle request;
    Bundle result;
    request.addStr(bundlekeys::OPERATION_KEY, bundlekeys::OP_DELETE);
    request.addStr(bundlekeys::URI_TABLE_NAME, table);
    request.addStr(bundlekeys::WHERE, "1=1");
    return db()->plmsvc_db_process(&request, &result);
}

std::string BaseSyncHandler::formatFixedWidthId(const std::string& prefix,
                                                const std::string& idText, size_t width) {
    if (idText.size() > width) {
        throw std::logic_error("id '" + idText + "' does not fit in " + std::to_string(width) +
                               " characters");
    }
    std::string id = prefix + std::string(width, '0');
    id.resize(width);
    id.replace(width - idText.size(), idText.size(), idText);
    return id;
}

std::string BaseSyncHandler::decodeDocumentId(const std::string& documentId) {
    constexpr size_t kPrefixLength = 4;
    if (documentId.size() <= kPrefixLength) {
        return "";
    }
    const size_t first = documentId.find_first_not_of('0', kPrefixLength);
    if (first == std::string::npos) {
        return "";
    }
    return documentId.substr(first);
}
