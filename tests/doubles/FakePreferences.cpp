#include "doubles/FakePreferences.h"

#include <cstdio>
#include <cstdlib>

using pelio::platform::PreferenceType;

namespace pelio::test {

int FakePreferences::enter(const std::string& operation) {
    auto it = failures_.find(operation);
    if (it == failures_.end() || it->second.second <= 0)
        return 0;
    --it->second.second;
    return it->second.first;
}

void FakePreferences::failNext(const std::string& operation, int code, int times) {
    std::lock_guard<std::mutex> guard(mutex_);
    failures_[operation] = {code, times};
}

int FakePreferences::set(const std::string& op, const std::string& key, PreferenceType type,
                         const std::string& text) {
    std::lock_guard<std::mutex> guard(mutex_);
    if (int rc = enter(op))
        return rc;
    if (key.empty())
        return pelio::platform::PREFERENCE_ERROR_INVALID_PARAMETER;
    values_[key] = {type, text};
    return 0;
}

int FakePreferences::get(const std::string& key, PreferenceType type,
                         const std::function<void(const std::string&)>& read) {
    std::lock_guard<std::mutex> guard(mutex_);
    auto it = values_.find(key);
    if (it == values_.end() || it->second.first != type)
        return pelio::platform::PREFERENCE_ERROR_NO_KEY;
    read(it->second.second);
    return 0;
}

int FakePreferences::setInt(const std::string& key, int value) {
    return set("setInt", key, PreferenceType::Int, std::to_string(value));
}
int FakePreferences::getInt(const std::string& key, int& value) {
    return get(key, PreferenceType::Int,
               [&](const std::string& t) { value = std::atoi(t.c_str()); });
}
int FakePreferences::setDouble(const std::string& key, double value) {
    char buf[64];
    std::snprintf(buf, sizeof buf, "%.17g", value);
    return set("setDouble", key, PreferenceType::Double, buf);
}
int FakePreferences::getDouble(const std::string& key, double& value) {
    return get(key, PreferenceType::Double,
               [&](const std::string& t) { value = std::strtod(t.c_str(), nullptr); });
}
int FakePreferences::setBoolean(const std::string& key, bool value) {
    return set("setBoolean", key, PreferenceType::Boolean, value ? "true" : "false");
}
int FakePreferences::getBoolean(const std::string& key, bool& value) {
    return get(key, PreferenceType::Boolean, [&](const std::string& t) { value = t == "true"; });
}
int FakePreferences::setString(const std::string& key, const std::string& value) {
    return set("setString", key, PreferenceType::String, value);
}
int FakePreferences::getString(const std::string& key, std::string& value) {
    return get(key, PreferenceType::String, [&](const std::string& t) { value = t; });
}
int FakePreferences::isExisting(const std::string& key, bool& existing) {
    std::lock_guard<std::mutex> guard(mutex_);
    if (int rc = enter("isExisting"))
        return rc;
    existing = values_.count(key) > 0;
    return 0;
}
int FakePreferences::remove(const std::string& key) {
    std::lock_guard<std::mutex> guard(mutex_);
    return values_.erase(key) ? 0 : pelio::platform::PREFERENCE_ERROR_NO_KEY;
}
std::vector<pelio::platform::PreferenceItem> FakePreferences::items() {
    std::lock_guard<std::mutex> guard(mutex_);
    std::vector<pelio::platform::PreferenceItem> out;
    for (const auto& [key, value] : values_)
        out.push_back({key, value.first, value.second});
    return out;
}

}  // namespace pelio::test
