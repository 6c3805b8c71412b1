// What a domain handler needs of the sync manager: the domain locks, the status keys and the
// upload queue. PLMSyncManager implements it; unit tests hand a handler a fake host.
#pragma once

#include <mutex>

class SyncHandlerHost {
  public:
    virtual ~SyncHandlerHost() = default;
    // The lock of a sync item (1, 2, 3, 11), or null for items without one.
    virtual std::mutex* getDomainLock(int item) = 0;
    virtual void set_sync_status(const char* key, const char* value) = 0;
    virtual void addSyncItemToQueue(int item) = 0;
    // A collection failed after it had marked its domain waiting: the domain is marked failed
    // (its rows and stored version are untouched) and the service may end.
    virtual void collectionFailed(int /*item*/) {}
    // A collection found nothing to upload: the service may end if no other domain is waiting.
    virtual void collectionFoundNothing(int /*item*/) {}
};
