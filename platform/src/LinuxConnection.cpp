#include "LinuxConnection.h"

#include <gio/gio.h>
#include <pelio/CHandles.h>

#include <cstdlib>
#include <memory>

#include "pelio/platform/Slot.h"

namespace pelio::platform {
namespace {

constexpr const char* kSettingsGroup = "settings";
constexpr const char* kKeyStatus = "memory/dnet/status";
constexpr const char* kKeyProxy = "memory/dnet/proxy";

std::string settingsPath() {
    GCharPtr path(
        g_build_filename(g_get_user_config_dir(), "pelio-platform", "settings.ini", nullptr));
    return path.get();
}

// The settings key file, freshly loaded (GLib caches the user config dir, so the path is built
// from XDG_CONFIG_HOME when it is set, to follow a test's throw-away home).
GKeyFilePtr loadSettings() {
    std::string path;
    const char* xdg = std::getenv("XDG_CONFIG_HOME");
    if (xdg != nullptr && *xdg != '\0') {
        path = std::string(xdg) + "/pelio-platform/settings.ini";
    } else {
        path = settingsPath();
    }
    GKeyFilePtr file(g_key_file_new());
    if (!g_key_file_load_from_file(file.get(), path.c_str(), G_KEY_FILE_NONE, nullptr)) {
        return nullptr;
    }
    return file;
}

bool settingsInt(const char* key, int& value) {
    auto file = loadSettings();
    if (!file)
        return false;
    GError* raw = nullptr;
    int v = g_key_file_get_integer(file.get(), kSettingsGroup, key, &raw);
    if (raw != nullptr) {
        GErrorPtr err(raw);
        return false;
    }
    value = v;
    return true;
}

bool settingsString(const char* key, std::string& value) {
    auto file = loadSettings();
    if (!file)
        return false;
    GCharPtr v(g_key_file_get_string(file.get(), kSettingsGroup, key, nullptr));
    if (!v)
        return false;
    value = v.get();
    return true;
}

std::string environmentProxy() {
    for (const char* name : {"https_proxy", "HTTPS_PROXY", "http_proxy", "HTTP_PROXY"}) {
        const char* v = std::getenv(name);
        if (v != nullptr && *v != '\0')
            return reduceProxyUrl(v);
    }
    return {};
}

class LinuxConnectionHandle : public ConnectionHandle {
  public:
    int getType(int& type) override {
        int overridden = 0;
        if (settingsInt(kKeyStatus, overridden)) {
            type = overridden;
            return CONNECTION_ERROR_NONE;
        }
        GNetworkMonitor* monitor = g_network_monitor_get_default();  // not owned
        if (monitor == nullptr)
            return CONNECTION_ERROR_OPERATION_FAILED;
        type = g_network_monitor_get_network_available(monitor) ? CONNECTION_TYPE_ETHERNET
                                                                : CONNECTION_TYPE_DISCONNECTED;
        return CONNECTION_ERROR_NONE;
    }

    int getProxy(ConnectionAddressFamily family, std::string& proxy) override {
        if (family != CONNECTION_ADDRESS_FAMILY_IPV4 && family != CONNECTION_ADDRESS_FAMILY_IPV6) {
            return CONNECTION_ERROR_INVALID_PARAMETER;
        }
        std::string overridden;
        if (settingsString(kKeyProxy, overridden)) {
            proxy = overridden;
            return CONNECTION_ERROR_NONE;
        }
        proxy = environmentProxy();
        return CONNECTION_ERROR_NONE;
    }
};

Slot<Connection>& slot() {
    static Slot<Connection> s([] { return std::make_unique<LinuxConnection>(); });
    return s;
}

}  // namespace

int LinuxConnection::create(std::unique_ptr<ConnectionHandle>& handle) {
    handle = std::make_unique<LinuxConnectionHandle>();
    return CONNECTION_ERROR_NONE;
}

std::string reduceProxyUrl(const std::string& url) {
    std::string rest = url;
    auto scheme = rest.find("://");
    if (scheme != std::string::npos)
        rest = rest.substr(scheme + 3);
    auto slash = rest.find('/');
    if (slash != std::string::npos)
        rest = rest.substr(0, slash);
    auto at = rest.rfind('@');
    if (at != std::string::npos)
        rest = rest.substr(at + 1);
    return rest;
}

Connection& connection() {
    return slot().get();
}
void installConnection(std::unique_ptr<Connection> impl) {
    slot().install(std::move(impl));
}

}  // namespace pelio::platform
