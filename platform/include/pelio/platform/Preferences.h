// Preferences: typed values (int, double, bool, string) under string keys, one store per
// application, persisted in the application's data directory.
//
// Every write replaces the store file atomically (GLib writes a temporary file in the same
// directory, fsyncs it and renames it over the store), so a crash mid-write leaves the old or the
// new store. A damaged or unreadable store file is logged and treated as empty; the next write
// first moves it aside to "<file>.damaged" so that its contents are not lost. The Linux
// implementation is thread-safe (one mutex per store) and reads the file on every call, so another
// process (pelioctl) always sees the last completed write. Writers in two processes are not
// serialised against each other.
//
// File format: a GLib key file (UTF-8) with one group per type, [int], [double], [bool] and
// [string]; a key that a key file cannot hold as it is is written with %XX escapes. A string
// value that is not valid UTF-8 is refused with PREFERENCE_ERROR_INVALID_PARAMETER.
#pragma once

#include <memory>
#include <string>
#include <vector>

namespace pelio::platform {

enum PreferenceError {
    PREFERENCE_ERROR_NONE = 0,
    PREFERENCE_ERROR_INVALID_PARAMETER = -22,
    PREFERENCE_ERROR_OUT_OF_MEMORY = -12,
    PREFERENCE_ERROR_NO_KEY = -126,  // absent, or stored with another type
    PREFERENCE_ERROR_IO_ERROR = -5,
};

enum class PreferenceType { Int, Double, Boolean, String };

// One stored value: its key, type and the value as text (ints and doubles in decimal, booleans
// "true" / "false", strings as they are).
struct PreferenceItem {
    std::string key;
    PreferenceType type;
    std::string value;
};

// "int", "double", "bool", "string".
const char* preferenceTypeName(PreferenceType type);

// A get with another type than the stored one gives PREFERENCE_ERROR_NO_KEY; a set with another
// type replaces the value and its type.
class Preferences {
  public:
    virtual ~Preferences() = default;
    virtual int setInt(const std::string& key, int value) = 0;
    virtual int getInt(const std::string& key, int& value) = 0;
    virtual int setDouble(const std::string& key, double value) = 0;
    virtual int getDouble(const std::string& key, double& value) = 0;
    virtual int setBoolean(const std::string& key, bool value) = 0;
    virtual int getBoolean(const std::string& key, bool& value) = 0;
    virtual int setString(const std::string& key, const std::string& value) = 0;
    virtual int getString(const std::string& key, std::string& value) = 0;
    virtual int isExisting(const std::string& key, bool& existing) = 0;
    virtual int remove(const std::string& key) = 0;
    // Every stored value, sorted by key (empty for a store that does not list its values).
    virtual std::vector<PreferenceItem> items() { return {}; }
};

// The service's own store (default: the Linux store of the running application).
Preferences& preferences();
void installPreferences(std::unique_ptr<Preferences> impl);

// The store file of an application: <data directory of appId>/.preferences.ini.
std::string preferencesFilePath(const std::string& appId);
// A Linux store on an explicit file (it need not exist). A read-only store refuses every write
// with PREFERENCE_ERROR_IO_ERROR and never creates or changes the file (pelioctl reads the
// service's store this way).
std::unique_ptr<Preferences> openPreferencesFile(const std::string& path, bool readOnly);

}  // namespace pelio::platform
