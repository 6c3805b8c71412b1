#include "LinuxPreferences.h"

#include <pelio/platform/AppPaths.h>
#include <pelio/platform/Log.h>
#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <iterator>
#include <utility>

namespace pelio::platform {
namespace {

constexpr const char* kTag = "PelioPlatform";

// One key-file group per type; a key lives in exactly one of them.
constexpr std::pair<PreferenceType, const char*> kGroups[] = {
    {PreferenceType::Int, "int"},
    {PreferenceType::Double, "double"},
    {PreferenceType::Boolean, "bool"},
    {PreferenceType::String, "string"},
};

const char* groupOf(PreferenceType type) {
    for (const auto& [groupType, name] : kGroups)
        if (groupType == type)
            return name;
    return "string";
}

// A key file cannot hold every key ("=", brackets, a leading "#" or blank, line breaks): such
// bytes, and "%" itself, are written as %XX.
bool needsEscape(unsigned char c) {
    return c <= ' ' || c >= 0x7f || std::strchr("%=[]#", c) != nullptr;
}

std::string encodeKey(const std::string& key) {
    std::string out;
    for (unsigned char c : key) {
        if (needsEscape(c)) {
            char buf[4];
            std::snprintf(buf, sizeof buf, "%%%02X", c);
            out += buf;
        } else {
            out += static_cast<char>(c);
        }
    }
    return out;
}

// False for a bad %XX sequence.
bool decodeKey(const std::string& in, std::string& out) {
    for (size_t pos = 0; pos < in.size(); ++pos) {
        if (in[pos] != '%') {
            out += in[pos];
            continue;
        }
        const std::string hex = in.substr(pos + 1, 2);
        if (hex.size() != 2 || !std::isxdigit(static_cast<unsigned char>(hex[0])) ||
            !std::isxdigit(static_cast<unsigned char>(hex[1])))
            return false;
        out += static_cast<char>(std::strtol(hex.c_str(), nullptr, 16));
        pos += 2;
    }
    return !out.empty();
}

bool validValue(PreferenceType type, const std::string& text) {
    errno = 0;
    char* end = nullptr;
    switch (type) {
        case PreferenceType::Int: {
            long v = std::strtol(text.c_str(), &end, 10);
            return !text.empty() && *end == '\0' && errno == 0 && v >= INT32_MIN && v <= INT32_MAX;
        }
        case PreferenceType::Double:
            g_ascii_strtod(text.c_str(), &end);
            return !text.empty() && *end == '\0';
        case PreferenceType::Boolean:
            return text == "true" || text == "false";
        case PreferenceType::String:
            return g_utf8_validate(text.data(), static_cast<gssize>(text.size()), nullptr);
    }
    return false;
}

std::string formatDouble(double value) {
    char buf[G_ASCII_DTOSTR_BUF_SIZE];
    return g_ascii_dtostr(buf, sizeof buf, value);
}

// The value of group/key as text; false when it is not a valid value of the group's type.
bool readValue(GKeyFile* file, PreferenceType type, const char* group, const char* key,
               std::string& text) {
    // A bad escape still returns a value, with an error beside it.
    g_autoptr(GError) error = nullptr;
    g_autofree gchar* raw = type == PreferenceType::String
                                ? g_key_file_get_string(file, group, key, &error)
                                : g_key_file_get_value(file, group, key, &error);
    if (!raw || error)
        return false;
    text = raw;
    return validValue(type, text);
}

}  // namespace

LinuxPreferences::LinuxPreferences(std::string fixedPath, bool readOnly)
    : fixedPath_(std::move(fixedPath)), readOnly_(readOnly) {}

std::string LinuxPreferences::path() const {
    return fixedPath_.empty() ? preferencesFilePath(currentAppId()) : fixedPath_;
}

LinuxPreferences::Map LinuxPreferences::load(const std::string& file, bool& damaged) const {
    damaged = false;
    Map values;
    g_autoptr(GError) error = nullptr;
    g_autofree gchar* data = nullptr;
    gsize size = 0;
    if (!g_file_get_contents(file.c_str(), &data, &size, &error)) {
        if (g_error_matches(error, G_FILE_ERROR, G_FILE_ERROR_NOENT))
            return values;  // no store yet
        dlog_print(DLOG_ERROR, kTag, "preferences: cannot read %s (%s), treated as empty",
                   file.c_str(), error->message);
        damaged = true;
        return values;
    }
    g_autoptr(GKeyFile) keys = g_key_file_new();
    const char* reason = nullptr;
    if (!g_utf8_validate(data, static_cast<gssize>(size), nullptr))
        reason = "not UTF-8";
    else if (!g_key_file_load_from_data(keys, data, size, G_KEY_FILE_NONE, &error))
        reason = error->message;
    else if (!parse(keys, values))
        reason = "unknown group, bad key or value";
    damaged = reason != nullptr;
    if (damaged) {
        dlog_print(DLOG_ERROR, kTag, "preferences: damaged store %s (%s), treated as empty",
                   file.c_str(), reason);
        values.clear();
    }
    return values;
}

bool LinuxPreferences::parse(GKeyFile* keys, Map& values) {
    gsize groupCount = 0;
    g_auto(GStrv) groups = g_key_file_get_groups(keys, &groupCount);
    for (gsize g = 0; g < groupCount; ++g) {
        const auto* known =
            std::find_if(std::begin(kGroups), std::end(kGroups),
                         [&](const auto& k) { return groups[g] == std::string(k.second); });
        if (known == std::end(kGroups))
            return false;
        g_auto(GStrv) names = g_key_file_get_keys(keys, groups[g], nullptr, nullptr);
        for (gchar** name = names; name && *name; ++name) {
            std::string key, text;
            if (!decodeKey(*name, key) || !readValue(keys, known->first, groups[g], *name, text) ||
                !values.emplace(key, Value{known->first, text}).second)
                return false;
        }
    }
    return true;
}

int LinuxPreferences::save(const std::string& file, const Map& values, bool damaged) const {
    if (damaged) {
        const std::string aside = file + ".damaged";
        if (::rename(file.c_str(), aside.c_str()) == 0)
            dlog_print(DLOG_WARN, kTag, "preferences: damaged store kept as %s", aside.c_str());
    }
    g_autoptr(GKeyFile) keys = g_key_file_new();
    for (const auto& [key, value] : values) {
        const std::string name = encodeKey(key);
        if (value.type == PreferenceType::String)
            g_key_file_set_string(keys, groupOf(value.type), name.c_str(), value.text.c_str());
        else
            g_key_file_set_value(keys, groupOf(value.type), name.c_str(), value.text.c_str());
    }
    gsize size = 0;
    g_autofree gchar* data = g_key_file_to_data(keys, &size, nullptr);
    g_autoptr(GError) error = nullptr;
    if (!g_file_set_contents_full(file.c_str(), data, static_cast<gssize>(size),
                                  static_cast<GFileSetContentsFlags>(
                                      G_FILE_SET_CONTENTS_CONSISTENT | G_FILE_SET_CONTENTS_DURABLE),
                                  0600, &error)) {
        dlog_print(DLOG_ERROR, kTag, "preferences: cannot write %s (%s)", file.c_str(),
                   error->message);
        return PREFERENCE_ERROR_IO_ERROR;
    }
    return PREFERENCE_ERROR_NONE;
}

int LinuxPreferences::set(const std::string& key, PreferenceType type, const std::string& text) {
    if (key.empty())
        return PREFERENCE_ERROR_INVALID_PARAMETER;
    if (readOnly_)
        return PREFERENCE_ERROR_IO_ERROR;
    if (!validValue(type, text)) {
        dlog_print(DLOG_ERROR, kTag, "preferences: %s is not valid UTF-8, not stored", key.c_str());
        return PREFERENCE_ERROR_INVALID_PARAMETER;
    }
    std::lock_guard<std::mutex> guard(mutex_);
    const std::string file = path();
    if (file.empty())
        return PREFERENCE_ERROR_IO_ERROR;
    bool damaged = false;
    Map values = load(file, damaged);
    const auto stored = values.find(key);
    if (!damaged && stored != values.end() && stored->second.type == type &&
        stored->second.text == text)
        return PREFERENCE_ERROR_NONE;  // already so: the file is not written (nor synced) again
    values[key] = Value{type, text};
    return save(file, values, damaged);
}

int LinuxPreferences::get(const std::string& key, PreferenceType type, std::string& text) {
    if (key.empty())
        return PREFERENCE_ERROR_INVALID_PARAMETER;
    std::lock_guard<std::mutex> guard(mutex_);
    bool damaged = false;
    const Map values = load(path(), damaged);
    auto it = values.find(key);
    if (it == values.end() || it->second.type != type)
        return PREFERENCE_ERROR_NO_KEY;
    text = it->second.text;
    return PREFERENCE_ERROR_NONE;
}

int LinuxPreferences::setInt(const std::string& key, int value) {
    return set(key, PreferenceType::Int, std::to_string(value));
}

int LinuxPreferences::getInt(const std::string& key, int& value) {
    std::string text;
    int rc = get(key, PreferenceType::Int, text);
    if (rc == PREFERENCE_ERROR_NONE)
        value = static_cast<int>(std::strtol(text.c_str(), nullptr, 10));
    return rc;
}

int LinuxPreferences::setDouble(const std::string& key, double value) {
    return set(key, PreferenceType::Double, formatDouble(value));
}

int LinuxPreferences::getDouble(const std::string& key, double& value) {
    std::string text;
    int rc = get(key, PreferenceType::Double, text);
    if (rc == PREFERENCE_ERROR_NONE)
        value = g_ascii_strtod(text.c_str(), nullptr);
    return rc;
}

int LinuxPreferences::setBoolean(const std::string& key, bool value) {
    return set(key, PreferenceType::Boolean, value ? "true" : "false");
}

int LinuxPreferences::getBoolean(const std::string& key, bool& value) {
    std::string text;
    int rc = get(key, PreferenceType::Boolean, text);
    if (rc == PREFERENCE_ERROR_NONE)
        value = text == "true";
    return rc;
}

int LinuxPreferences::setString(const std::string& key, const std::string& value) {
    return set(key, PreferenceType::String, value);
}

int LinuxPreferences::getString(const std::string& key, std::string& value) {
    return get(key, PreferenceType::String, value);
}

int LinuxPreferences::isExisting(const std::string& key, bool& existing) {
    if (key.empty())
        return PREFERENCE_ERROR_INVALID_PARAMETER;
    std::lock_guard<std::mutex> guard(mutex_);
    bool damaged = false;
    existing = load(path(), damaged).count(key) > 0;
    return PREFERENCE_ERROR_NONE;
}

int LinuxPreferences::remove(const std::string& key) {
    if (key.empty())
        return PREFERENCE_ERROR_INVALID_PARAMETER;
    if (readOnly_)
        return PREFERENCE_ERROR_IO_ERROR;
    std::lock_guard<std::mutex> guard(mutex_);
    const std::string file = path();
    bool damaged = false;
    Map values = load(file, damaged);
    if (values.erase(key) == 0)
        return PREFERENCE_ERROR_NO_KEY;
    return save(file, values, damaged);
}

std::vector<PreferenceItem> LinuxPreferences::items() {
    std::lock_guard<std::mutex> guard(mutex_);
    bool damaged = false;
    std::vector<PreferenceItem> out;
    for (const auto& [key, value] : load(path(), damaged))
        out.push_back(PreferenceItem{key, value.type, value.text});
    return out;
}

}  // namespace pelio::platform
