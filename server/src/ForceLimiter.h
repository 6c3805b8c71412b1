#pragma once

#include <cstdint>
#include <deque>
#include <map>
#include <mutex>
#include <string>

// Counts forced opens per device in a sliding window. This is rate limiting only; a restarted
// server starts counting afresh. Thread-safe (one internal mutex).
class ForceLimiter {
  public:
    ForceLimiter(int limit, std::int64_t windowSeconds);

    // Records a forced open at `now` and returns 0 when it is allowed; when the device already
    // used its `limit` opens within the window, records nothing and returns the number of seconds
    // (at least 1) after which the next forced open will be allowed.
    std::int64_t admit(const std::string& deviceId, std::int64_t now);

  private:
    const int limit_;
    const std::int64_t window_;
    std::mutex mutex_;
    std::map<std::string, std::deque<std::int64_t>> opens_;
};
