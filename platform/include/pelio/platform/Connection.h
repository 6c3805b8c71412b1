// Connection service: the current connection type and the device proxy.
//
// Linux: whether a network is up comes from GIO's GNetworkMonitor (up: Ethernet, type 3), the
// proxy from the https_proxy / http_proxy environment (either case), reduced to "host:port". The
// system settings keys "memory/dnet/status" (int) and "memory/dnet/proxy" (string; empty = no
// proxy) in $XDG_CONFIG_HOME/pelio-platform/settings.ini (group [settings]) override both; they are
// read afresh on every call. Safe from any thread; a ConnectionHandle is used by one thread.
#pragma once

#include <memory>
#include <string>

namespace pelio::platform {

enum ConnectionType {
    CONNECTION_TYPE_DISCONNECTED = 0,
    CONNECTION_TYPE_WIFI = 1,
    CONNECTION_TYPE_CELLULAR = 2,
    CONNECTION_TYPE_ETHERNET = 3,
};

enum ConnectionAddressFamily {
    CONNECTION_ADDRESS_FAMILY_IPV4 = 0,
    CONNECTION_ADDRESS_FAMILY_IPV6 = 1,
};

enum ConnectionError {
    CONNECTION_ERROR_NONE = 0,
    CONNECTION_ERROR_INVALID_PARAMETER = -22,
    CONNECTION_ERROR_OUT_OF_MEMORY = -12,
    CONNECTION_ERROR_OPERATION_FAILED = -1,
};

// One open handle of the connection service (connection_create .. connection_destroy).
class ConnectionHandle {
  public:
    virtual ~ConnectionHandle() = default;
    // connection_get_type: fills type with a ConnectionType value.
    virtual int getType(int& type) = 0;
    // connection_get_proxy: fills proxy with "host:port", or empty text when there is none.
    virtual int getProxy(ConnectionAddressFamily family, std::string& proxy) = 0;
};

class Connection {
  public:
    virtual ~Connection() = default;
    // connection_create: a new handle in handle, or an error code and handle left empty.
    virtual int create(std::unique_ptr<ConnectionHandle>& handle) = 0;
};

Connection& connection();
void installConnection(std::unique_ptr<Connection> impl);

// "host:port" from a proxy URL such as "http://user:pw@host:3128/" (scheme, credentials and path
// dropped; a missing port stays missing). Empty text for empty input.
std::string reduceProxyUrl(const std::string& url);

}  // namespace pelio::platform
