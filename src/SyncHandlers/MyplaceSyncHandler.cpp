#include "SyncHandlers/MyplaceSyncHandler.h"

#include "PelioLog.h"

MyplaceSyncHandler::MyplaceSyncHandler() {
    LOGD("");
}

MyplaceSyncHandler::~MyplaceSyncHandler() {
    LOGD("");
}

int MyplaceSyncHandler::syncData() {
    LOGD("");
    return 0;
}
