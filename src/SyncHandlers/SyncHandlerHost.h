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
};
