#include "pelio/platform/SessionBus.h"

#include <gio/gio.h>
#include <pelio/CHandles.h>
#include <sys/stat.h>

#include <cstdlib>
#include <memory>

namespace pelio::platform {
namespace {

constexpr const char* kHowToGetOne =
    "log in to a desktop or systemd user session, or start a shell on a new bus with "
    "`dbus-run-session -- $SHELL`";

// The address the D-Bus libraries would use: the variable, else the per-user socket.
std::string sessionAddress() {
    const char* address = std::getenv("DBUS_SESSION_BUS_ADDRESS");
    if (address != nullptr && address[0] != '\0')
        return address;
    const char* runtime = std::getenv("XDG_RUNTIME_DIR");
    if (runtime == nullptr || runtime[0] != '/')
        return "";
    const std::string socket = std::string(runtime) + "/bus";
    struct stat st {};
    if (::stat(socket.c_str(), &st) == 0 && S_ISSOCK(st.st_mode))
        return "unix:path=" + socket;
    return "";
}

}  // namespace

std::string sessionBusProblem() {
    const std::string address = sessionAddress();
    if (address.empty())
        return std::string("no session bus: DBUS_SESSION_BUS_ADDRESS is not set; ") + kHowToGetOne;
    GError* raw = nullptr;
    GObjectPtr<GDBusConnection> connection(g_dbus_connection_new_for_address_sync(
        address.c_str(),
        static_cast<GDBusConnectionFlags>(G_DBUS_CONNECTION_FLAGS_AUTHENTICATION_CLIENT |
                                          G_DBUS_CONNECTION_FLAGS_MESSAGE_BUS_CONNECTION),
        nullptr, nullptr, &raw));
    GErrorPtr error(raw);
    if (connection) {
        g_dbus_connection_close_sync(connection.get(), nullptr, nullptr);
        return "";
    }
    std::string why = error ? error->message : "no answer";
    for (char& c : why) {
        if (c == '\n' || c == '\r')
            c = ' ';
    }
    return "cannot reach the session bus at " + address + " (" + why + "); " + kHowToGetOne;
}

}  // namespace pelio::platform
