// The service application: main loop, life-cycle callbacks, system events and the exit request.
//
// main() runs create, then (when create returned true) the loop, in which every launch request
// from another application reaches the app-control callback; exit() makes the loop return, and
// terminate runs before main() returns. Event handlers run on the main loop thread.
//
// Linux: Ecore's loop. The application owns its bus name on the session bus and exports its
// application object (see AppControl.h). Low memory: a kernel memory-pressure trigger
// (/proc/pressure/memory) where the kernel allows one. Low battery: UPower's warning level on the
// system bus where UPower runs. Both also come from the LowMemory / LowBattery signals of
// com.quorvin.platform.System at /com/quorvin/platform, sent by anyone on the session bus.
#pragma once

#include <memory>

#include "pelio/platform/AppControl.h"

namespace pelio::platform {

enum ServiceAppError {
    APP_ERROR_NONE = 0,
    APP_ERROR_INVALID_PARAMETER = -22,
    APP_ERROR_INVALID_CONTEXT = -0x01100000 | 0x01,
    APP_ERROR_ALREADY_RUNNING = -0x01100000 | 0x02,
};

enum AppEventType {
    APP_EVENT_LOW_MEMORY = 0,
    APP_EVENT_LOW_BATTERY = 1,
};

struct ServiceAppLifecycleCallbacks {
    bool (*create)(void* userData) = nullptr;
    void (*terminate)(void* userData) = nullptr;
    void (*appControl)(const AppControl& request, void* userData) = nullptr;
};

using AppEventCallback = void (*)(void* eventInfo, void* userData);
using AppEventHandlerId = int;

class ServiceApp {
  public:
    virtual ~ServiceApp() = default;
    // Returns APP_ERROR_NONE after the loop ended, an error when it could not start.
    virtual int main(int argc, char** argv, const ServiceAppLifecycleCallbacks& callbacks,
                     void* userData) = 0;
    virtual int addEventHandler(AppEventType type, AppEventCallback cb, void* userData,
                                AppEventHandlerId& id) = 0;
    virtual int removeEventHandler(AppEventHandlerId id) = 0;
    virtual void exit() = 0;
};

ServiceApp& serviceApp();
void installServiceApp(std::unique_ptr<ServiceApp> impl);

}  // namespace pelio::platform
