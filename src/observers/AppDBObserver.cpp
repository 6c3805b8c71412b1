#include "observers/AppDBObserver.h"

#include <atomic>
#include <cstring>

#include "PLMConstants.h"
#include "PelioLog.h"
#include "upload/PLMSyncManager.h"

namespace pp = pelio::platform;

namespace {

// Whether this process holds the package-manager registration (the platform's handle).
std::atomic<bool> gRegistered{false};

}  // namespace

int AppDBObserver::register_app_observer(AppDBObserver* observer) {
    const int rc = pp::packageManager().setEventCallback(&AppDBObserver::app_changed_cb, observer);
    if (rc != pp::PACKAGE_MANAGER_ERROR_NONE) {
        LOGE("set_event fail retval = %d and error = %s", rc, std::strerror(-rc));
        return rc;
    }
    gRegistered.store(true);
    return rc;
}

int AppDBObserver::unregister_app_observer() {
    if (!gRegistered.exchange(false)) {
        LOGE("Pkg manager is NULL");
        return pp::PACKAGE_MANAGER_ERROR_INVALID_PARAMETER;
    }
    const int rc = pp::packageManager().unsetEventCallback();
    if (rc != pp::PACKAGE_MANAGER_ERROR_NONE)
        LOGE("unset_event fail retval = %d and error = %s", rc, std::strerror(-rc));
    return rc;
}

void AppDBObserver::app_changed_cb(const char*, const char* package, pp::PackageEventType,
                                   pp::PackageEventState eventState, int progress, int error,
                                   void*) {
    PLMSyncManager* manager = PLMSyncManager::peekInstance();
    if (manager == nullptr) {
        LOGE("mPLMSyncManager is NULL");
        return;
    }
    if (eventState != pp::PACKAGE_MANAGER_EVENT_STATE_COMPLETED || package == nullptr ||
        error != 0 || progress != 100) {
        return;
    }
    if (std::strcmp(package, plm::SERVICE_APP_ID) == 0)
        return;
    LOGD("app_changed_cb");
    manager->app_changed();
}
