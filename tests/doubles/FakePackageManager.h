// A package manager without applications for unit tests that need only its event callback
// (tests that need applications use the Linux one on desktop entries in a throw-away home).
// fireEvent() calls the registered callback as the platform would, on the calling thread.
#pragma once

#include <pelio/platform/PackageManager.h>

#include <mutex>
#include <string>
#include <vector>

namespace pelio::test {

class FakePackageManager : public pelio::platform::PackageManager {
  public:
    int listApplications(pelio::platform::AppDisplayFilter, const std::string&,
                         std::vector<pelio::platform::AppInfo>& apps) override {
        apps.clear();
        return pelio::platform::PACKAGE_MANAGER_ERROR_NONE;
    }
    int getApplication(const std::string&, const std::string&, pelio::platform::AppInfo&) override {
        return pelio::platform::PACKAGE_MANAGER_ERROR_NO_SUCH_PACKAGE;
    }
    int setEventCallback(pelio::platform::PackageEventCallback cb, void* userData) override {
        std::lock_guard<std::mutex> guard(mutex_);
        cb_ = cb;
        userData_ = userData;
        return pelio::platform::PACKAGE_MANAGER_ERROR_NONE;
    }
    int unsetEventCallback() override { return setEventCallback(nullptr, nullptr); }

    void fireEvent(const std::string& package, pelio::platform::PackageEventType type,
                   pelio::platform::PackageEventState state, int progress, int error = 0) {
        std::unique_lock<std::mutex> guard(mutex_);
        const auto cb = cb_;
        void* userData = userData_;
        guard.unlock();
        if (cb != nullptr)
            cb("desktop", package.c_str(), type, state, progress, error, userData);
    }
    bool hasCallback() {
        std::lock_guard<std::mutex> guard(mutex_);
        return cb_ != nullptr;
    }

  private:
    std::mutex mutex_;
    pelio::platform::PackageEventCallback cb_ = nullptr;
    void* userData_ = nullptr;
};

}  // namespace pelio::test
