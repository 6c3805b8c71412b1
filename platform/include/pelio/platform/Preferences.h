// Preferences: typed values (int, double, bool, string) under string keys, one store per
// application, persisted in the application's data directory.
//
// Every write replaces the store file atomically (write a temporary file, flush, rename), so a
// crash mid-write leaves the old or the new store. A damaged store file is logged and treated as
// empty. The Linux implementation is thread-safe.
#pragma once

#include <memory>
#include <string>

namespace pelio::platform {

enum PreferenceError {
    PREFERENCE_ERROR_NONE = 0,
    PREFERENCE_ERROR_INVALID_PARAMETER = -22,
    PREFERENCE_ERROR_OUT_OF_MEMORY = -12,
    PREFERENCE_ERROR_NO_KEY = -126,  // absent, or stored with another type
    PREFERENCE_ERROR_IO_ERROR = -5,
};

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
};

// The service's own store (default: the Linux store of the running application).
Preferences& preferences();
void installPreferences(std::unique_ptr<Preferences> impl);

}  // namespace pelio::platform
