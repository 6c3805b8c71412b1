// Linux service application: Ecore loop, the application's bus presence, and the low-memory and
// low-battery sources.
#include <fcntl.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <map>
#include <vector>

#include "DeferredClose.h"
#include "EldbusHandles.h"
#include "pelio/platform/AppPaths.h"
#include "pelio/platform/ApplicationEndpoint.h"
#include "pelio/platform/Log.h"
#include "pelio/platform/MainLoop.h"
#include "pelio/platform/ServiceApp.h"

#include <Ecore.h>
#include <Eina.h>
#include "pelio/platform/Slot.h"

namespace pelio::platform {
namespace {

using namespace detail;

constexpr const char* kTag = "PelioPlatform";
// A real memory shortage: every task stalled for 200 ms within 2 s (the window unprivileged
// processes may use).
constexpr const char* kPressureTrigger = "full 200000 2000000";
constexpr int kUPowerWarningLow = 3;  // low, critical and action all count

struct FdCloser {
    int fd = -1;
    ~FdCloser() {
        if (fd >= 0)
            close(fd);
    }
};

bool systemBusReachable() {
    const char* address = std::getenv("DBUS_SYSTEM_BUS_ADDRESS");
    std::string path = "/run/dbus/system_bus_socket";
    if (address) {
        const std::string a = address;
        const std::string prefix = "unix:path=";
        if (a.rfind(prefix, 0) != 0)
            return true;  // some other transport: let the library try
        path = a.substr(prefix.size(), a.find(',') - prefix.size());
    }
    return access(path.c_str(), W_OK) == 0;
}

class LinuxServiceApp : public ServiceApp {
  public:
    int main(int argc, char** argv, const ServiceAppLifecycleCallbacks& callbacks,
             void* userData) override {
        (void)argc;
        (void)argv;
        if (running_)
            return APP_ERROR_ALREADY_RUNNING;
        running_ = true;
        MainLoopScope loop;
        callbacks_ = callbacks;
        userData_ = userData;
        int rc = APP_ERROR_NONE;
        if (!callbacks.create || callbacks.create(userData)) {
            if (startBus()) {
                watchMemoryPressure();
                watchBattery();
                if (!exitRequested_)
                    runMainLoop();
            } else {
                dlog_print(DLOG_ERROR, kTag, "no session bus: the application cannot serve");
                rc = APP_ERROR_INVALID_CONTEXT;
            }
            if (callbacks.terminate)
                callbacks.terminate(userData);
        }
        stopSources();
        running_ = false;
        return rc;
    }

    int addEventHandler(AppEventType type, AppEventCallback cb, void* userData,
                        AppEventHandlerId& id) override {
        if (!cb || (type != APP_EVENT_LOW_MEMORY && type != APP_EVENT_LOW_BATTERY)) {
            return APP_ERROR_INVALID_PARAMETER;
        }
        id = ++lastId_;
        handlers_[id] = {type, cb, userData};
        return APP_ERROR_NONE;
    }

    int removeEventHandler(AppEventHandlerId id) override {
        return handlers_.erase(id) ? APP_ERROR_NONE : APP_ERROR_INVALID_PARAMETER;
    }

    void exit() override {
        // The exit check of the sync worker asks from its own thread: the loop, the bus name and
        // the flag belong to the main loop, so hand the request over (it also wakes the loop).
        if (!eina_main_loop_is()) {
            ecore_main_loop_thread_safe_call_async(
                [](void* self) { static_cast<LinuxServiceApp*>(self)->exit(); }, this);
            return;
        }
        exitRequested_ = true;
        // The service is ending: a low-memory event would change nothing. Giving the pressure
        // trigger back takes the kernel a grace period (5-15 ms), which now passes while the
        // service shuts down instead of after it.
        stopPressureWatch();
        // Requests that arrive from now on start a new instance through D-Bus activation.
        if (endpoint_)
            endpoint_->releaseName();
        if (running_)
            quitMainLoop();
    }

  private:
    struct Handler {
        AppEventType type;
        AppEventCallback cb;
        void* userData;
    };

    void raise(AppEventType type) {
        std::vector<Handler> matching;
        for (const auto& [id, h] : handlers_)
            if (h.type == type)
                matching.push_back(h);
        for (const auto& h : matching)
            h.cb(nullptr, h.userData);
    }

    bool startBus() {
        Eldbus_Connection* bus = sessionBus();
        if (!bus)
            return false;
        // The application this process serves as (set at process entry; "com.quorvin.plmsvc"
        // unless changed).
        const std::string appId = currentAppId();
        endpoint_ =
            std::make_unique<ApplicationEndpoint>(appId, 2, [this](const AppControl& request) {
                if (callbacks_.appControl)
                    callbacks_.appControl(request, userData_);
            });
        if (!endpoint_->start([this, appId](bool owned) {
                if (!owned) {
                    dlog_print(DLOG_ERROR, kTag, "bus name %s is not ours: ending", appId.c_str());
                    exit();
                }
            })) {
            return false;
        }
        lowMemorySignal_.reset(eldbus_signal_handler_add(bus, nullptr, kSystemObjectPath,
                                                         kSystemInterface, "LowMemory",
                                                         &LinuxServiceApp::onLowMemory, this));
        lowBatterySignal_.reset(eldbus_signal_handler_add(bus, nullptr, kSystemObjectPath,
                                                          kSystemInterface, "LowBattery",
                                                          &LinuxServiceApp::onLowBattery, this));
        return true;
    }

    static void onLowMemory(void* data, const Eldbus_Message*) {
        static_cast<LinuxServiceApp*>(data)->raise(APP_EVENT_LOW_MEMORY);
    }
    static void onLowBattery(void* data, const Eldbus_Message*) {
        static_cast<LinuxServiceApp*>(data)->raise(APP_EVENT_LOW_BATTERY);
    }

    void watchMemoryPressure() {
        const int fd = open("/proc/pressure/memory", O_RDWR | O_NONBLOCK | O_CLOEXEC);
        if (fd < 0)
            return;  // kernel without pressure stall information
        pressureFd_.fd = fd;
        if (write(fd, kPressureTrigger, std::strlen(kPressureTrigger) + 1) < 0) {
            dlog_print(DLOG_DEBUG, kTag, "memory pressure trigger not available: %s",
                       std::strerror(errno));
            close(fd);
            pressureFd_.fd = -1;
            return;
        }
        pressureHandler_.reset(ecore_main_fd_handler_add(
            fd, ECORE_FD_ERROR,
            [](void* data, Ecore_Fd_Handler*) -> Eina_Bool {
                static_cast<LinuxServiceApp*>(data)->raise(APP_EVENT_LOW_MEMORY);
                return ECORE_CALLBACK_RENEW;
            },
            this, nullptr, nullptr));
    }

    void watchBattery() {
        if (!systemBusReachable())
            return;
        systemBus_.reset(eldbus_connection_get(ELDBUS_CONNECTION_TYPE_SYSTEM));
        if (!systemBus_)
            return;
        eldbus_name_owner_has(
            systemBus_.get(), "org.freedesktop.UPower",
            [](void* data, const Eldbus_Message* msg, Eldbus_Pending*) {
                auto* self = static_cast<LinuxServiceApp*>(data);
                Eina_Bool has = EINA_FALSE;
                if (eldbus_message_error_get(msg, nullptr, nullptr) ||
                    !eldbus_message_arguments_get(msg, "b", &has) || !has || !self->systemBus_) {
                    return;
                }
                self->upowerSignal_.reset(eldbus_signal_handler_add(
                    self->systemBus_.get(), "org.freedesktop.UPower",
                    "/org/freedesktop/UPower/devices/DisplayDevice",
                    "org.freedesktop.DBus.Properties", "PropertiesChanged",
                    &LinuxServiceApp::onUPowerChanged, self));
            },
            this);
    }

    static void onUPowerChanged(void* data, const Eldbus_Message* msg) {
        const char* iface = nullptr;
        Eldbus_Message_Iter* changed = nullptr;
        Eldbus_Message_Iter* invalidated = nullptr;
        if (!eldbus_message_arguments_get(msg, "sa{sv}as", &iface, &changed, &invalidated))
            return;
        Eldbus_Message_Iter* entry = nullptr;
        while (eldbus_message_iter_get_and_next(changed, 'e', &entry)) {
            const char* name = nullptr;
            Eldbus_Message_Iter* variant = nullptr;
            if (!eldbus_message_iter_arguments_get(entry, "sv", &name, &variant) || !name)
                continue;
            unsigned int level = 0;
            if (std::strcmp(name, "WarningLevel") == 0 &&
                eldbus_message_iter_arguments_get(variant, "u", &level) &&
                static_cast<int>(level) >= kUPowerWarningLow) {
                static_cast<LinuxServiceApp*>(data)->raise(APP_EVENT_LOW_BATTERY);
            }
        }
    }

    void stopPressureWatch() {
        pressureHandler_.reset();
        if (pressureFd_.fd >= 0) {
            closeWithoutWaiting(pressureFd_.fd);
            pressureFd_.fd = -1;
        }
    }

    void stopSources() {
        lowMemorySignal_.reset();
        lowBatterySignal_.reset();
        upowerSignal_.reset();
        stopPressureWatch();
        endpoint_.reset();
        systemBus_.reset();
    }

    bool running_ = false;
    bool exitRequested_ = false;
    ServiceAppLifecycleCallbacks callbacks_;
    void* userData_ = nullptr;
    std::map<AppEventHandlerId, Handler> handlers_;
    AppEventHandlerId lastId_ = 0;
    std::unique_ptr<ApplicationEndpoint> endpoint_;
    SignalHandlerPtr lowMemorySignal_, lowBatterySignal_, upowerSignal_;
    FdHandlerPtr pressureHandler_;
    FdCloser pressureFd_;
    ConnectionPtr systemBus_;
};

Slot<ServiceApp>& slot() {
    static Slot<ServiceApp> s([] { return std::make_unique<LinuxServiceApp>(); });
    return s;
}

}  // namespace

ServiceApp& serviceApp() {
    return slot().get();
}
void installServiceApp(std::unique_ptr<ServiceApp> impl) {
    slot().install(std::move(impl));
}

}  // namespace pelio::platform
