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

SystemInfo& systemInfo();
void installSystemInfo(std::unique_ptr<SystemInfo> impl);

}  // namespace pelio::platform
