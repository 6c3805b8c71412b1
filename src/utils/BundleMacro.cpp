#include "utils/BundleMacro.h"

#include "PelioLog.h"

std::string getValStr(const pelio::platform::Bundle* bundle, const std::string& key) {
    if (bundle == nullptr) {
        LOGE("bundle is NULL");
        return "";
    }
    if (key.empty()) {
        LOGE("key ken is zero");
        return "";
    }
    std::string value;
    const int rc = bundle->getStr(key, value);
    if (rc != pelio::platform::BUNDLE_ERROR_NONE) {
        LOGD("Catch error[%d]", rc);
        return "";
    }
    return value;
}

std::string recordKey(int n) { return "record" + std::to_string(n); }
std::string columnKey(int n) { return "COL" + std::to_string(n); }
