#include "doubles/FakeSystemInfo.h"

namespace pelio::test {

int FakeSystemInfo::getPlatformString(const std::string& key, std::string& value) {
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

void FakeSystemInfo::set(const std::string& key, const std::string& value) {
    std::lock_guard<std::mutex> guard(mutex_);
    failures_.erase(key);
    values_[key] = value;
}

void FakeSystemInfo::fail(const std::string& key, int code) {
    std::lock_guard<std::mutex> guard(mutex_);
    failures_[key] = code;
}

int FakeSystemInfo::calls(const std::string& key) const {
    std::lock_guard<std::mutex> guard(mutex_);
    auto it = calls_.find(key);
    return it == calls_.end() ? 0 : it->second;
}

}  // namespace pelio::test
