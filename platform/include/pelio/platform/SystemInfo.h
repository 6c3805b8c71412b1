// System information: model name, build string and unique device id.
// Linux: /sys/class/dmi/id/product_name or /proc/device-tree/model; /etc/os-release;
// /etc/machine-id.
#pragma once

#include <memory>
#include <string>

namespace pelio::platform {

inline constexpr const char* kSystemKeyModelName = "quorvin://system/model_name";
inline constexpr const char* kSystemKeyBuildString = "quorvin://system/build.string";
inline constexpr const char* kSystemKeyDeviceId = "system/unique_device_id";  // no scheme prefix

enum SystemInfoError {
    SYSTEM_INFO_ERROR_NONE = 0,
    SYSTEM_INFO_ERROR_INVALID_PARAMETER = -22,
    SYSTEM_INFO_ERROR_IO_ERROR = -5,
};

class SystemInfo {
  public:
    virtual ~SystemInfo() = default;
    // Fills value for one of the keys above; an unknown key is an invalid parameter.
    virtual int getPlatformString(const std::string& key, std::string& value) = 0;
};

// The files the Linux implementation reads (tests point them into a temporary directory).
struct SystemInfoSources {
    std::string productName = "/sys/class/dmi/id/product_name";
    std::string deviceTreeModel = "/proc/device-tree/model";
    std::string osRelease = "/etc/os-release";
    std::string machineId = "/etc/machine-id";
};

// Linux: model = product_name, else the device-tree model (trailing NUL and blanks trimmed);
// build string = PRETTY_NAME of os-release, else NAME + " " + VERSION_ID, else VERSION_ID;
// device id = the machine id. A fact with no source is SYSTEM_INFO_ERROR_IO_ERROR.
// Reads the files on every call; thread-safe.
std::unique_ptr<SystemInfo> makeLinuxSystemInfo(const SystemInfoSources& sources = {});

SystemInfo& systemInfo();
void installSystemInfo(std::unique_ptr<SystemInfo> impl);

}  // namespace pelio::platform
