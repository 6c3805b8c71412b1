// In-memory preference store for unit tests: typed values in a map, thread-safe. failNext()
// makes the next calls of a setter or isExisting fail with a given code.
#pragma once

#include <pelio/platform/Preferences.h>
#include <functional>
#include <map>
#include <mutex>
#include <string>

namespace pelio::test {

class FakePreferences : public pelio::platform::Preferences {
  public:
    int setInt(const std::string& key, int value) override;
    int getInt(const std::string& key, int& value) override;
    int setDouble(const std::string& key, double value) override;
    int getDouble(const std::string& key, double& value) override;
    int setBoolean(const std::string& key, bool value) override;
    int getBoolean(const std::string& key, bool& value) override;
    int setString(const std::string& key, const std::string& value) override;
    int getString(const std::string& key, std::string& value) override;
    int isExisting(const std::string& key, bool& existing) override;
    int remove(const std::string& key) override;
    std::vector<pelio::platform::PreferenceItem> items() override;

    // The next `times` calls of operation ("setInt", "setString", "isExisting", ...) return code.
    void failNext(const std::string& operation, int code, int times = 1);

  private:
    int enter(const std::string& operation);  // the injected failure code or 0; lock held
    int set(const std::string& op, const std::string& key, pelio::platform::PreferenceType type,
            const std::string& text);
    // Hands the stored text of key to read when it has the type.
    int get(const std::string& key, pelio::platform::PreferenceType type,
            const std::function<void(const std::string&)>& read);

    mutable std::mutex mutex_;
    std::map<std::string, std::pair<pelio::platform::PreferenceType, std::string>> values_;
    std::map<std::string, std::pair<int, int>> failures_;  // operation -> (code, times)
};

}  // namespace pelio::test
