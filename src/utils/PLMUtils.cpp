#include "utils/PLMUtils.h"

#include <openssl/evp.h>

#include <pelio/CHandles.h>
#include <pelio/platform/Preferences.h>
#include <pelio/platform/SystemInfo.h>
#include <cstdio>
#include <memory>

#include "PLMConstants.h"
#include "PelioLog.h"
#include "database/DbManager.h"
#include "utils/BundleMacro.h"

using pelio::platform::Bundle;
using pelio::platform::PREFERENCE_ERROR_NONE;
using pelio::platform::preferences;

namespace {

constexpr const char* kTestModelName = "snorlotest";

// SHA-256 of data as 64 lower-case hexadecimal digits; "" when the digest cannot be computed.
std::string sha256Hex(const std::string& data) {
    pelio::EvpMdCtx ctx(EVP_MD_CTX_new());
    unsigned char digest[EVP_MAX_MD_SIZE];
    unsigned int length = 0;
    if (!ctx || EVP_DigestInit_ex(ctx.get(), EVP_sha256(), nullptr) != 1 ||
        EVP_DigestUpdate(ctx.get(), data.data(), data.size()) != 1 ||
        EVP_DigestFinal_ex(ctx.get(), digest, &length) != 1) {
        LOGE("sha256 failed");
        return "";
    }
    std::string hex;
    char two[3];
    for (unsigned int i = 0; i < length; ++i) {
        std::snprintf(two, sizeof two, "%02x", digest[i]);
        hex += two;
    }
    return hex;
}

bool preferenceExists(const std::string& key) {
    bool existing = false;
    return preferences().isExisting(key, existing) == PREFERENCE_ERROR_NONE && existing;
}

}  // namespace

std::string getPlatformString(const std::string& key) {
    if (key.empty()) {
        LOGE("empty key!");
        return "";
    }
    std::string value;
    if (pelio::platform::systemInfo().getPlatformString(key, value) !=
        pelio::platform::SYSTEM_INFO_ERROR_NONE) {
        LOGE("system_info_get_platform_string ERROR! (%s)", key.c_str());
        return "";
    }
    LOGD("key, value : (%s, %s)", key.c_str(), value.c_str());
    return value;
}

std::string getDeviceModelName() {
    const std::string model = getPlatformString(pelio::platform::kSystemKeyModelName);
    return model.empty() ? std::string(kTestModelName) : model;
}

std::string getDeviceBuildString() {
    return getPlatformString(pelio::platform::kSystemKeyBuildString);
}

std::string getLocalePreference() {
    std::string locale;
    if (preferenceExists(plm::PLMConstants::LOCALE) &&
        preferences().getString(plm::PLMConstants::LOCALE, locale) == PREFERENCE_ERROR_NONE)
        return locale;
    return plm::DEFAULT_LOCALE;
}

std::string getMediaHexaId(int audioRowId) {
    const std::string where = "_id = " + std::to_string(audioRowId);
    Bundle request;
    request.addStr(bundlekeys::OPERATION_KEY, bundlekeys::OP_SELECT);
    request.addStr(bundlekeys::URI_TABLE_NAME, "audio");
    request.addStr(bundlekeys::PROJECTION, "audio_id");
    request.addStr(bundlekeys::WHERE, where);
    LOGD("columns [%s]", "audio_id");
    Bundle result;
    if (DbManager::getInstance()->plmsvc_db_process(&request, &result) != 0) {
        LOGE("plmsvc_db_process FAIL");
        return "";
    }
    std::vector<uint8_t> bytes;
    std::optional<Bundle> row;
    if (result.getByte(recordKey(1), bytes) == pelio::platform::BUNDLE_ERROR_NONE)
        row = Bundle::decode(bytes);
    if (!row) {
        LOGD("no information present");
        return "";
    }
    const std::string mediaId = getValStr(&*row, columnKey(0));
    LOGD("media_id[%s]", mediaId.c_str());
    return mediaId;
}

void sendsyncTriggerToEmbedded() {
    const int rc = preferences().setInt(plm::PREF_TRIGGER_EMBEDDED, 1);
    if (rc != PREFERENCE_ERROR_NONE)
        LOGE("preference_set_int ERROR");
}

int getEmbeddedTriggerStatus() {
    int value = 0;
    if (!preferenceExists(plm::PREF_TRIGGER_EMBEDDED))
        return 0;
    if (preferences().getInt(plm::PREF_TRIGGER_EMBEDDED, value) != PREFERENCE_ERROR_NONE)
        return 0;
    return value;
}

void clearEmbeddedTrigger() {
    const int rc = preferences().setInt(plm::PREF_TRIGGER_EMBEDDED, 0);
    if (rc != PREFERENCE_ERROR_NONE)
        LOGE("preference_set_int ERROR");
}

std::string getHashedDeviceId() {
    const char* key = plm::PLMConstants::DEVICE_ID;
    if (preferenceExists(key)) {
        std::string stored;
        preferences().getString(key, stored);
        LOGD("device id1 is [%s]", stored.c_str());
        LOGD("device hashed id is [%s]", stored.c_str());
        return stored;
    }
    std::string platformId;
    const int rc = pelio::platform::systemInfo().getPlatformString(
        pelio::platform::kSystemKeyDeviceId, platformId);
    LOGD("device id2 is [%s]", platformId.c_str());
    if (rc != pelio::platform::SYSTEM_INFO_ERROR_NONE) {
        LOGE("error code  is  %d", rc);
        preferences().setString(key, platformId);
        return "";
    }
    const std::string hashed = sha256Hex(platformId);
    LOGD("device id3 is [%s]", platformId.c_str());
    LOGD("device hashed id3 is [%s]", hashed.c_str());
    preferences().setString(key, hashed);
    return hashed;
}

std::string getDeviceID() {
    const std::string id = getHashedDeviceId();
    LOGD("device id [%s]", id.c_str());
    return id;
}
