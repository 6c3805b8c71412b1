// The service's process entry and its service-application callbacks.
//
// Everything runs on the main loop thread. The sync manager is reached only through
// LifecycleHooks.h; the terminating timer lives in TerminatingTimer.h.
#include <curl/curl.h>
#include <sched.h>

#include <pelio/platform/AppControl.h>
#include <pelio/platform/ServiceApp.h>
#include <cerrno>
#include <cstring>

#include "LifecycleHooks.h"
#include "PelioLog.h"
#include "PlmSyncAppEvent.h"

using pelio::platform::AppControl;
using pelio::platform::serviceApp;

static bool __app_create(void* data) {
    (void)data;
    LOGD("__app_create: upload-manager created..");
    curl_global_init(CURL_GLOBAL_ALL);  // 3; released by the process's end
    return true;
}

static void __app_terminate(void* data) {
    (void)data;
    LOGD("__app_terminate: upload-manager finished..");
    destroySyncManager();
}

static void __app_reset(const AppControl& app_control, void* data) {
    LOGI("service_app_control start1");
    plmsync_handle_app_event(app_control, data);
}

static void __service_app_low_battery_cb(void* event_info, void* user_data) {
    (void)event_info;
    (void)user_data;
    LOGD("__service_app_low_battery_cb: Low battery");
    serviceApp().exit();  // the sync manager is left as it is
}

static void __service_app_low_memory_cb(void* event_info, void* user_data) {
    (void)event_info;
    (void)user_data;
    LOGD("__service_app_low_memory_cb: LOW Memory exit the process");
    destroySyncManager();
    serviceApp().exit();
}

int main(int argc, char* argv[]) {
    LOGD("main: upload-manager started.");

    struct sched_param param {};
    param.sched_priority = 0;
    if (sched_setscheduler(0, SCHED_IDLE, &param) != 0) {
        LOGE("upload-manager cannot change sched policy(error %s)", std::strerror(errno));
    }

    pelio::platform::ServiceAppLifecycleCallbacks event_callback;
    event_callback.create = __app_create;
    event_callback.terminate = __app_terminate;
    event_callback.appControl = __app_reset;

    pelio::platform::AppEventHandlerId handlers[2] = {0, 0};
    serviceApp().addEventHandler(pelio::platform::APP_EVENT_LOW_MEMORY, __service_app_low_memory_cb,
                                 nullptr, handlers[0]);
    serviceApp().addEventHandler(pelio::platform::APP_EVENT_LOW_BATTERY,
                                 __service_app_low_battery_cb, nullptr, handlers[1]);

    try {
        serviceApp().main(argc, argv, event_callback, nullptr);
    } catch (int line) {
        LOGE("main: upload-manager debug line[%d].", line);
    }
    return 0;
}
