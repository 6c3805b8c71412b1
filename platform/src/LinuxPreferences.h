// The Linux preference store: one GLib key file, re-read on every call, replaced atomically on
// every write that changes a value. See pelio/platform/Preferences.h for the layout and the failure behaviour.
#pragma once

#include <glib.h>

#include <pelio/platform/Preferences.h>
#include <map>
#include <mutex>
#include <string>

namespace pelio::platform {

class LinuxPreferences : public Preferences {
  public:
    // fixedPath empty: the store of the current application, resolved on every call so that it
    // follows the environment (tests move HOME between cases).
    LinuxPreferences(std::string fixedPath, bool readOnly);

    int setInt(const std::string& key, int value) override;
    int getInt(const std::string& key, int& value) override;
    int setDouble(const std::string& key, double value) override;
    int getDouble(const std::string& key, double& value) override;
    int setBoolean(const std::string& key, bool value) override;
    int getBoolean(const std::string& key, bool& value) override;
    int setString(const std::string& key, const std::string& value) override;
    int getString(const std::string& key, std::string& value) override;
    int isExisting(const std::string& key, bool& existing) override;
    int remove(const std::string& key) override;
    std::vector<PreferenceItem> items() override;

  private:
    struct Value {
        PreferenceType type;
        std::string text;
    };
    using Map = std::map<std::string, Value>;

    std::string path() const;
    // Reads the file; a missing file is an empty store, a damaged one is logged and empty.
    Map load(const std::string& file, bool& damaged) const;
    // Fills values from a loaded key file; false for an unknown group, a key that does not decode,
    // a value not of its group's type, or a key in two groups.
    static bool parse(GKeyFile* keys, Map& values);
    int save(const std::string& file, const Map& values, bool damaged) const;
    int set(const std::string& key, PreferenceType type, const std::string& text);
    int get(const std::string& key, PreferenceType type, std::string& text);

    std::string fixedPath_;  // empty: the current application's store
    bool readOnly_;
    mutable std::mutex mutex_;
};

}  // namespace pelio::platform
