// System settings: typed values under string keys with change callbacks.
//
// Linux: a key file at $XDG_CONFIG_HOME/pelio-platform/settings.ini (group [settings]), replaced
// atomically on every write. Change callbacks are driven by inotify on its folder and run on the
// main loop thread; they fire for keys whose value changed, whoever wrote the file. Get and set
// are safe from any thread; callbacks are added and removed on the main loop thread.
#pragma once

#include <memory>
#include <string>

namespace pelio::platform {

enum SystemSettingsError {
    SETTINGS_ERROR_NONE = 0,
    SETTINGS_ERROR_INVALID_PARAMETER = -22,
    SETTINGS_ERROR_NO_KEY = -126,    // absent
    SETTINGS_ERROR_BAD_VALUE = -71,  // present, not of the asked type
    SETTINGS_ERROR_IO_ERROR = -5,
};

using SettingChangedCallback = void (*)(const char* key, void* userData);

class SystemSettings {
  public:
    virtual ~SystemSettings() = default;
    virtual int getInt(const std::string& key, int& value) = 0;
    virtual int getBool(const std::string& key, bool& value) = 0;
    virtual int getString(const std::string& key, std::string& value) = 0;
    virtual int setInt(const std::string& key, int value) = 0;
    virtual int setBool(const std::string& key, bool value) = 0;
    virtual int setString(const std::string& key, const std::string& value) = 0;
    virtual int addChangedCallback(const std::string& key, SettingChangedCallback cb,
                                   void* userData) = 0;
    virtual int removeChangedCallback(const std::string& key, SettingChangedCallback cb) = 0;
};

SystemSettings& systemSettings();
void installSystemSettings(std::unique_ptr<SystemSettings> impl);

}  // namespace pelio::platform
