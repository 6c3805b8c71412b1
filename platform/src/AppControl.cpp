#include "pelio/platform/AppControl.h"

namespace pelio::platform {

std::string applicationObjectPath(const std::string& appId) {
    std::string path = "/" + appId;
    for (char& c : path) {
        if (c == '.')
            c = '/';
        if (c == '-')
            c = '_';
    }
    return path;
}

int AppControl::setAppId(const std::string& appId) {
    if (appId.empty())
        return APP_CONTROL_ERROR_INVALID_PARAMETER;
    appId_ = appId;
    return APP_CONTROL_ERROR_NONE;
}

int AppControl::addExtraData(const std::string& key, const std::string& value) {
    if (key.empty())
        return APP_CONTROL_ERROR_INVALID_PARAMETER;
    for (auto& [k, v] : extras_) {
        if (k == key) {
            v = value;
            return APP_CONTROL_ERROR_NONE;
        }
    }
    extras_.emplace_back(key, value);
    return APP_CONTROL_ERROR_NONE;
}

int AppControl::getExtraData(const std::string& key, std::string& value) const {
    if (key.empty())
        return APP_CONTROL_ERROR_INVALID_PARAMETER;
    for (const auto& [k, v] : extras_) {
        if (k == key) {
            value = v;
            return APP_CONTROL_ERROR_NONE;
        }
    }
    return APP_CONTROL_ERROR_KEY_NOT_FOUND;
}

AppControl AppControl::incoming(Extras extras) {
    AppControl request;
    for (auto& [k, v] : extras) {
        if (!k.empty())
            request.addExtraData(k, v);
    }
    request.replySlot_ = std::make_shared<LaunchReply>();
    return request;
}

int replyToLaunchRequest(const AppControl& reply, const AppControl& request, int result) {
    if (!request.replySlot_ || request.replySlot_->replied) {
        return APP_CONTROL_ERROR_INVALID_PARAMETER;
    }
    request.replySlot_->replied = true;
    request.replySlot_->result = result;
    request.replySlot_->extras = reply.extras();
    return APP_CONTROL_ERROR_NONE;
}

}  // namespace pelio::platform
