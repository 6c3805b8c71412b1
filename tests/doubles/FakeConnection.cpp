#include "doubles/FakeConnection.h"

#include <memory>

namespace pelio::test {
namespace {

class FakeHandle : public pelio::platform::ConnectionHandle {
  public:
    explicit FakeHandle(FakeConnection& owner) : owner_(owner) {}

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

}  // namespace

FakeConnection& FakeConnection::install() {
    auto fake = std::make_unique<FakeConnection>();
    FakeConnection& ref = *fake;
    pelio::platform::installConnection(std::move(fake));
    return ref;
}

int FakeConnection::create(std::unique_ptr<pelio::platform::ConnectionHandle>& handle) {
    if (failCreate)
        return pelio::platform::CONNECTION_ERROR_OUT_OF_MEMORY;
    handle = std::make_unique<FakeHandle>(*this);
    return pelio::platform::CONNECTION_ERROR_NONE;
}

}  // namespace pelio::test
