#pragma once

#include <string>

#include "CouchClient.h"

// Device credentials. A device presents a secret with every open, close and wipe; the first open
// binds the SHA-256 of that secret to the device id, in one document per device (id: the device's
// database name) of the registry database in the CouchDB-compatible database, so that every
// pds-server instance in front of that database sees the same bindings. Only the hash is stored.
// An operator removes a binding (reset) when a device lost its secret.
// Thread-safe: no mutable state; every call is a database request.
class DeviceRegistry {
  public:
    enum class Verdict {
        Match,        // the device is registered with this secret
        Mismatch,     // registered with another secret
        Unknown,      // not registered
        Unreachable,  // the database could not be asked
    };

    static constexpr const char* kDatabase = "pds_devices";

    explicit DeviceRegistry(const CouchClient& couch);

    // Creates the registry database when missing. False when the database cannot be reached.
    bool prepare() const;

    // Compares `secret` with the device's binding.
    Verdict check(const std::string& deviceId, const std::string& secret) const;

    // Binds `secret` to an unregistered device. When another request bound it first, the answer
    // is the comparison with that binding.
    Verdict bind(const std::string& deviceId, const std::string& secret) const;

    // Removes the device's binding: Match when removed, Unknown when there was none.
    Verdict reset(const std::string& deviceId) const;

  private:
    std::string path(const std::string& deviceId) const;

    const CouchClient& couch_;
};
