#include "network/NetworkMgr.h"

#include <pelio/platform/Connection.h>

#include <memory>

#include "PelioLog.h"

namespace platform = pelio::platform;

void NetworkMgr::init() {
    LOGD("");
}

void NetworkMgr::deInit() {
    LOGD("");
}

bool NetworkMgr::getConnected() {
    std::unique_ptr<platform::ConnectionHandle> handle;
    if (platform::connection().create(handle) != platform::CONNECTION_ERROR_NONE || !handle) {
        LOGE("Failed to create network mgr handle");
        return false;
    }
    int type = platform::CONNECTION_TYPE_DISCONNECTED;
    if (handle->getType(type) != platform::CONNECTION_ERROR_NONE) {
        type = platform::CONNECTION_TYPE_DISCONNECTED;
    }
    handle.reset();
    LOGD("retv[%d]", type);
    return type != platform::CONNECTION_TYPE_DISCONNECTED;
}
