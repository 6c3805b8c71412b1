#include "LifecycleHooks.h"

// HOOK(sync manager): the sync manager does not exist in this build yet, so nothing syncs.
// Becomes: PLMSyncManager* m = PLMSyncManager::getInstance(); return m && m->isSyncInProgress();
bool isSyncManagerSyncing() {
    return false;
}

// HOOK(sync manager): nothing to destroy in this build yet.
// Becomes: PLMSyncManager* m = PLMSyncManager::getInstance(); if (m) delete m;
void destroySyncManager() {}
