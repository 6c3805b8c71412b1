#include "SyncHandlers/ContactGroupsSyncHandler.h"

#include "PelioLog.h"

ContactGroupsSyncHandler::ContactGroupsSyncHandler(SyncHandlerHost* host) : BaseSyncHandler(host) {
    LOGD("");
}

ContactGroupsSyncHandler::~ContactGroupsSyncHandler() {
    LOGD("");
    stopWorker();
}

int ContactGroupsSyncHandler::syncData(int) {
    LOGD("");
    return 0;
}
