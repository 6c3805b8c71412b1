// Waiting for a condition another thread brings about. Header-only; any thread.
#pragma once

#include <chrono>
#include <functional>
#include <thread>

namespace pelio::test {

// Polls cond until it holds (true) or a generous limit passes (false). Not a timing assertion:
// the limit only keeps a broken build from hanging.
inline bool eventually(const std::function<bool()>& cond,
                       std::chrono::seconds limit = std::chrono::seconds(30)) {
    const auto end = std::chrono::steady_clock::now() + limit;
    while (std::chrono::steady_clock::now() < end) {
        if (cond())
            return true;
        std::this_thread::sleep_for(std::chrono::milliseconds(2));
    }
    return cond();
}

}  // namespace pelio::test
