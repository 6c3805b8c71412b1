#include "doubles/FakeSystemSettings.h"

#include <algorithm>
#include <cstdlib>
#include <iterator>

namespace pp = pelio::platform;

namespace pelio::test {

int FakeSystemSettings::getString(const std::string& key, std::string& value) {
    std::lock_guard<std::mutex> guard(mutex_);
    auto it = values_.find(key);
    if (it == values_.end())
        return pp::SETTINGS_ERROR_NO_KEY;
    value = it->second;
    return pp::SETTINGS_ERROR_NONE;
}

int FakeSystemSettings::getInt(const std::string& key, int& value) {
    std::string text;
    if (int rc = getString(key, text); rc != pp::SETTINGS_ERROR_NONE)
        return rc;
    char* end = nullptr;
    const long v = std::strtol(text.c_str(), &end, 10);
    if (text.empty() || *end)
        return pp::SETTINGS_ERROR_BAD_VALUE;
    value = static_cast<int>(v);
    return pp::SETTINGS_ERROR_NONE;
}

int FakeSystemSettings::getBool(const std::string& key, bool& value) {
    std::string text;
    if (int rc = getString(key, text); rc != pp::SETTINGS_ERROR_NONE)
        return rc;
    if (text != "true" && text != "false")
        return pp::SETTINGS_ERROR_BAD_VALUE;
    value = text == "true";
    return pp::SETTINGS_ERROR_NONE;
}

int FakeSystemSettings::setInt(const std::string& key, int value) {
    return setString(key, std::to_string(value));
}

int FakeSystemSettings::setBool(const std::string& key, bool value) {
    return setString(key, value ? "true" : "false");
}

int FakeSystemSettings::setString(const std::string& key, const std::string& value) {
    {
        std::lock_guard<std::mutex> guard(mutex_);
        auto it = values_.find(key);
        if (it != values_.end() && it->second == value)
            return pp::SETTINGS_ERROR_NONE;
        values_[key] = value;
    }
    notify(key);
    return pp::SETTINGS_ERROR_NONE;
}

int FakeSystemSettings::addChangedCallback(const std::string& key, pp::SettingChangedCallback cb,
                                           void* userData) {
    std::lock_guard<std::mutex> guard(mutex_);
    watchers_.push_back({key, cb, userData});
    return pp::SETTINGS_ERROR_NONE;
}

int FakeSystemSettings::removeChangedCallback(const std::string& key,
                                              pp::SettingChangedCallback cb) {
    std::lock_guard<std::mutex> guard(mutex_);
    const auto removed =
        std::erase_if(watchers_, [&](const Watcher& w) { return w.key == key && w.cb == cb; });
    return removed > 0 ? pp::SETTINGS_ERROR_NONE : pp::SETTINGS_ERROR_INVALID_PARAMETER;
}

std::size_t FakeSystemSettings::callbackCount(const std::string& key) const {
    std::lock_guard<std::mutex> guard(mutex_);
    return std::count_if(watchers_.begin(), watchers_.end(),
                         [&](const Watcher& w) { return w.key == key; });
}

void FakeSystemSettings::notify(const std::string& key) {
    std::vector<Watcher> due;
    {
        std::lock_guard<std::mutex> guard(mutex_);
        std::copy_if(watchers_.begin(), watchers_.end(), std::back_inserter(due),
                     [&](const Watcher& w) { return w.key == key; });
    }
    for (const auto& w : due)
        w.cb(w.key.c_str(), w.userData);
}

}  // namespace pelio::test
