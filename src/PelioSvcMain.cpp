// The service's process entry and its service-application callbacks.
//
// Everything runs on the main loop thread. The sync manager is reached only through
// LifecycleHooks.h; the terminating timer lives in TerminatingTimer.h.
#include <curl/curl.h>
#include <malloc.h>
#include <sched.h>

#include <pelio/platform/AppControl.h>
#include <pelio/platform/ServiceApp.h>
#include <pelio/platform/SessionBus.h>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <string>

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

static void __print_usage(FILE* out) {
    std::fputs(
        "Usage: pelio-service [--help | --version]\n"
        "Keeps the voice assistant's personal language model supplied with this device's\n"
        "contacts, applications and music. Normally started by D-Bus activation on the session\n"
        "bus when the voice app or `pelioctl` sends it a request; it ends itself when nothing is\n"
        "left to sync. It logs to standard error and, where it runs, to systemd's journal.\n"
        "\n"
        "Options:\n"
        "  -h, --help     show this help and exit\n"
        "      --version  show the version and exit\n"
        "\n"
        "Exit status: 0 ended normally, 1 no session bus or the service could not run, 2 bad\n"
        "usage.\n",
        out);
}

// Arguments and the session bus, before anything else: returns the exit status when the
// process should end now, -1 to go on.
static int __check_start(int argc, char* argv[]) {
    if (argc > 1) {
        const std::string arg = argv[1];
        if (argc == 2 && arg == "--version") {
            std::printf("pelio-service %s\n", PELIO_VERSION);
            return 0;
        }
        if (argc == 2 && (arg == "--help" || arg == "-h")) {
            __print_usage(stdout);
            return 0;
        }
        std::fprintf(stderr, "pelio-service: unexpected argument %s\n", arg.c_str());
        __print_usage(stderr);
        return 2;
    }
    const std::string problem = pelio::platform::sessionBusProblem();
    if (!problem.empty()) {
        std::fprintf(stderr, "pelio-service: %s\n", problem.c_str());
        return 1;
    }
    return -1;
}

int main(int argc, char* argv[]) {
    // One malloc arena for every thread. The threads mostly take turns (the contacts rescan on
    // the main loop, a domain's collection, then its composition and posting on the sync worker);
    // with an arena each, what one step freed stayed resident in its arena while the next step
    // grew another (with 10,000 contacts, about a fifth of the peak). Set before the first
    // thread starts (the session bus check below starts GLib's): glibc fixes the limit then.
    if (mallopt(M_ARENA_MAX, 1) != 1) {
        LOGW("upload-manager cannot limit the malloc arenas, memory use may be higher");
    }
    const int early = __check_start(argc, argv);
    if (early >= 0)
        return early;
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

    int rc = 0;
    try {
        rc = serviceApp().main(argc, argv, event_callback, nullptr);
    } catch (int line) {
        LOGE("main: upload-manager debug line[%d].", line);
    }
    return rc == 0 ? 0 : 1;
}
