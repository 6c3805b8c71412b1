#include "intent/IntentMgr.h"

#include <pelio/platform/AppControl.h>
#include <pelio/platform/AppManager.h>

#include "PLMConstants.h"
#include "PelioLog.h"

namespace pp = pelio::platform;

void IntentMgr::sendApplicationHasPlmId(const std::string& plmId) {
    LOGD("sendApplicationHasPlmId [%s]", plmId.c_str());
    if (plmId.empty()) {
        LOGE("empty plmid");
        return;
    }
    _send(plm::SYNC_APPLICATION, plmId);
}

void IntentMgr::sendContactHasPlmId(const std::string& plmId) {
    LOGD("sendContactHasPlmId [%s]", plmId.c_str());
    if (plmId.empty()) {
        LOGE("empty plmid");
        return;
    }
    _send(plm::SYNC_CONTACT, plmId);
}

void IntentMgr::_send(const char* syncedType, const std::string& plmId) {
    bool running = false;
    if (pp::appManager().isRunning(plm::VOICE_APP_ID, running) != pp::APP_MANAGER_ERROR_NONE) {
        LOGE("Failed to app mgr running status");
        return;
    }
    if (!running) {
        LOGE("Orvane is not on running");
        return;
    }

    std::unique_ptr<pp::AppContext> appCtx;  // released on every path
    if (pp::appManager().getAppContext(plm::VOICE_APP_ID, appCtx) != pp::APP_MANAGER_ERROR_NONE) {
        LOGE("Failed to get app context");
        return;
    }
    if (!appCtx) {
        LOGE("appCtx is NULL");
        return;
    }
    int state = pp::APP_STATE_UNDEFINED;
    if (pp::appManager().getAppState(*appCtx, state) != pp::APP_MANAGER_ERROR_NONE) {
        LOGE("Failed to app context - status");
        return;
    }
    if (state != pp::APP_STATE_FOREGROUND) {
        LOGE("Voice is not on foreground");
        return;
    }

    pp::AppControl appCtl;
    appCtl.setAppId(plm::VOICE_APP_ID);
    appCtl.addExtraData(plm::EXTRA_SYNCED_TYPE, syncedType);
    appCtl.addExtraData(plm::EXTRA_SYNCED_PLM_ID, plmId);
    if (pp::appControlService().sendLaunchRequest(appCtl, nullptr) != pp::APP_CONTROL_ERROR_NONE) {
        LOGE("Failed to send intent");
    }
}
