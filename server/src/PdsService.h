#pragma once

#include <cstdint>
#include <deque>
#include <functional>
#include <map>
#include <mutex>
#include <nlohmann/json.hpp>
#include <string>

#include "CouchClient.h"
#include "DeviceRegistry.h"
#include "ForceLimiter.h"
#include "SessionToken.h"

// The PDS calls: open, close and wipe of a device's session. Each takes the request body (JSON
// text) and returns an HTTP status and a JSON body: 200 with an object of strings, or another
// status with {"message": s}. Every call presents the device's secret ("device_secret"): the first
// open binds it (at most `newDevices` new devices per client address and window), later calls
// must match it (401 when missing, 403 when wrong). Bodies nesting deeper than 64 levels answer
// 400 before anything parses them. Also holds the test knobs (injected faults, and a journal of
// the last calls, kept only when `journalSize` > 0).
// Thread-safe: called from the listener's worker threads; faults and the journal are guarded.
class PdsService {
  public:
    struct Answer {
        int status = 200;
        std::string body;
    };

    // An injected answer for one operation: either a 200 with reason/result, or `status` with
    // {"message": message}. `remaining` < 0 means until cleared.
    struct Fault {
        int status = 200;
        std::string reason = "failure";
        std::string result;
        std::string message;
        int remaining = -1;
    };

    struct Config {
        std::string dbUrlBase;
        std::int64_t sessionTtlSeconds = 3600;
        std::string policy;
        std::size_t journalSize = 0;  // calls kept for GET /admin/calls; 0 = none
    };

    PdsService(Config config, const CouchClient& couch, const SessionToken& tokens,
               const DeviceRegistry& registry, ForceLimiter& forceLimiter, ForceLimiter& newDevices,
               std::function<std::int64_t()> clock);

    // `client`: the caller's address, for the limit on new devices.
    Answer open(const std::string& body, const std::string& client);
    Answer close(const std::string& body);
    Answer wipe(const std::string& body);

    // Test knobs.
    void setFault(const std::string& op, Fault fault);
    void clearFaults();
    std::string callLog() const;  // JSON array of {"op": s, "body": {...}} of the last calls

    // The database of a device: "plm_" and 32 hex digits of the SHA-256 of its id.
    static std::string databaseFor(const std::string& deviceId);
    static std::string defaultPolicy();

  private:
    bool takeFault(const std::string& op, Answer& answer);
    void record(const std::string& op, const std::string& body);
    // Parses and authenticates a call; on refusal fills `answer` and returns false.
    bool admit(const std::string& op, const std::string& body, const std::string* client,
               nlohmann::json& req, Answer& answer);

    Config config_;
    const CouchClient& couch_;
    const SessionToken& tokens_;
    const DeviceRegistry& registry_;
    ForceLimiter& limiter_;
    ForceLimiter& newDevices_;
    std::function<std::int64_t()> clock_;

    mutable std::mutex mutex_;
    std::map<std::string, Fault> faults_;
    std::deque<std::string> calls_;
};
