// In-memory package manager for unit tests: a list of applications kept in package-name order,
// the same filter and look-up rules as on Linux (the locale is ignored), and fireEvent() to call
// the registered callback as the platform would, on the calling thread.
#pragma once

#include <pelio/platform/PackageManager.h>

#include <map>
#include <mutex>
#include <string>
#include <vector>

namespace pelio::test {

class FakePackageManager : public pelio::platform::PackageManager {
  public:
    int listApplications(pelio::platform::AppDisplayFilter filter, const std::string& locale,
                         std::vector<pelio::platform::AppInfo>& apps) override;
    int getApplication(const std::string& packageName, const std::string& locale,
                       pelio::platform::AppInfo& app) override;
    int setEventCallback(pelio::platform::PackageEventCallback cb, void* userData) override;
    int unsetEventCallback() override;

    // Adds or replaces an application (package name = app id).
    void put(const std::string& package, const std::string& label, bool preloaded = false,
             bool noDisplay = false, const std::string& version = "");
    void remove(const std::string& package);
    void fireEvent(const std::string& package, pelio::platform::PackageEventType type,
                   pelio::platform::PackageEventState state, int progress, int error = 0);
    bool hasCallback() const;

  private:
    mutable std::mutex mutex_;
    std::map<std::string, pelio::platform::AppInfo> apps_;
    pelio::platform::PackageEventCallback cb_ = nullptr;
    void* userData_ = nullptr;
};

}  // namespace pelio::test
