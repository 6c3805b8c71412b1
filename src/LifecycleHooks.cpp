#include "LifecycleHooks.h"

#include "upload/PLMSyncManager.h"

// The terminating timer asks whether a sync runs; a manager that does not exist has none.
bool isSyncManagerSyncing() {
    PLMSyncManager* manager = PLMSyncManager::peekInstance();
    return manager != nullptr && manager->isSyncInProgress();
}

// Obtaining the manager goes through its accessor, which creates it if needed: a manager that was
// never used is created here and destroyed at once.
void destroySyncManager() {
    if (PLMSyncManager::getInstance() != nullptr)
        PLMSyncManager::destroyInstance();
}
