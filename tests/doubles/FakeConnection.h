// In-memory connection service for unit tests: the type, the proxy and failure switches are
// plain fields, read by every handle at call time. Install with FakeConnection::install(), which
// returns the object (owned by the platform slot; valid until the next install).
#pragma once

#include <pelio/platform/Connection.h>

#include <atomic>
#include <memory>
#include <mutex>
#include <string>

namespace pelio::test {

class FakeConnection : public pelio::platform::Connection {
  public:
    static FakeConnection& install() {
        auto fake = std::make_unique<FakeConnection>();
        FakeConnection& ref = *fake;
        pelio::platform::installConnection(std::move(fake));
        return ref;
    }

    int create(std::unique_ptr<pelio::platform::ConnectionHandle>& handle) override {
        if (failCreate)
            return pelio::platform::CONNECTION_ERROR_OUT_OF_MEMORY;
        handle = std::make_unique<Handle>(*this);
        return pelio::platform::CONNECTION_ERROR_NONE;
    }

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
    class Handle : public pelio::platform::ConnectionHandle {
      public:
        explicit Handle(FakeConnection& owner) : owner_(owner) {}
        int getType(int& type) override {
            type = owner_.type();
            return pelio::platform::CONNECTION_ERROR_NONE;
        }
        int getProxy(pelio::platform::ConnectionAddressFamily, std::string& proxy) override {
            ++owner_.proxyReads;
            if (owner_.failGetProxy)
                return pelio::platform::CONNECTION_ERROR_OPERATION_FAILED;
            proxy = owner_.proxy();
            return pelio::platform::CONNECTION_ERROR_NONE;
        }

      private:
        FakeConnection& owner_;
    };

    mutable std::mutex mutex_;
    std::atomic<int> type_{pelio::platform::CONNECTION_TYPE_WIFI};
    std::string proxy_;
};

}  // namespace pelio::test
