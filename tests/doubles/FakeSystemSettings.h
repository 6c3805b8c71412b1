// In-memory system settings for unit tests: values kept as text (as the Linux key file keeps
// them), typed reads with the Linux store's errors, and change callbacks run at once on the
// setting thread, without the lock, after a set that changed a value. Thread-safe.
#pragma once

#include <pelio/platform/SystemSettings.h>
#include <map>
#include <mutex>
#include <string>
#include <vector>

namespace pelio::test {

class FakeSystemSettings : public pelio::platform::SystemSettings {
  public:
    int getInt(const std::string& key, int& value) override;
    int getBool(const std::string& key, bool& value) override;
    int getString(const std::string& key, std::string& value) override;
    int setInt(const std::string& key, int value) override;
    int setBool(const std::string& key, bool value) override;
    int setString(const std::string& key, const std::string& value) override;
    int addChangedCallback(const std::string& key, pelio::platform::SettingChangedCallback cb,
                           void* userData) override;
    int removeChangedCallback(const std::string& key,
                              pelio::platform::SettingChangedCallback cb) override;

    // Callbacks registered for key.
    std::size_t callbackCount(const std::string& key) const;

  private:
    struct Watcher {
        std::string key;
        pelio::platform::SettingChangedCallback cb;
        void* userData;
    };
    void notify(const std::string& key);

    mutable std::mutex mutex_;
    std::map<std::string, std::string> values_;
    std::vector<Watcher> watchers_;
};

}  // namespace pelio::test
