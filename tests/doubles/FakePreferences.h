// The Linux preference store on a file in its own temporary folder (removed with the object),
// plus injected failures: failNext() makes the next calls of a setter or isExisting fail with a
// given code. Thread-safe, as the store is.
#pragma once

#include <pelio/platform/Preferences.h>
#include <filesystem>
#include <map>
#include <memory>
#include <mutex>
#include <string>

#include "support/TempHome.h"

namespace pelio::test {

class FakePreferences : public pelio::platform::Preferences {
  public:
    FakePreferences() {
        dir_ = makeTempDir("pelio-prefs");
        store_ = pelio::platform::openPreferencesFile(dir_ + "/.preferences.ini", false);
    }
    ~FakePreferences() override {
        std::error_code ec;
        std::filesystem::remove_all(dir_, ec);
    }

    int setInt(const std::string& k, int v) override {
        return failed("setInt", [&] { return store_->setInt(k, v); });
    }
    int getInt(const std::string& k, int& v) override { return store_->getInt(k, v); }
    int setDouble(const std::string& k, double v) override {
        return failed("setDouble", [&] { return store_->setDouble(k, v); });
    }
    int getDouble(const std::string& k, double& v) override { return store_->getDouble(k, v); }
    int setBoolean(const std::string& k, bool v) override {
        return failed("setBoolean", [&] { return store_->setBoolean(k, v); });
    }
    int getBoolean(const std::string& k, bool& v) override { return store_->getBoolean(k, v); }
    int setString(const std::string& k, const std::string& v) override {
        return failed("setString", [&] { return store_->setString(k, v); });
    }
    int getString(const std::string& k, std::string& v) override { return store_->getString(k, v); }
    int isExisting(const std::string& k, bool& e) override {
        return failed("isExisting", [&] { return store_->isExisting(k, e); });
    }
    int remove(const std::string& k) override { return store_->remove(k); }
    std::vector<pelio::platform::PreferenceItem> items() override { return store_->items(); }

    // The next `times` calls of operation ("setInt", "setString", "isExisting", ...) return code.
    void failNext(const std::string& operation, int code, int times = 1) {
        std::lock_guard<std::mutex> guard(mutex_);
        failures_[operation] = {code, times};
    }

  private:
    // The injected failure code of operation, or what the store answers.
    template <typename Call>
    int failed(const std::string& operation, Call&& call) {
        {
            std::lock_guard<std::mutex> guard(mutex_);
            auto it = failures_.find(operation);
            if (it != failures_.end() && it->second.second > 0) {
                --it->second.second;
                return it->second.first;
            }
        }
        return call();
    }

    std::string dir_;
    std::unique_ptr<pelio::platform::Preferences> store_;
    std::mutex mutex_;
    std::map<std::string, std::pair<int, int>> failures_;  // operation -> (code, times)
};

}  // namespace pelio::test
