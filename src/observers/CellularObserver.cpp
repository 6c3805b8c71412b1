#include "observers/CellularObserver.h"

#include <cstring>

#include <pelio/platform/SystemSettings.h>

#include "PelioLog.h"
#include "upload/PLMSyncManager.h"

namespace pp = pelio::platform;

int CellularObserver::register_cellular_observer() {
    LOGD("register_cellular_observer called");
    const int rc =
        pp::systemSettings().addChangedCallback(kCellularKey, &cellular_changed_cb, nullptr);
    if (rc != pp::SETTINGS_ERROR_NONE)
        LOGE("FERROR: vconf_notify_key_changed retval = %d", rc);
    return rc;
}

int CellularObserver::unregister_cellular_observer() {
    LOGD("unregister_cellular_observer called");
    const int rc = pp::systemSettings().removeChangedCallback(kCellularKey, &cellular_changed_cb);
    if (rc != pp::SETTINGS_ERROR_NONE)
        LOGE("retval = %d and error = %s", rc, std::strerror(-rc));
    return rc;
}

void CellularObserver::cellular_changed_cb(const char* key, void*) {
    LOGD("cellular_changed_cb");
    LOGD("key = %s", key != nullptr ? key : "");
    if (key == nullptr || std::strcmp(key, kCellularKey) != 0)
        return;
    int state = -1;
    if (pp::systemSettings().getInt(kCellularKey, state) != pp::SETTINGS_ERROR_NONE)
        return;  // absent or not a number: not a state change to 0
    LOGD("network cellular_state = %d", state);
    if (state != 0)
        return;
    PLMSyncManager* manager = PLMSyncManager::getInstance();
    LOGD("GetInstance %p", static_cast<void*>(manager));
    manager->cellular_changed();
}
