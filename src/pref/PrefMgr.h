// PrefMgr: thin wrapper over the platform preference store. init() seeds the service's keys
// (never overwriting); typed set, string get and remove. All failures are logged and swallowed.
// Any thread (the platform store serialises itself). Owned by whoever creates it.
#pragma once

#include <string>

class PrefMgr {
public:
    PrefMgr() = default;
    virtual ~PrefMgr() = default;

    void init();
    void set(const std::string& key, bool value);
    void set(const std::string& key, int value);
    void set(const std::string& key, const std::string& value);
    void set(const std::string& key, const char* value) { set(key, std::string(value)); }
    // Replaces out with the stored string on success; leaves it unchanged otherwise.
    void get(const std::string& key, std::string& out);
    void remove(const std::string& key);
    void clear();  // logs only: stored preferences survive a clear

private:
    void _create(const std::string& key, int defaultValue);
    void _create(const std::string& key, const std::string& defaultValue);
};
