#pragma once

#include <cstdint>
#include <deque>
#include <functional>
#include <map>
#include <mutex>
#include <string>

#include "CouchClient.h"
#include "ForceLimiter.h"
#include "SessionToken.h"

// The PDS calls: open, close and wipe of a device's session. Each takes the request body (JSON
// text) and returns an HTTP status and a JSON body: 200 with an object of strings, or another
// status with {"message": s}. Also holds the test knobs (injected faults, a log of the calls).
// Thread-safe: called from the listener's worker threads; faults and the call log are guarded.
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
    };

    PdsService(Config config, const CouchClient& couch, const SessionToken& tokens,
               ForceLimiter& limiter, std::function<std::int64_t()> clock);

    Answer open(const std::string& body);
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

    Config config_;
    const CouchClient& couch_;
    const SessionToken& tokens_;
    ForceLimiter& limiter_;
    std::function<std::int64_t()> clock_;

    mutable std::mutex mutex_;
    std::map<std::string, Fault> faults_;
    std::deque<std::string> calls_;
};
