// In-memory system information for unit tests: values per key (a key without a value answers
// with an error), and a count of the calls per key so a test can check a lookup was not repeated.
#pragma once

#include <pelio/platform/SystemInfo.h>
#include <map>
#include <mutex>
#include <string>

namespace pelio::test {

class FakeSystemInfo : public pelio::platform::SystemInfo {
  public:
    int getPlatformString(const std::string& key, std::string& value) override {
        std::lock_guard<std::mutex> guard(mutex_);
        ++calls_[key];
        if (auto f = failures_.find(key); f != failures_.end())
            return f->second;
        auto it = values_.find(key);
        if (it == values_.end())
            return pelio::platform::SYSTEM_INFO_ERROR_IO_ERROR;
        value = it->second;
        return pelio::platform::SYSTEM_INFO_ERROR_NONE;
    }

    void set(const std::string& key, const std::string& value) {
        std::lock_guard<std::mutex> guard(mutex_);
        failures_.erase(key);
        values_[key] = value;
    }
    // Lookups of key answer with code (e.g. SYSTEM_INFO_ERROR_IO_ERROR) from now on.
    void fail(const std::string& key, int code) {
        std::lock_guard<std::mutex> guard(mutex_);
        failures_[key] = code;
    }
    int calls(const std::string& key) {
        std::lock_guard<std::mutex> guard(mutex_);
        return calls_[key];
    }

  private:
    std::mutex mutex_;
    std::map<std::string, std::string> values_;
    std::map<std::string, int> failures_;
    std::map<std::string, int> calls_;
};

}  // namespace pelio::test
