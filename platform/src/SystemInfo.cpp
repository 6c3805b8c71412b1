#include "pelio/platform/SystemInfo.h"

#include <fstream>
#include <sstream>

#include "pelio/platform/Slot.h"

namespace pelio::platform {
namespace {

bool readFile(const std::string& path, std::string& out) {
    std::ifstream in(path, std::ios::binary);
    if (!in)
        return false;
    std::ostringstream ss;
    ss << in.rdbuf();
    out = ss.str();
    return true;
}

std::string trim(const std::string& s) {
    const char* blanks = " \t\r\n\v\f";
    std::string t = s;
    // device-tree strings end with a NUL
    while (!t.empty() &&
           (t.back() == '\0' || std::string(blanks).find(t.back()) != std::string::npos))
        t.pop_back();
    const size_t start = t.find_first_not_of(blanks);
    return start == std::string::npos ? std::string() : t.substr(start);
}

// The value of NAME=... in os-release text, unquoted; "" when absent.
std::string osReleaseValue(const std::string& text, const std::string& name) {
    std::istringstream in(text);
    std::string line;
    while (std::getline(in, line)) {
        if (line.compare(0, name.size() + 1, name + "=") != 0)
            continue;
        std::string v = trim(line.substr(name.size() + 1));
        if (v.size() >= 2 && (v.front() == '"' || v.front() == '\'') && v.back() == v.front()) {
            const char quote = v.front();
            std::string raw = v.substr(1, v.size() - 2), out;
            for (size_t i = 0; i < raw.size(); ++i) {
                if (quote == '"' && raw[i] == '\\' && i + 1 < raw.size())
                    ++i;
                out += raw[i];
            }
            v = out;
        }
        return v;
    }
    return "";
}

class LinuxSystemInfo : public SystemInfo {
  public:
    explicit LinuxSystemInfo(SystemInfoSources sources) : sources_(std::move(sources)) {}

    int getPlatformString(const std::string& key, std::string& value) override {
        std::string text;
        if (key == kSystemKeyModelName) {
            for (const auto* path : {&sources_.productName, &sources_.deviceTreeModel}) {
                if (readFile(*path, text) && !trim(text).empty()) {
                    value = trim(text);
                    return SYSTEM_INFO_ERROR_NONE;
                }
            }
            return SYSTEM_INFO_ERROR_IO_ERROR;
        }
        if (key == kSystemKeyBuildString) {
            if (!readFile(sources_.osRelease, text))
                return SYSTEM_INFO_ERROR_IO_ERROR;
            std::string v = osReleaseValue(text, "PRETTY_NAME");
            if (v.empty()) {
                const std::string name = osReleaseValue(text, "NAME");
                const std::string version = osReleaseValue(text, "VERSION_ID");
                v = name.empty() ? version : (version.empty() ? name : name + " " + version);
            }
            if (v.empty())
                return SYSTEM_INFO_ERROR_IO_ERROR;
            value = v;
            return SYSTEM_INFO_ERROR_NONE;
        }
        if (key == kSystemKeyDeviceId) {
            if (!readFile(sources_.machineId, text) || trim(text).empty())
                return SYSTEM_INFO_ERROR_IO_ERROR;
            value = trim(text);
            return SYSTEM_INFO_ERROR_NONE;
        }
        return SYSTEM_INFO_ERROR_INVALID_PARAMETER;
    }

  private:
    SystemInfoSources sources_;
};

Slot<SystemInfo>& slot() {
    static Slot<SystemInfo> s([] { return makeLinuxSystemInfo(); });
    return s;
}

}  // namespace

std::unique_ptr<SystemInfo> makeLinuxSystemInfo(const SystemInfoSources& sources) {
    return std::make_unique<LinuxSystemInfo>(sources);
}

SystemInfo& systemInfo() {
    return slot().get();
}
void installSystemInfo(std::unique_ptr<SystemInfo> impl) {
    slot().install(std::move(impl));
}

}  // namespace pelio::platform
