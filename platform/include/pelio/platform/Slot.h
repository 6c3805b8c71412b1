// Holder of the implementation behind one platform interface.
//
// Every platform module is reached through an abstract interface. Its Linux implementation is
// created on first use; tests install an in-memory double instead. Install replacements before
// any thread uses the module (test set-up), never while service threads run.
#pragma once

#include <functional>
#include <memory>
#include <mutex>

namespace pelio::platform {

template <class Interface>
class Slot {
  public:
    using Factory = std::function<std::unique_ptr<Interface>()>;

    explicit Slot(Factory makeDefault) : makeDefault_(std::move(makeDefault)) {}

    // The current implementation; the Linux default is created on first call.
    Interface& get() {
        std::lock_guard<std::mutex> guard(mutex_);
        if (!impl_)
            impl_ = makeDefault_();
        return *impl_;
    }

    // Replaces the implementation (nullptr: back to the Linux default at the next get()).
    void install(std::unique_ptr<Interface> impl) {
        std::lock_guard<std::mutex> guard(mutex_);
        impl_ = std::move(impl);
    }

  private:
    std::mutex mutex_;
    Factory makeDefault_;
    std::unique_ptr<Interface> impl_;
};

}  // namespace pelio::platform
