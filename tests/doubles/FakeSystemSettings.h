// In-memory system settings for unit tests: values kept as text (as the Linux key file keeps
// them), integer reads with the Linux store's errors, and change callbacks run at once on the
// setting thread, without the lock, after a set that changed a value. Thread-safe.
#pragma once

#include <pelio/platform/SystemSettings.h>
#include <algorithm>
#include <cstdlib>
#include <map>
#include <mutex>
#include <string>
#include <vector>

namespace pelio::test {

class FakeSystemSettings : public pelio::platform::SystemSettings {
  public:
    int getString(const std::string& key, std::string& value) override {
        std::lock_guard<std::mutex> guard(mutex_);
        auto it = values_.find(key);
        if (it == values_.end())
            return pelio::platform::SETTINGS_ERROR_NO_KEY;
        value = it->second;
        return pelio::platform::SETTINGS_ERROR_NONE;
    }
    int getInt(const std::string& key, int& value) override {
        std::string text;
        char* end = nullptr;
        if (int rc = getString(key, text))
            return rc;
        const long v = std::strtol(text.c_str(), &end, 10);
        if (text.empty() || *end)
            return pelio::platform::SETTINGS_ERROR_BAD_VALUE;
        value = static_cast<int>(v);
        return pelio::platform::SETTINGS_ERROR_NONE;
    }
    int getBool(const std::string& key, bool& value) override {  // no reader in the service
        std::string text;
        const int rc = getString(key, text);
        value = text == "true";
        return rc;
    }
    int setInt(const std::string& key, int value) override {
        return setString(key, std::to_string(value));
    }
    int setBool(const std::string& key, bool value) override {
        return setString(key, value ? "true" : "false");
    }
    int setString(const std::string& key, const std::string& value) override {
        std::vector<Watcher> due;
        {
            std::lock_guard<std::mutex> guard(mutex_);
            if (auto it = values_.find(key); it != values_.end() && it->second == value)
                return pelio::platform::SETTINGS_ERROR_NONE;
            values_[key] = value;
            std::copy_if(watchers_.begin(), watchers_.end(), std::back_inserter(due),
                         [&](const Watcher& w) { return w.key == key; });
        }
        for (const auto& w : due)
            w.cb(w.key.c_str(), w.userData);
        return pelio::platform::SETTINGS_ERROR_NONE;
    }
    int addChangedCallback(const std::string& key, pelio::platform::SettingChangedCallback cb,
                           void* userData) override {
        std::lock_guard<std::mutex> guard(mutex_);
        watchers_.push_back({key, cb, userData});
        return pelio::platform::SETTINGS_ERROR_NONE;
    }
    int removeChangedCallback(const std::string& key,
                              pelio::platform::SettingChangedCallback cb) override {
        std::lock_guard<std::mutex> guard(mutex_);
        return std::erase_if(watchers_,
                             [&](const Watcher& w) { return w.key == key && w.cb == cb; })
                   ? pelio::platform::SETTINGS_ERROR_NONE
                   : pelio::platform::SETTINGS_ERROR_INVALID_PARAMETER;
    }

    // Callbacks registered for key.
    std::size_t callbackCount(const std::string& key) const {
        std::lock_guard<std::mutex> guard(mutex_);
        return std::count_if(watchers_.begin(), watchers_.end(),
                             [&](const Watcher& w) { return w.key == key; });
    }

  private:
    struct Watcher {
        std::string key;
        pelio::platform::SettingChangedCallback cb;
        void* userData;
    };

    mutable std::mutex mutex_;
    std::map<std::string, std::string> values_;
    std::vector<Watcher> watchers_;
};

}  // namespace pelio::test
