#include "doubles/FakePackageManager.h"

namespace pp = pelio::platform;

namespace pelio::test {

int FakePackageManager::listApplications(pp::AppDisplayFilter filter, const std::string&,
                                         std::vector<pp::AppInfo>& apps) {
    std::lock_guard<std::mutex> guard(mutex_);
    apps.clear();
    for (const auto& [id, app] : apps_) {
        if ((filter == pp::AppDisplayFilter::VisibleOnly && app.noDisplay) ||
            (filter == pp::AppDisplayFilter::HiddenOnly && !app.noDisplay))
            continue;
        apps.push_back(app);
    }
    return pp::PACKAGE_MANAGER_ERROR_NONE;
}

int FakePackageManager::getApplication(const std::string& packageName, const std::string&,
                                       pp::AppInfo& app) {
    std::lock_guard<std::mutex> guard(mutex_);
    const auto it = apps_.find(packageName);
    if (it == apps_.end())
        return pp::PACKAGE_MANAGER_ERROR_NO_SUCH_PACKAGE;
    app = it->second;
    return pp::PACKAGE_MANAGER_ERROR_NONE;
}

int FakePackageManager::setEventCallback(pp::PackageEventCallback cb, void* userData) {
    std::lock_guard<std::mutex> guard(mutex_);
    cb_ = cb;
    userData_ = userData;
    return pp::PACKAGE_MANAGER_ERROR_NONE;
}

int FakePackageManager::unsetEventCallback() {
    std::lock_guard<std::mutex> guard(mutex_);
    cb_ = nullptr;
    userData_ = nullptr;
    return pp::PACKAGE_MANAGER_ERROR_NONE;
}

void FakePackageManager::put(const std::string& package, const std::string& label, bool preloaded,
                             bool noDisplay, const std::string& version) {
    std::lock_guard<std::mutex> guard(mutex_);
    apps_[package] = pp::AppInfo{package, package, label, version, preloaded, noDisplay};
}

void FakePackageManager::remove(const std::string& package) {
    std::lock_guard<std::mutex> guard(mutex_);
    apps_.erase(package);
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
