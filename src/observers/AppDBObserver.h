// AppDBObserver: turns completed package-manager events into the sync manager's app_changed().
//
// Only a completed event (state 2, progress 100, error 0) with a package name counts, whatever
// its type (install, uninstall, update); the service's own package is ignored.
// Thread: the main loop (registration and the platform's callback). Ownership: owned by
// MainObserver; the object has no state, the package-manager registration is process-wide.
// Errors: registration failures are logged and returned as the package manager's error code.
#pragma once

#include <pelio/platform/PackageManager.h>

class AppDBObserver {
  public:
    AppDBObserver() = default;
    AppDBObserver(const AppDBObserver&) = delete;
    AppDBObserver& operator=(const AppDBObserver&) = delete;

    static int register_app_observer(AppDBObserver* observer);
    static int unregister_app_observer();

    // The package manager's event callback.
    static void app_changed_cb(const char* type, const char* package,
                               pelio::platform::PackageEventType eventType,
                               pelio::platform::PackageEventState eventState, int progress,
                               int error, void* userData);
};
