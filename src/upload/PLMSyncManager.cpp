#include "upload/PLMSyncManager.h"

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <optional>
#include <set>

#include <pelio/platform/Preferences.h>
#include <pelio/platform/ServiceApp.h>

#include "PLMConstants.h"
#include "PelioLog.h"
#include "SyncHandlers/AppSyncHandler.h"
#include "SyncHandlers/ContactsSyncHandler.h"
#include "SyncHandlers/MediaSyncHandler.h"
#include "composer/JSONComposer.h"
#include "database/DbManager.h"
#include "intent/IntentMgr.h"
#include "network/NetworkMgr.h"
#include "observers/CellularObserver.h"
#include "observers/MainObserver.h"
#include "pref/PrefMgr.h"
#include "upload/BodyPoster.h"
#include "upload/DataUploadHandler.h"
#include "upload/PLMSyncMasterTable.h"
#include "upload/SyncData.h"
#include "upload/SyncLock.h"
#include "upload/SyncOutcomeProcessor.h"
#include "upload/SyncQueue.h"
#include "upload/SyncResult.h"
#include "utils/PLMUtils.h"
#include "utils/PathConfig.h"

namespace {

constexpr int kOpenRetryPauseSeconds = 10;
constexpr int kCloseRetryPauseSeconds = 15;
constexpr int kPdsAttempts = 2;
constexpr int kPdsResultBlocked = 13;
constexpr int kPdsResultSyncBlocked = 23;
constexpr const char* kUnknownPlmId = "Unknown";
// Bodies on the wire at once: while one waits for the server's answers, the next one's parts
// already travel, so the database is not idle between two bodies.
constexpr int kBodiesInFlight = 2;

std::mutex gInstanceMutex;
std::atomic<PLMSyncManager*> gInstance{nullptr};
std::mutex gHooksMutex;
PLMSyncManagerHooks gHooks;

// The stored status of key; ok is false when the read failed (the value is then absent).
std::string readStatus(const char* key, bool& ok) {
    char* value = nullptr;
    ok = master_get_string(key, &value) == 0;
    std::string result = value != nullptr ? value : "";
    std::free(value);
    return result;
}

// Reads a result's reply into its answers and releases the text; a reply that is no JSON array
// is marked unreadable.
void readReply(SyncResult& result) {
    if (SyncOutcomeProcessor::readAnswers(result.jsonResponse, result.answers)) {
        result.reply = SyncResult::Reply::Read;
        std::string().swap(result.jsonResponse);
    } else {
        result.reply = SyncResult::Reply::Unreadable;
    }
}

}  // namespace

// ---------------------------------------------------------------------------------------------
// Singleton

PLMSyncManager* PLMSyncManager::getInstance() {
    std::lock_guard<std::mutex> guard(gInstanceMutex);
    PLMSyncManager* instance = gInstance.load();
    if (instance != nullptr)
        return instance;
    instance = new PLMSyncManager();
    gInstance.store(instance);
    if (instance->mHooks.startWorker && !instance->mWorker.joinable()) {
        instance->mWorker = std::thread([instance] {
            if (!instance->_workerShouldStop())
                instance->handleMessage();
        });
    }
    return instance;
}

PLMSyncManager* PLMSyncManager::peekInstance() {
    return gInstance.load();
}

void PLMSyncManager::destroyInstance() {
    PLMSyncManager* instance = nullptr;
    {
        std::lock_guard<std::mutex> guard(gInstanceMutex);
        instance = gInstance.load();
    }
    if (instance == nullptr)
        return;
    // Stop the worker while the instance is still reachable: a worker that asks for the manager
    // meanwhile gets this one, not a new one.
    instance->_stopWorker();
    {
        std::lock_guard<std::mutex> guard(gInstanceMutex);
        gInstance.store(nullptr);
    }
    delete instance;
}

void PLMSyncManager::setHooksForTesting(PLMSyncManagerHooks hooks) {
    std::lock_guard<std::mutex> guard(gHooksMutex);
    gHooks = std::move(hooks);
}

PLMSyncManager::PLMSyncManager() {
    {
        std::lock_guard<std::mutex> guard(gHooksMutex);
        mHooks = gHooks;
    }
    PathConfig::MakeAppSubDir();
    mPrefMgr = std::make_unique<PrefMgr>();
    mPrefMgr->init();
    DbManager::getInstance();
    LOGD("DbManager::getInstance created successfully from PLMSyncManager");
    mMainObserver = std::make_unique<MainObserver>();
    mMainObserver->register_all_observers();
    CellularObserver::register_cellular_observer();
    mNetworkMgr = std::make_unique<NetworkMgr>();
    mNetworkMgr->init();
    mIntentMgr = std::make_unique<IntentMgr>();

    mSyncQueue = std::make_unique<SyncQueue>();
    mPendingQueue = std::make_unique<SyncQueue>();
    mSyncLock = std::make_unique<SyncLock>();
}

void PLMSyncManager::_stopWorker() {
    mStopping.store(true);
    {
        // A transfer stuck on a silent server must not hold the stop up.
        std::lock_guard<std::mutex> guard(mHandlerMutex);
        if (mDataUploadHandler)
            mDataUploadHandler->cancelTransfers();
    }
    {
        std::lock_guard<std::mutex> guard(mStopMutex);
        mStopCondition.notify_all();
    }
    if (mSyncLock) {
        SyncLockGuard guard(*mSyncLock);
        mSyncLock->broadcast();
    }
    if (mSyncQueue)
        mSyncQueue->wakeAll();
    if (mWorker.joinable()) {
        if (mWorker.get_id() == std::this_thread::get_id()) {
            mWorker.detach();  // destroyed from its own thread: it ends when it returns
        } else {
            mWorker.join();
        }
    }
}

PLMSyncManager::~PLMSyncManager() {
    _stopWorker();
    stopHandlerThreads();
    // The domain handlers keep a pointer to their host: they go with the manager, and a manager
    // made later (a request after CLEAR_SERVER) gets fresh ones.
    if (!mHooks.stopDomainWorkers) {
        for (int domain : kHandlerDomains) {
            if (mHandlerUsed[domain].load())
                _deleteDomainHandler(domain);
        }
    }
    CellularObserver::unregister_cellular_observer();
    if (mMainObserver)
        mMainObserver->unregister_all_observers();
    mMainObserver.reset();
    {
        std::lock_guard<std::mutex> guard(mSyncResultsMutex);
        mSyncResults.clear();
    }
    {
        std::lock_guard<std::mutex> guard(mHandlerMutex);
        mDataUploadHandler.reset();
    }
    if (mNetworkMgr)
        mNetworkMgr->deInit();
}

// ---------------------------------------------------------------------------------------------
// Collaborators

void PLMSyncManager::_sleep(int seconds) {
    if (mHooks.sleep) {
        mHooks.sleep(seconds);
        return;
    }
    std::unique_lock<std::mutex> lock(mStopMutex);
    mStopCondition.wait_for(lock, std::chrono::seconds(seconds),
                            [this] { return mStopping.load(); });
}

void PLMSyncManager::_requestDomainSync(int domain, int code) {
    if (mHooks.requestDomainSync) {
        mHooks.requestDomainSync(domain, code);
        return;
    }
    if (BaseSyncHandler* handler = _domainHandler(domain))
        handler->requestSync(code);
}

BaseSyncHandler* PLMSyncManager::_domainHandler(int domain) {
    BaseSyncHandler* handler = nullptr;
    switch (domain) {
        case plm::SYNC_ITEM_CONTACTS:
            handler = ContactsSyncHandler::getInstance();
            break;
        case plm::SYNC_ITEM_APPLICATION:
            handler = AppSyncHandler::getInstance();
            break;
        case plm::SYNC_ITEM_MEDIA:
            handler = MediaSyncHandler::getInstance();
            break;
        default:
            return nullptr;
    }
    mHandlerUsed[domain].store(true);
    return handler;
}

void PLMSyncManager::_deleteDomainHandler(int domain) {
    switch (domain) {
        case plm::SYNC_ITEM_CONTACTS:
            ContactsSyncHandler::deleteInstance();
            break;
        case plm::SYNC_ITEM_APPLICATION:
            AppSyncHandler::deleteInstance();
            break;
        case plm::SYNC_ITEM_MEDIA:
            MediaSyncHandler::deleteInstance();
            break;
        default:
            break;
    }
}

void PLMSyncManager::stopHandlerThreads() {
    if (mHooks.stopDomainWorkers) {
        mHooks.stopDomainWorkers();
        return;
    }
    for (int domain : kHandlerDomains) {
        if (mHandlerUsed[domain].load())
            _domainHandler(domain)->stopWorker();
    }
}

DataUploadHandler* PLMSyncManager::_uploader() {
    std::lock_guard<std::mutex> guard(mHandlerMutex);
    return mDataUploadHandler.get();
}

DataUploadHandler* PLMSyncManager::_ensureUploader() {
    std::lock_guard<std::mutex> guard(mHandlerMutex);
    if (!mDataUploadHandler) {
        if (mHooks.makeUploadHandler) {
            mDataUploadHandler = mHooks.makeUploadHandler(*this);
        } else {
            mDataUploadHandler = std::make_unique<DataUploadHandler>(
                mIntentMgr.get(), mNetworkMgr.get(), [this] { clearQueue(); });
        }
    }
    return mDataUploadHandler.get();
}

DataUploadHandler* PLMSyncManager::getDataUploadHandler() {
    return _uploader();
}

PrefMgr* PLMSyncManager::getPrefMgr() {
    std::lock_guard<std::mutex> guard(mPrefMgrMutex);
    if (!mPrefMgr)
        mPrefMgr = std::make_unique<PrefMgr>();
    return mPrefMgr.get();
}

IntentMgr* PLMSyncManager::getIntentMgr() {
    return mIntentMgr.get();
}

std::mutex* PLMSyncManager::getDomainLock(int item) {
    switch (item) {
        case plm::SYNC_ITEM_APPLICATION:
            return &mApplicationLock;
        case plm::SYNC_ITEM_MEDIA:
            return &mMediaLock;
        case plm::SYNC_ITEM_CONTACTS:
            return &mContactsLock;
        case plm::SYNC_ITEM_FOURTH_DOMAIN:
            return &mFourthDomainLock;
        default:
            return nullptr;
    }
}

// ---------------------------------------------------------------------------------------------
// Queues and triggers

PLMSyncManager::SyncResults PLMSyncManager::_takeSyncResults() {
    std::lock_guard<std::mutex> guard(mSyncResultsMutex);
    SyncResults taken;
    taken.swap(mSyncResults);
    return taken;
}

bool PLMSyncManager::_hasResultOf(int item) {
    std::lock_guard<std::mutex> guard(mSyncResultsMutex);
    for (const auto& result : mSyncResults) {
        if (result->itemType == item)
            return true;
    }
    return false;
}

void PLMSyncManager::addSyncItemToQueue(int item) {
    LOGD("syncItem[%d]", item);
    if (!mSyncQueue) {
        LOGE("syncQueue is not ready");
        return;
    }
    SyncLockGuard guard(*mSyncLock);
    if (mSyncQueue->contains(item)) {
        mSyncLock->signal();
        return;
    }
    if (_hasResultOf(item)) {
        LOGD("pendingQueue: Add syncItem[%d] to pendingQueue", item);
        if (!mPendingQueue->contains(item))
            mPendingQueue->append(item);
    } else {
        mSyncQueue->append(item);
    }
    mSyncLock->signal();
}

void PLMSyncManager::trigger_sync(int code) {
    LOGD("syncType[%d]", code);
    if (code == plm::SYNC_TYPE_FORCE || code == 100) {
        PrefMgr prefs;
        prefs.set(plm::PREF_APP_SYNCED_PLM_ID, "");
        prefs.set(plm::PREF_CONTACT_SYNCED_PLM_ID, "");
        prefs.set(plm::PREF_MEDIA_SYNCED_PLM_ID, "");
    }
    _requestDomainSync(plm::SYNC_ITEM_CONTACTS, code);
    _requestDomainSync(plm::SYNC_ITEM_APPLICATION, code);
    _requestDomainSync(plm::SYNC_ITEM_MEDIA, code);
}

void PLMSyncManager::clearQueue() {
    mSyncQueue->clear();
    mPendingQueue->clear();
    addSyncItemToQueue(plm::SYNC_ITEM_APPLICATION);
    addSyncItemToQueue(plm::SYNC_ITEM_CONTACTS);
    addSyncItemToQueue(plm::SYNC_ITEM_MEDIA);
}

void PLMSyncManager::collectionFailed(int item) {
    if (plm::statusKeyOf(item) == nullptr)
        return;
    update_preference_status_on_sync_fail(item);
    if (!_workerShouldStop())
        check_for_process_exit();
}

void PLMSyncManager::collectionFoundNothing(int /*item*/) {
    // A request that found nothing anywhere must still let the service end; the check keeps it
    // running while any domain is waiting or uploading.
    if (!_workerShouldStop())
        check_for_process_exit();
}

bool PLMSyncManager::_anyDomainCollecting() {
    for (int domain : kHandlerDomains) {
        if (mHandlerUsed[domain].load() && _domainHandler(domain)->isCollecting()) {
            LOGD("domain [%d] is still collecting", domain);
            return true;
        }
    }
    return false;
}

void PLMSyncManager::clearServer() {
    set_sync_status(plm::MEDIA_SYNC_STATUS_P, plm::STATUS_WAITING);
    set_sync_status(plm::CONTACTS_SYNC_STATUS_P, plm::STATUS_WAITING);
    set_sync_status(plm::APP_SYNC_STATUS_P, plm::STATUS_WAITING);
    PrefMgr* prefs = getPrefMgr();
    prefs->set(plm::PREF_SYNC_SYSTEM_VERSION, "");
    DataUploadHandler* handler = _ensureUploader();
    handler->setSucceededLatestPLMId("");
    handler->setLastApplicationPlmId("");
    handler->setLastContactPlmId("");
    handler->setLastMediaPlmId("");
    // The setters ignore an empty id; the server's data is gone, so the stored ids are forgotten
    // here: CHECK_PLM_ID answers "-1" and the next id is announced to the voice app again.
    for (const char* key : {plm::PREF_PLM_ID, plm::PREF_APP_SYNCED_PLM_ID,
                            plm::PREF_CONTACT_SYNCED_PLM_ID, plm::PREF_MEDIA_SYNCED_PLM_ID}) {
        pelio::platform::preferences().setString(key, "");
    }
    prefs->set(plm::PLMConstants::IS_FORCE, false);
}

std::vector<int> PLMSyncManager::syncQueueItems() {
    return mSyncQueue->items();
}

std::vector<int> PLMSyncManager::pendingQueueItems() {
    return mPendingQueue->items();
}

size_t PLMSyncManager::syncResultCount() {
    std::lock_guard<std::mutex> guard(mSyncResultsMutex);
    return mSyncResults.size();
}

void PLMSyncManager::appendSyncResultForTesting(std::unique_ptr<SyncResult> result) {
    std::lock_guard<std::mutex> guard(mSyncResultsMutex);
    mSyncResults.push_back(std::move(result));
}

// ---------------------------------------------------------------------------------------------
// Observer entry points

void PLMSyncManager::media_changed() {
    set_sync_status(plm::MEDIA_SYNC_STATUS_P, plm::STATUS_WAITING);
    _requestDomainSync(plm::SYNC_ITEM_MEDIA, plm::SYNC_TYPE_DIFF);
}

void PLMSyncManager::contact_changed() {
    set_sync_status(plm::CONTACTS_SYNC_STATUS_P, plm::STATUS_WAITING);
    _requestDomainSync(plm::SYNC_ITEM_CONTACTS, plm::SYNC_TYPE_DIFF);
}

void PLMSyncManager::app_changed() {
    set_sync_status(plm::APP_SYNC_STATUS_P, plm::STATUS_WAITING);
    _requestDomainSync(plm::SYNC_ITEM_APPLICATION, plm::SYNC_TYPE_DIFF);
}

void PLMSyncManager::calllog_changed() {
    LOGD("calllog_changed");
}

void PLMSyncManager::bookmark_changed() {
    LOGD("bookmark_changed");
}

void PLMSyncManager::cellular_changed() {
    bool ok = true;
    const std::string all = readStatus(plm::ALL_SYNC_STATUS_P, ok);
    if (!ok && all == plm::STATUS_SYNCED) {
        LOGE("failed to get ALL_SYNC_STATUS_P");
        return;
    }
    readStatus(plm::BOOKMARKS_SYNC_STATUS_P, ok);
    if (!ok)
        LOGE("failed to get BOOKMARKS_SYNC_STATUS_P");

    struct Domain {
        const char* key;
        const char* failure;
        int item;
    };
    const Domain domains[] = {
        {plm::CONTACTS_SYNC_STATUS_P, "failed to get CONTACTS_SYNC_STATUS_P",
         plm::SYNC_ITEM_CONTACTS},
        {plm::APP_SYNC_STATUS_P, "failed to get APP_SYNC_STATUS_P", plm::SYNC_ITEM_APPLICATION},
        {plm::MEDIA_SYNC_STATUS_P, "failed to get MEDIA_SYNC_STATUS_P", plm::SYNC_ITEM_MEDIA},
    };
    for (const Domain& domain : domains) {
        const std::string value = readStatus(domain.key, ok);
        if (!ok)
            LOGE("%s", domain.failure);
        if (value == plm::STATUS_WAITING)
            _requestDomainSync(domain.item, plm::SYNC_TYPE_DIFF);
    }
}

// ---------------------------------------------------------------------------------------------
// Status keys

void PLMSyncManager::set_sync_status(const char* key, const char* value) {
    if (key == nullptr || key[0] == '\0') {
        LOGE("Invalid Key string");
        return;
    }
    if (value == nullptr || value[0] == '\0') {
        LOGE("Invalid val string");
        return;
    }
    int rc = master_set_string(key, value);
    if (rc != 0)
        LOGE("Error with master_set_string to key[%s] with code [%d]", key, rc);
    rc = master_set_string(plm::ALL_SYNC_STATUS_P, plm::STATUS_WAITING);
    if (rc != 0)
        LOGE("Error with master_set_string to all sync state with code [%d]", rc);
}

void PLMSyncManager::update_preference_status_on_sync_fail(int item) {
    const char* key = plm::statusKeyOf(item);
    if (key == nullptr) {
        LOGE("Not supported key value");
        return;
    }
    master_set_string(key, plm::STATUS_FAILED);
    update_master_sync_pref_key();
}

void PLMSyncManager::update_preference_status_on_pds_close(int item, bool conflict) {
    const char* key = plm::statusKeyOf(item);
    if (key == nullptr) {
        LOGE("Not supported key value");
        return;
    }
    if (item == plm::SYNC_ITEM_CONTACTS) {
        // A forced collection has now been uploaded and closed (or found nothing to send): later
        // syncs are differential, opened unforced, from the stored version.
        pelio::platform::preferences().setBoolean(plm::PLMConstants::IS_FORCE, false);
        if (mHooks.writeContactsDbVersion) {
            mHooks.writeContactsDbVersion(conflict);
        } else {
            static_cast<ContactsSyncHandler*>(_domainHandler(plm::SYNC_ITEM_CONTACTS))
                ->writeNewSyncContactsDbVersion(conflict);
        }
    }
    master_set_string(key, plm::STATUS_SYNCED);
    update_master_sync_pref_key();
}

void PLMSyncManager::update_master_sync_pref_key() {
    const int rc = master_set_string(plm::ALL_SYNC_STATUS_P, plm::STATUS_SYNCED);
    if (rc != 0)
        LOGE("master_set_string : ERROR code[%s][%d]", std::strerror(errno), rc);
    for (const char* key :
         {plm::CONTACTS_SYNC_STATUS_P, plm::APP_SYNC_STATUS_P, plm::MEDIA_SYNC_STATUS_P}) {
        bool ok = true;
        const std::string value = readStatus(key, ok);
        if (!value.empty() && (value[0] == '0' || value[0] == '1')) {
            master_set_string(plm::ALL_SYNC_STATUS_P, plm::STATUS_WAITING);
            return;
        }
    }
}

// ---------------------------------------------------------------------------------------------
// Queries

bool PLMSyncManager::isSyncInProgress() {
    std::lock_guard<std::mutex> guard(mHandlerMutex);
    DataUploadHandler* handler = mDataUploadHandler.get();
    return handler != nullptr && (handler->getPdsOpened() || !handler->getPdsClosed());
}

bool PLMSyncManager::hasPlmId(int domain) {
    std::lock_guard<std::mutex> guard(mHandlerMutex);
    DataUploadHandler* handler = mDataUploadHandler.get();
    if (handler == nullptr)
        return false;
    std::string id;
    switch (domain) {
        case plm::SYNC_ITEM_APPLICATION:
            id = handler->getLastApplicationPlmId();
            break;
        case plm::SYNC_ITEM_MEDIA:
            id = handler->getLastMediaPlmId();
            break;
        case plm::SYNC_ITEM_CONTACTS:
            id = handler->getLastContactPlmId();
            break;
        default:
            id = handler->getSucceededLatestPLMId();
            break;
    }
    // No id yet reads as the empty text from the preference store.
    return !id.empty() && id != kUnknownPlmId;
}

bool PLMSyncManager::getPendingResync() const {
    return mPendingResync.load();
}

void PLMSyncManager::setPendingResync(bool pending) {
    mPendingResync.store(pending);
}

// ---------------------------------------------------------------------------------------------
// Exit check

void PLMSyncManager::check_for_process_exit() {
    LOGD("check_for_process_exit START");
    // Asked before the statuses are read: a collection marks its domain waiting before it stops
    // counting as collecting, so one that ends meanwhile is seen in the statuses below.
    if (_anyDomainCollecting()) {
        LOGD("Some sync is in process");
        return;
    }
    const char* const keys[] = {plm::APP_SYNC_STATUS_P, plm::CONTACTS_SYNC_STATUS_P,
                                plm::MEDIA_SYNC_STATUS_P};
    for (int i = 0; i < 3; ++i) {
        bool ok = true;
        const std::string value = readStatus(keys[i], ok);
        if (!ok)
            LOGE("master_get_string Error : all sync status");
        if (value.empty())
            continue;
        const char* text = value.c_str();
        if (value[0] == '0') {
            if (i == 0)
                LOGD("APP_SYNC_STATUS_P status[%s]", text);
            if (i == 1)
                LOGD("CONTACTS_SYNC_STATUS_P status[%s]", text);
            if (i == 2)
                LOGD("MEDIA_SYNC_STATUS_P status[%s]", text);
            LOGD("Some sync is in process");
            return;
        }
        if (value[0] == '1') {
            if (i == 0)
                LOGD("APP_SYNC_STATUS_P status11[%s]", text);
            if (i == 1)
                LOGD("CONTACTS_SYNC_STATUS_P status11[%s]", text);
            if (i == 2)
                LOGD("MEDIA_SYNC_STATUS_P status[%s]", text);
            const int rc = pelio::platform::preferences().setInt(plm::PREF_SYNC_CONDITION, 1);
            if (rc != 0)
                LOGE("preference_set_int (umng_sync_condition) Failed ret[%d]", rc);
        }
    }
    // And again after them, for a collection that started meanwhile: it reaches this check
    // itself when done.
    if (_anyDomainCollecting()) {
        LOGD("Some sync is in process");
        return;
    }
    if (!mPendingResync.load()) {
        LOGD("Exit the upload manager service");
        pelio::platform::serviceApp().exit();
    } else {
        LOGD("There is pended lang changed event");
        PrefMgr* prefs = getPrefMgr();
        prefs->set(plm::PLMConstants::CLEAR_SERVER, false);
        prefs->set(plm::PLMConstants::IS_FORCE, true);
        trigger_sync(plm::SYNC_TYPE_FORCE);
        mPendingResync.store(false);
    }
    LOGD("Some sync is in process");
}

// ---------------------------------------------------------------------------------------------
// Worker

void PLMSyncManager::handleMessage() {
    LOGD("");
    while (!_workerShouldStop()) {
        mSyncLock->lock();
        if (mSyncQueue->empty()) {
            closeSessionAndApplyOutcomes();
            while (mSyncQueue->empty() && !_workerShouldStop())
                mSyncLock->wait();
        }
        if (_workerShouldStop()) {
            mSyncLock->unlock();
            break;
        }
        // Never wait on the queue's condition with the sync lock held: a queue emptied by
        // clearQueue meanwhile sends the worker round again instead.
        const std::optional<int> item = mSyncQueue->takeHead();
        if (!item) {
            mSyncLock->unlock();
            continue;
        }
        mCurrentItem.store(*item);
        mSyncLock->unlock();

        if (*item < 0)
            continue;
        if (!composeAndSync(*item)) {
            LOGE("sync Failed for gvSyncItem[%d]", *item);
            if (!_workerShouldStop())
                check_for_process_exit();
        } else {
            LOGD("sync success for gvSyncItem[%d]", *item);
        }
    }
}

bool PLMSyncManager::_tryClose(DataUploadHandler* handler) {
    try {
        const bool closed = handler->closePds();
        if (closed) {
            LOGD("Close PDS Successful!!");
        } else {
            LOGE("Close PDS Failed!!");
        }
        return closed;
    } catch (const std::exception& e) {
        handleSyncError();
        LOGE("pds close fail");
        return false;
    }
}

void PLMSyncManager::closePds(DataUploadHandler* handler) {
    if (handler != nullptr)
        _tryClose(handler);
}

void* PLMSyncManager::pdssWipe(DataUploadHandler* handler, void* /*arg*/) {
    if (handler == nullptr)
        return nullptr;
    try {
        if (handler->wipePds(true)) {
            LOGD("Wipe PDS success ");
        } else {
            LOGE("pds wipe fail");
        }
    } catch (const std::exception& e) {
        LOGE("pds wipe fail");
    }
    return nullptr;
}

void PLMSyncManager::handleSyncError() {
    LOGD("handleSyncError");
}

void PLMSyncManager::pdsUploadStarted() {
    LOGD("pdsUploadStarted");
}

void PLMSyncManager::clearSyncResultList() {
    LOGD("clear sync result");
    std::lock_guard<std::mutex> guard(mSyncResultsMutex);
    for (size_t i = 0; i < mSyncResults.size(); ++i)
        LOGD("deleting syncResult");
    mSyncResults.clear();
}

void PLMSyncManager::closeSessionAndApplyOutcomes() {
    if (getEmbeddedTriggerStatus() != 0) {
        sendsyncTriggerToEmbedded();
        clearEmbeddedTrigger();
    }
    DataUploadHandler* handler = _uploader();
    if (handler == nullptr || !handler->getPdsOpened())
        return;

    bool closed = false;
    int attempt = 1;
    for (; attempt <= kPdsAttempts && !_workerShouldStop(); ++attempt) {
        if (_tryClose(handler)) {
            closed = true;
            break;
        }
        LOGE("pds close failed with retry time [%d]!! sleeping 15 secs and retyr", attempt);
        _sleep(kCloseRetryPauseSeconds);
    }

    if (!closed) {
        const SyncResults results = _takeSyncResults();
        LOGD("count[%d]", static_cast<int>(results.size()));
        for (const auto& result : results) {
            LOGD("syncItemType[%d]", result->itemType);
            update_preference_status_on_sync_fail(result->itemType);
        }
        for (int item : _takeIncompleteItems())
            update_preference_status_on_sync_fail(item);
    } else {
        mPdsOpened.store(false);
        LOGD("pds close success with retry time [%d]", attempt);
        LOGD("pds close success, there are [%d] items to be synced on locals",
             static_cast<int>(syncResultCount()));
        _processSyncResults();
    }

    const std::optional<int> pending = mPendingQueue->takeHead();
    if (!pending) {
        LOGD("check_for_process_exit called after pds_close");
        check_for_process_exit();
    } else {
        LOGW("pendingQueue: Add syncItem[%d] to syncQueue again", *pending);
        mSyncQueue->append(*pending);
    }
}

void PLMSyncManager::_processSyncResults() {
    // Taken whole: the sync lock is held, so no result is added or looked for meanwhile.
    const SyncResults results = _takeSyncResults();
    SyncOutcomeProcessor::Marks marks;
    // Domains that end failed: a part never posted, a reply unreadable or unstored, a document
    // not accepted. Their rows stay dirty for the next sync.
    std::set<int> failed = _takeIncompleteItems();
    std::vector<std::pair<int, std::shared_ptr<const SentRows>>> sentByItem;
    DataUploadHandler* handler = _uploader();
    for (const auto& result : results) {
        const std::string latest = handler->getSucceededLatestPLMId();
        if (latest == kUnknownPlmId) {
            LOGD("Unknown plm id");
        } else if (result->itemType == plm::SYNC_ITEM_APPLICATION) {
            handler->setLastApplicationPlmId(latest);
        } else if (result->itemType == plm::SYNC_ITEM_CONTACTS) {
            handler->setLastContactPlmId(latest);
        } else if (result->itemType == plm::SYNC_ITEM_MEDIA) {
            handler->setLastMediaPlmId(latest);
        }
        // Not under the domain's lock (the sync lock is held here, and the lock order puts
        // domain locks outside it): an answer only touches a row still as it was sent, in one
        // transaction, so a collection running meanwhile costs at most a second upload.
        if (result->reply == SyncResult::Reply::Unread)
            readReply(*result);  // a result not handed over by a post
        const bool applied =
            result->reply == SyncResult::Reply::Read &&
            SyncOutcomeProcessor::applyAnswers(result->answers, *result->sentRows, marks);
        if (!applied)
            failed.insert(result->itemType);
        if (std::none_of(sentByItem.begin(), sentByItem.end(),
                         [&result](const auto& e) { return e.second == result->sentRows; })) {
            sentByItem.emplace_back(result->itemType, result->sentRows);
        }
        LOGD(
            "sync success for pds close item update master before delete syncresult: "
            "syncItemType[%d]",
            result->itemType);
        update_preference_status_on_pds_close(result->itemType, marks.contactsConflict);
        LOGD("deleting syncResult");
    }
    LOGD("Clearing list");
    for (const auto& [item, sent] : sentByItem) {
        const std::set<std::string> missing = SyncOutcomeProcessor::unaccepted(*sent, marks);
        if (!missing.empty()) {
            LOGE("[%d] documents of item [%d] not accepted, first [%s]",
                 static_cast<int>(missing.size()), item, missing.begin()->c_str());
            failed.insert(item);
        }
    }
    if (marks.contactsConflict) {
        LOGD("setting contact doc update conflict status");
        master_set_string(plm::CONTACTS_SYNC_STATUS_P, plm::STATUS_FAILED);
    }
    if (marks.applicationsFailed)
        master_set_string(plm::APP_SYNC_STATUS_P, plm::STATUS_FAILED);
    if (marks.mediaFailed)
        master_set_string(plm::MEDIA_SYNC_STATUS_P, plm::STATUS_FAILED);
    for (int item : failed) {
        LOGE("item [%d] not wholly synced, marked failed", item);
        update_preference_status_on_sync_fail(item);
    }
    if (marks.contactsConflict || marks.applicationsFailed || marks.mediaFailed)
        update_master_sync_pref_key();
}

void PLMSyncManager::_markIncomplete(int item) {
    std::lock_guard<std::mutex> guard(mSyncResultsMutex);
    mIncompleteItems.insert(item);
}

std::set<int> PLMSyncManager::_takeIncompleteItems() {
    std::lock_guard<std::mutex> guard(mSyncResultsMutex);
    std::set<int> items;
    items.swap(mIncompleteItems);
    return items;
}

bool PLMSyncManager::composeAndSync(int item) {
    LOGD("syncActionType[%d]", item);
    UploadRun run;
    run.item = item;
    run.handler = _ensureUploader();

    std::mutex* domainLock = getDomainLock(item);
    if (domainLock == nullptr)
        LOGE("Not supported sync type[%d]", item);
    std::unique_lock<std::mutex> domainGuard;
    if (domainLock != nullptr)
        domainGuard = std::unique_lock<std::mutex>(*domainLock);

    std::unique_ptr<SyncData> syncData = _composeAndPost(run);
    bool result = false;
    const bool nothingComposed =
        !syncData || (syncData->insertedCount == -1 && syncData->deletedCount == -1 &&
                      syncData->updatedCount == -1);
    if (nothingComposed && !run.sessionTried) {
        _nothingToSync(item, syncData.get());
    } else {
        if (nothingComposed && run.allPosted) {
            // The composition was aborted after some of its bodies went up.
            LOGE("composition of item [%d] ended early", item);
            run.allPosted = false;
        }
        result = _finishUpload(run, syncData.get());
    }
    syncData.reset();

    if (domainLock == nullptr)
        LOGD("Not supported syncActionType[%d]", item);
    if (domainGuard.owns_lock())
        domainGuard.unlock();
    LOGD("Job's done");
    return result;
}

std::unique_ptr<SyncData> PLMSyncManager::_composeAndPost(UploadRun& run) {
    // The next body is composed while earlier ones are posted.
    BodyPoster poster(
        [this, &run](std::string body, const std::shared_ptr<SentRows>& sent) {
            return _postBody(run, std::move(body), sent);
        },
        kBodiesInFlight);
    const BodySink sink = [this, &run, &poster](std::string body,
                                                const std::shared_ptr<SentRows>& sent) {
        // The session is opened here, for the first body, before anything goes up.
        if (!run.sessionTried && !_openSessionFor(run))
            return false;
        return run.sessionOpen && poster.submit(std::move(body), sent);
    };
    std::unique_ptr<SyncData> data = mHooks.makeSyncData
                                         ? mHooks.makeSyncData(run.item, sink)
                                         : JSONComposer().makeSyncData(run.item, sink);
    if (!poster.finish())
        run.allPosted = false;  // also when a post ended in an exception
    return data;
}

void PLMSyncManager::_nothingToSync(int item, const SyncData* syncData) {
    LOGE("NoThing to sync for Domain[%d]", item);
    if (syncData != nullptr && !syncData->complete) {
        // Rows are waiting that could not be composed: not in step.
        update_preference_status_on_sync_fail(item);
    } else {
        update_preference_status_on_pds_close(item, false);
    }
    handleSyncError();
}

bool PLMSyncManager::_openSessionFor(UploadRun& run) {
    run.sessionTried = true;
    if (run.handler->getPdsOpened()) {
        mPdsOpened.store(true);
    } else {
        bool opened = false;
        for (int attempt = 1; attempt <= kPdsAttempts && !_workerShouldStop(); ++attempt) {
            int rc = -1;
            try {
                rc = run.handler->openPds(run.item);
            } catch (const std::exception& e) {
                LOGE("pds open exception [%s]", e.what());
                rc = -1;
            }
            if (rc == 0) {
                LOGD("pds open success with retry time [%d]", attempt);
                opened = true;
                break;
            }
            if (rc == kPdsResultBlocked) {
                LOGE("PDSS error");
            } else if (rc == kPdsResultSyncBlocked) {
                LOGE("Sync blocked");
            } else {
                LOGE("pds open failed with retry time [%d]!! sleeping 10 secs and retyr", attempt);
                _sleep(kOpenRetryPauseSeconds);
            }
        }
        mPdsOpened.store(opened);
    }
    pdsUploadStarted();
    run.sessionOpen = mPdsOpened.load();
    if (!run.sessionOpen) {
        LOGE("PDS Open Failed");
        handleSyncError();
        clearSyncResultList();
        update_preference_status_on_sync_fail(run.item);
    }
    return run.sessionOpen;
}

bool PLMSyncManager::_postBody(UploadRun& run, std::string body,
                               const std::shared_ptr<SentRows>& sent) {
    if (_uploader() == nullptr) {
        LOGD("reset sync is called");
        run.allPosted = false;
        return false;
    }
    LOGD("mDataUploadHandler is alive");
    SyncData post;
    post.itemType = run.item;
    post.message = std::move(body);
    auto syncResult = std::make_unique<SyncResult>();
    syncResult->itemType = run.item;
    syncResult->syncType = post.syncType;
    syncResult->sentRows = sent;
    run.handler->performSync(&post, syncResult.get());
    LOGD("Post request done display response in sync manager");
    if (syncResult->jsonResponse.empty()) {
        LOGE("syncResult->jsonResponse has no length");
        run.allPosted = false;
        return false;
    }
    readReply(*syncResult);  // here, while later posts are on their way; applied after the close
    std::lock_guard<std::mutex> guard(mSyncResultsMutex);
    mSyncResults.push_back(std::move(syncResult));
    return true;
}

bool PLMSyncManager::_finishUpload(UploadRun& run, const SyncData* syncData) {
    // Counts without a body (nothing handed over): the session is opened all the same.
    if (!run.sessionTried)
        _openSessionFor(run);
    if (!run.sessionOpen)
        return false;
    if (run.allPosted && syncData != nullptr && !syncData->complete) {
        LOGE("some rows of item [%d] could not be composed", run.item);
        run.allPosted = false;
    }
    if (!run.allPosted) {
        _markIncomplete(run.item);
        return false;
    }
    LOGD("reset sync is called");
    return true;
}
