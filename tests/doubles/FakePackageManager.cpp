#include "doubles/FakePackageManager.h"

namespace pp = pelio::platform;

namespace pelio::test {

int FakePackageManager::setEventCallback(pp::PackageEventCallback cb, void* userData) {
    std::lock_guard<std::mutex> guard(mutex_);
    cb_ = cb;
    userData_ = userData;
    return pp::PACKAGE_MANAGER_ERROR_NONE;
}

void FakePackageManager::fireEvent(const std::string& package, pp::PackageEventType type,
                                   pp::PackageEventState state, int progress, int error) {
    pp::PackageEventCallback cb = nullptr;
    void* userData = nullptr;
    {
        std::lock_guard<std::mutex> guard(mutex_);
        cb = cb_;
        userData = userData_;
    }
    if (cb != nullptr)
        cb("desktop", package.c_str(), type, state, progress, error, userData);
}

bool FakePackageManager::hasCallback() const {
    std::lock_guard<std::mutex> guard(mutex_);
    return cb_ != nullptr;
}

}  // namespace pelio::test
