#include "LinuxPreferences.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <pelio/platform/AppPaths.h>
#include <pelio/platform/Log.h>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <sstream>

namespace pelio::platform {
namespace {

constexpr const char* kHeader = "# pelio preferences 1";
constexpr const char* kTag = "PelioPlatform";

char typeLetter(PreferenceType type) {
    switch (type) {
        case PreferenceType::Int:
            return 'i';
        case PreferenceType::Double:
            return 'd';
        case PreferenceType::Boolean:
            return 'b';
        case PreferenceType::String:
            break;
    }
    return 's';
}

bool typeFromLetter(char c, PreferenceType& type) {
    switch (c) {
        case 'i':
            type = PreferenceType::Int;
            return true;
        case 'd':
            type = PreferenceType::Double;
            return true;
        case 'b':
            type = PreferenceType::Boolean;
            return true;
        case 's':
            type = PreferenceType::String;
            return true;
        default:
            return false;
    }
}

std::string escape(const std::string& in, bool isKey) {
    std::string out;
    for (char c : in) {
        if (c == '\\')
            out += "\\\\";
        else if (c == '\n')
            out += "\\n";
        else if (c == '=' && isKey)
            out += "\\=";
        else
            out += c;
    }
    return out;
}

// Unescapes in[pos..) up to an unescaped stopAt (or the end); false for a bad escape.
bool unescape(const std::string& in, size_t& pos, char stopAt, std::string& out) {
    while (pos < in.size()) {
        char c = in[pos];
        if (c == stopAt)
            return true;
        if (c == '\\') {
            if (pos + 1 >= in.size())
                return false;
            char n = in[pos + 1];
            if (n == '\\')
                out += '\\';
            else if (n == 'n')
                out += '\n';
            else if (n == '=')
                out += '=';
            else
                return false;
            pos += 2;
            continue;
        }
        out += c;
        ++pos;
    }
    return true;
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
            std::strtod(text.c_str(), &end);
            return !text.empty() && *end == '\0';
        case PreferenceType::Boolean:
            return text == "true" || text == "false";
        case PreferenceType::String:
            return true;
    }
    return false;
}

std::string formatDouble(double value) {
    char buf[64];
    std::snprintf(buf, sizeof buf, "%.17g", value);
    return buf;
}

bool writeAll(int fd, const std::string& data) {
    size_t done = 0;
    while (done < data.size()) {
        ssize_t n = ::write(fd, data.data() + done, data.size() - done);
        if (n < 0) {
            if (errno == EINTR)
                continue;
            return false;
        }
        done += static_cast<size_t>(n);
    }
    return true;
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
    std::ifstream in(file, std::ios::binary);
    if (!in)
        return values;  // no store yet
    std::string line;
    int lineNo = 0;
    bool sawHeader = false;
    while (std::getline(in, line)) {
        ++lineNo;
        if (lineNo == 1) {
            sawHeader = line == kHeader;
            if (!sawHeader)
                break;
            continue;
        }
        if (line.empty())
            continue;
        PreferenceType type;
        std::string key, text;
        size_t pos = 2;
        if (line.size() < 3 || line[1] != ':' || !typeFromLetter(line[0], type) ||
            !unescape(line, pos, '=', key) || pos >= line.size() || key.empty()) {
            damaged = true;
            break;
        }
        ++pos;
        if (!unescape(line, pos, '\0', text) || !validValue(type, text)) {
            damaged = true;
            break;
        }
        values[key] = Value{type, text};
    }
    if (!sawHeader && lineNo > 0)
        damaged = true;
    if (!sawHeader && lineNo == 0 && in.bad())
        damaged = true;
    if (damaged) {
        dlog_print(DLOG_ERROR, kTag, "preferences: damaged store %s (line %d), treated as empty",
                   file.c_str(), lineNo);
        values.clear();
    }
    return values;
}

int LinuxPreferences::save(const std::string& file, const Map& values, bool damaged) const {
    if (damaged) {
        const std::string aside = file + ".damaged";
        if (::rename(file.c_str(), aside.c_str()) == 0)
            dlog_print(DLOG_WARN, kTag, "preferences: damaged store kept as %s", aside.c_str());
    }
    std::string data = std::string(kHeader) + "\n";
    for (const auto& [key, value] : values) {
        data += typeLetter(value.type);
        data += ':';
        data += escape(key, true);
        data += '=';
        data += escape(value.text, false);
        data += '\n';
    }
    const size_t slash = file.rfind('/');
    const std::string dir = slash == std::string::npos ? "." : file.substr(0, slash + 1);
    std::string tmp = file + ".XXXXXX";
    int fd = ::mkstemp(tmp.data());
    if (fd < 0) {
        dlog_print(DLOG_ERROR, kTag, "preferences: cannot create %s (%s)", tmp.c_str(),
                   std::strerror(errno));
        return PREFERENCE_ERROR_IO_ERROR;
    }
    ::fchmod(fd, 0600);
    const bool ok = writeAll(fd, data) && ::fsync(fd) == 0;
    const int saved = errno;
    ::close(fd);
    if (!ok || ::rename(tmp.c_str(), file.c_str()) != 0) {
        dlog_print(DLOG_ERROR, kTag, "preferences: cannot write %s (%s)", file.c_str(),
                   std::strerror(ok ? errno : saved));
        ::unlink(tmp.c_str());
        return PREFERENCE_ERROR_IO_ERROR;
    }
    int dfd = ::open(dir.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (dfd >= 0) {
        ::fsync(dfd);
        ::close(dfd);
    }
    return PREFERENCE_ERROR_NONE;
}

int LinuxPreferences::set(const std::string& key, PreferenceType type, const std::string& text) {
    if (key.empty())
        return PREFERENCE_ERROR_INVALID_PARAMETER;
    if (readOnly_)
        return PREFERENCE_ERROR_IO_ERROR;
    std::lock_guard<std::mutex> guard(mutex_);
    const std::string file = path();
    if (file.empty())
        return PREFERENCE_ERROR_IO_ERROR;
    bool damaged = false;
    Map values = load(file, damaged);
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
        value = std::strtod(text.c_str(), nullptr);
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
