#include "ForceLimiter.h"

#include <algorithm>

ForceLimiter::ForceLimiter(int limit, std::int64_t windowSeconds)
    : limit_(limit), window_(windowSeconds) {}

std::int64_t ForceLimiter::admit(const std::string& deviceId, std::int64_t now) {
    std::lock_guard<std::mutex> lock(mutex_);
    // Forget devices whose window has passed, so the map stays bounded by active devices.
    for (auto it = opens_.begin(); it != opens_.end();) {
        auto& times = it->second;
        while (!times.empty() && times.front() + window_ <= now) {
            times.pop_front();
        }
        it = times.empty() ? opens_.erase(it) : std::next(it);
    }
    auto& times = opens_[deviceId];
    if (static_cast<int>(times.size()) >= limit_) {
        const std::int64_t wait = times.empty() ? window_ : times.front() + window_ - now;
        if (times.empty()) {
            opens_.erase(deviceId);
        }
        return std::max<std::int64_t>(1, wait);
    }
    times.push_back(now);
    return 0;
}
