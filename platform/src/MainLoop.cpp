#include "pelio/platform/MainLoop.h"

#include <Ecore.h>
#include <Eldbus.h>

#include <pelio/platform/Log.h>
#include <atomic>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <memory>

#include "EldbusHandles.h"

namespace pelio::platform {
namespace {

std::atomic<int> g_depth{0};

void runQueued(void* data) {
    std::unique_ptr<std::function<void()>> fn(static_cast<std::function<void()>*>(data));
    (*fn)();
}

// EFL's own log lines (Eina, Ecore, Eldbus) as lines of this process's log, one line each, with
// no backtrace dump: errors and worse by default, EINA_LOG_LEVEL when the user set it.
void efLogToOurLog(const Eina_Log_Domain* domain, Eina_Log_Level level, const char* file,
                   const char* fnc, int line, const char* fmt, void* data, va_list args) {
    (void)data;
    char text[1024];
    std::vsnprintf(text, sizeof text, fmt, args);
    const int priority = level <= EINA_LOG_LEVEL_ERR    ? DLOG_ERROR
                         : level == EINA_LOG_LEVEL_WARN ? DLOG_WARN
                         : level == EINA_LOG_LEVEL_INFO ? DLOG_INFO
                                                        : DLOG_DEBUG;
    dlog_print(priority, "PelioPlatform", "%s: %s(%d) > %s: %s", file ? file : "?", fnc ? fnc : "?",
               line, domain && domain->name ? domain->name : "efl", text);
}

void quietLibraryLogs() {
    setenv("EINA_LOG_BACKTRACE", "-1", 1);
    const char* userLevel = std::getenv("EINA_LOG_LEVEL");
    if (userLevel == nullptr || userLevel[0] == '\0')
        setenv("EINA_LOG_LEVEL", "1", 1);  // EINA_LOG_LEVEL_ERR, read by eina_init
}

}  // namespace

MainLoopScope::MainLoopScope() {
    if (g_depth.fetch_add(1) == 0) {
        // Ecore's system modules watch the system bus, locale and power on their own: this
        // process has platform modules for what it needs, and they would log for missing buses.
        setenv("ECORE_NO_SYSTEM_MODULES", "1", 1);
        ecore_app_no_system_modules();
        quietLibraryLogs();
        ecore_init();
        eina_log_print_cb_set(efLogToOurLog, nullptr);
        eldbus_init();
    }
}

MainLoopScope::~MainLoopScope() {
    if (g_depth.fetch_sub(1) == 1) {
        detail::releaseSessionBus();
        eldbus_shutdown();
        ecore_shutdown();
    }
}

void runMainLoop() {
    ecore_main_loop_begin();
}

void quitMainLoop() {
    ecore_main_loop_quit();
}

void quitMainLoopOnSignals() {
    static Ecore_Event_Handler* handler = nullptr;
    if (handler)
        return;
    handler = ecore_event_handler_add(
        ECORE_EVENT_SIGNAL_EXIT,
        [](void*, int, void*) -> Eina_Bool {
            ecore_main_loop_quit();
            return ECORE_CALLBACK_PASS_ON;
        },
        nullptr);
}

bool onMainLoopThread() {
    return g_depth.load() > 0 && eina_main_loop_is();
}

bool offMainLoopThread() {
    return g_depth.load() > 0 && !eina_main_loop_is();
}

bool runOnMainLoop(std::function<void()> fn) {
    if (g_depth.load() == 0)
        return false;
    if (eina_main_loop_is()) {
        fn();
        return true;
    }
    auto* heap = new std::function<void()>(std::move(fn));  // owned by runQueued
    ecore_main_loop_thread_safe_call_async(runQueued, heap);
    return true;
}

}  // namespace pelio::platform
