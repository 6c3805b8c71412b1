#include "pref/PrefMgr.h"

#include <pelio/platform/Preferences.h>

#include "PLMConstants.h"
#include "PelioLog.h"

using pelio::platform::PREFERENCE_ERROR_NONE;
using pelio::platform::preferences;

void PrefMgr::init() {
    _create(plm::PREF_APP_SYNCED_PLM_ID, std::string());
    _create(plm::PREF_CERTIFICATION_PATH, std::string());
    _create(plm::PREF_CONTACT_SYNCED_PLM_ID, std::string());
    _create(plm::PREF_MEDIA_SYNCED_PLM_ID, std::string());
    _create(plm::PREF_PLM_ID, std::string());
    _create(plm::PREF_SERVER_ADDRESS, std::string());
    _create(plm::PREF_SYNC_NEED, 0);
    _create(plm::PREF_TOS_ACCEPTED, std::string());
}

void PrefMgr::_create(const std::string& key, int defaultValue) {
    bool existing = false;
    if (preferences().isExisting(key, existing) != PREFERENCE_ERROR_NONE) {
        LOGE("preference_is_existing check ERROR");
        return;
    }
    if (existing)
        return;
    if (preferences().setInt(key, defaultValue) != PREFERENCE_ERROR_NONE)
        LOGE("preference_set_int ERROR");
}

void PrefMgr::_create(const std::string& key, const std::string& defaultValue) {
    bool existing = false;
    if (preferences().isExisting(key, existing) != PREFERENCE_ERROR_NONE) {
        LOGE("preference_is_existing check ERROR");
        return;
    }
    if (existing)
        return;
    if (preferences().setString(key, defaultValue) != PREFERENCE_ERROR_NONE)
        LOGE("preference_set_string ERROR");
}

void PrefMgr::set(const std::string& key, bool value) {
    const int rc = preferences().setBoolean(key, value);
    if (rc != PREFERENCE_ERROR_NONE)
        LOGE("value set to bool key[%s] got error with code[%d]", key.c_str(), rc);
}

void PrefMgr::set(const std::string& key, int value) {
    const int rc = preferences().setInt(key, value);
    if (rc != PREFERENCE_ERROR_NONE)
        LOGE("value set to int key[%s] got error with code[%d]", key.c_str(), rc);
}

void PrefMgr::set(const std::string& key, const std::string& value) {
    const int rc = preferences().setString(key, value);
    if (rc != PREFERENCE_ERROR_NONE)
        LOGE("value set to str key[%s] got error with code[%d]", key.c_str(), rc);
}

void PrefMgr::get(const std::string& key, std::string& out) {
    std::string value;
    const int rc = preferences().getString(key, value);
    if (rc != PREFERENCE_ERROR_NONE) {
        LOGE("value get from str key[%s] got error with code[%d]", key.c_str(), rc);
        return;
    }
    out = value;
}

void PrefMgr::remove(const std::string& key) {
    const int rc = preferences().remove(key);
    if (rc != PREFERENCE_ERROR_NONE)
        LOGE("remove key[%s] got error with code[%d]", key.c_str(), rc);
}

void PrefMgr::clear() {
    LOGD("clear: stored preferences are kept");
}
