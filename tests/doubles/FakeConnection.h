// In-memory connection service for unit tests: the type, the proxy and failure switches are
// plain fields, read by every handle at call time. Install with FakeConnection::install(), which
// returns the object (owned by the platform slot; valid until the next install).
#pragma once

#include <pelio/platform/Connection.h>

#include <atomic>
#include <mutex>
#include <string>

namespace pelio::test {

class FakeConnection : public pelio::platform::Connection {
  public:
    static FakeConnection& install();

    int create(std::unique_ptr<pelio::platform::ConnectionHandle>& handle) override;

    void setType(int type) { type_ = type; }
    void setProxy(const std::string& proxy) {
        std::lock_guard<std::mutex> guard(mutex_);
        proxy_ = proxy;
    }
    std::string proxy() const {
        std::lock_guard<std::mutex> guard(mutex_);
        return proxy_;
    }
    int type() const { return type_; }

    std::atomic<bool> failCreate{false};
    std::atomic<bool> failGetProxy{false};
    std::atomic<int> proxyReads{0};

  private:
    mutable std::mutex mutex_;
    std::atomic<int> type_{pelio::platform::CONNECTION_TYPE_WIFI};
    std::string proxy_;
};

}  // namespace pelio::test
