#pragma once

#include <string>

// The device's secret for the PDS server: 256 random bits as 64 hex digits, created once and kept
// in the service's data directory ($XDG_DATA_HOME/com.quorvin.plmsvc/data/.orvane-device-secret,
// owner-only permissions). The server binds it to the device id on the first open and asks for
// it with every later open, close and wipe. Stateless; safe from any thread (creation is atomic:
// a second creator finds the first one's file).
class DeviceSecret {
  public:
    static std::string defaultPath();

    // The secret kept at `path`, created when missing. Empty, with `error` set, when it cannot
    // be read or created (the file is then left as it is).
    static std::string loadOrCreate(const std::string& path, std::string& error);
};
