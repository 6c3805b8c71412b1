// Linux application manager: bus-name ownership and the State property, over GDBus (blocking
// calls on GIO's own connection, usable from any thread).
#include <gio/gio.h>
#include <pelio/CHandles.h>

#include "pelio/platform/AppControl.h"
#include "pelio/platform/AppManager.h"
#include "pelio/platform/Slot.h"

namespace pelio::platform {
namespace {

constexpr int kTimeoutMs = 5000;

GObjectPtr<GDBusConnection> sessionBus() {
    GDBusConnection* bus = g_bus_get_sync(G_BUS_TYPE_SESSION, nullptr, nullptr);
    if (bus)
        g_dbus_connection_set_exit_on_close(bus, FALSE);
    return GObjectPtr<GDBusConnection>(bus);
}

GVariantPtr call(const char* dest, const char* path, const char* iface, const char* method,
                 GVariant* args, const char* replyType) {
    GObjectPtr<GDBusConnection> bus = sessionBus();
    if (!bus) {
        if (args)
            g_variant_unref(g_variant_ref_sink(args));
        return nullptr;
    }
    GError* raw = nullptr;
    GVariantPtr reply(g_dbus_connection_call_sync(
        bus.get(), dest, path, iface, method, args, G_VARIANT_TYPE(replyType),
        G_DBUS_CALL_FLAGS_NO_AUTO_START, kTimeoutMs, nullptr, &raw));
    GErrorPtr error(raw);
    return reply;
}

class LinuxAppManager : public AppManager {
  public:
    int isRunning(const std::string& appId, bool& running) override {
        if (appId.empty() || !g_dbus_is_name(appId.c_str()))
            return APP_MANAGER_ERROR_INVALID_PARAMETER;
        GVariantPtr reply =
            call("org.freedesktop.DBus", "/org/freedesktop/DBus", "org.freedesktop.DBus",
                 "NameHasOwner", g_variant_new("(s)", appId.c_str()), "(b)");
        if (!reply)
            return APP_MANAGER_ERROR_IO_ERROR;
        gboolean has = FALSE;
        g_variant_get(reply.get(), "(b)", &has);
        running = has;
        return APP_MANAGER_ERROR_NONE;
    }

    int getAppContext(const std::string& appId, std::unique_ptr<AppContext>& context) override {
        bool running = false;
        const int rc = isRunning(appId, running);
        if (rc != APP_MANAGER_ERROR_NONE)
            return rc;
        if (!running)
            return APP_MANAGER_ERROR_NO_SUCH_APP;
        context = std::make_unique<AppContext>(AppContext{appId});
        return APP_MANAGER_ERROR_NONE;
    }

    int getAppState(const AppContext& context, int& state) override {
        if (context.appId.empty())
            return APP_MANAGER_ERROR_INVALID_PARAMETER;
        GVariantPtr reply =
            call(context.appId.c_str(), applicationObjectPath(context.appId).c_str(),
                 "org.freedesktop.DBus.Properties", "Get",
                 g_variant_new("(ss)", kApplicationInterface, "State"), "(v)");
        if (!reply)
            return APP_MANAGER_ERROR_IO_ERROR;
        GVariant* raw = nullptr;
        g_variant_get(reply.get(), "(v)", &raw);
        GVariantPtr value(raw);
        if (!value || !g_variant_is_of_type(value.get(), G_VARIANT_TYPE_INT32)) {
            return APP_MANAGER_ERROR_IO_ERROR;
        }
        state = g_variant_get_int32(value.get());
        return APP_MANAGER_ERROR_NONE;
    }
};

Slot<AppManager>& slot() {
    static Slot<AppManager> s([] { return std::make_unique<LinuxAppManager>(); });
    return s;
}

}  // namespace

AppManager& appManager() {
    return slot().get();
}
void installAppManager(std::unique_ptr<AppManager> impl) {
    slot().install(std::move(impl));
}

}  // namespace pelio::platform
