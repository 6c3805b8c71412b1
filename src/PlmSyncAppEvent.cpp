#include "PlmSyncAppEvent.h"

#include <cstdlib>
#include <cstring>

#include <pelio/platform/Preferences.h>
#include <pelio/platform/ServiceApp.h>

#include "LifecycleHooks.h"
#include "PLMConstants.h"
#include "PelioLog.h"
#include "TerminatingTimer.h"
#include "pref/PrefMgr.h"
#include "upload/PLMSyncManager.h"
#include "upload/PLMSyncMasterTable.h"
#include "utils/MainLoopOnly.h"
#include "utils/PLMUtils.h"

using pelio::platform::AppControl;
using pelio::platform::preferences;

namespace {

// The extra under key, or false when the request does not carry it.
bool readExtra(const AppControl& request, const char* key, std::string& value) {
    return request.getExtraData(key, value) == pelio::platform::APP_CONTROL_ERROR_NONE;
}

int domainOf(const std::string& eventData) {
    if (eventData == plm::SYNC_APPLICATION)
        return plm::SYNC_ITEM_APPLICATION;
    if (eventData == plm::SYNC_MEDIA)
        return plm::SYNC_ITEM_MEDIA;
    if (eventData == plm::SYNC_CONTACT)
        return plm::SYNC_ITEM_CONTACTS;
    return 0;
}

void handleTerminating() {
    PLMSyncManager* manager = PLMSyncManager::getInstance();
    if (manager == nullptr || !manager->isSyncInProgress()) {
        LOGD("Can be killed now");
        deleteTerminatingTimer();
        destroySyncManager();
        pelio::platform::serviceApp().exit();
    } else {
        LOGD("Please wait 10 secs for safe closing");
        startTerminatingTimer();
    }
}

void handleTriggerSync(bool isForce) {
    PLMSyncManager* manager = PLMSyncManager::getInstance();
    if (manager == nullptr) {
        LOGE("No instance for plm sync mgr");
        return;
    }
    if (manager->getPendingResync() && manager->isSyncInProgress() && isForce) {
        LOGD("There is already force syncing. It will trigger again when before one is done");
        return;
    }
    preferences().setBoolean(plm::PLMConstants::CLEAR_SERVER, false);
    if (isForce) {
        LOGD("PLM service - trigger data sync for force");
        manager->trigger_sync(plm::SYNC_TYPE_FORCE);
    } else {
        LOGD("PLM service - trigger data sync for diff");
        manager->trigger_sync(plm::SYNC_TYPE_DIFF);
    }
}

void handleCheckStatus(const AppControl& request) {
    PLMSyncManager* manager = PLMSyncManager::getInstance();
    if (manager == nullptr) {
        LOGE("No instance for plm sync mgr");
        return;
    }
    std::string eventData;
    readExtra(request, plm::EXTRA_EVENT_DATA, eventData);
    const int domain = domainOf(eventData);
    int status = 1;
    if (manager->hasPlmId(domain))
        status = manager->isSyncInProgress() ? 2 : 3;
    plmsync_sync_reply_status(&request, status);
    manager->check_for_process_exit();
}

void handleCheckPlmId(const AppControl& request) {
    PLMSyncManager* manager = PLMSyncManager::getInstance();
    if (manager == nullptr) {
        LOGE("No instance for plm sync mgr");
        return;
    }
    std::string type = plm::SYNC_NONE;
    const bool hasType = readExtra(request, plm::EXTRA_TYPE, type);
    PrefMgr* prefs = manager->getPrefMgr();
    if (prefs == nullptr) {
        LOGE("No Pref Mgr");
        return;
    }
    if (!hasType) {
        LOGE("No Invalid keys");
        return;
    }
    std::map<std::string, std::string> ids;
    const bool all = type == plm::SYNC_ALL;
    if (all || type == plm::SYNC_APPLICATION) {
        std::string id;
        prefs->get(plm::PREF_APP_SYNCED_PLM_ID, id);
        ids[plm::SYNC_APPLICATION] = id;
    }
    if (all || type == plm::SYNC_CONTACT) {
        std::string id;
        prefs->get(plm::PREF_CONTACT_SYNCED_PLM_ID, id);
        ids[plm::SYNC_CONTACT] = id;
    }
    if (all || type == plm::SYNC_MEDIA) {
        std::string id;
        prefs->get(plm::PREF_MEDIA_SYNCED_PLM_ID, id);
        ids[plm::SYNC_MEDIA] = id;
    }
    plmsync_sync_reply_plm_id(&request, type, ids);
    manager->check_for_process_exit();
}

}  // namespace

void setIP(std::string host) {
    LOGI("host[%s]", host.c_str());
    preferences().setString(plm::PLMConstants::SERVER_IP, host);
}

void setPort(int port) {
    LOGI("m_port[%d]", port);
    preferences().setInt(plm::PLMConstants::PORT, port);
}

void setCertPath(std::string path) {
    preferences().setString(plm::PLMConstants::CERT_PATH, path);
}

void setLocale(std::string locale) {
    preferences().setString(plm::PLMConstants::LOCALE, locale);
}

void setClearServer(bool clear) {
    LOGI("clearServer[%d]", clear ? 1 : 0);
    preferences().setBoolean(plm::PLMConstants::CLEAR_SERVER, clear);
}

bool getIsForcePreference() {
    bool existing = false;
    preferences().isExisting(plm::PLMConstants::IS_FORCE, existing);
    bool isForce = true;
    if (existing)
        preferences().getBoolean(plm::PLMConstants::IS_FORCE, isForce);
    LOGD("getIsForce[%d]", isForce ? 1 : 0);
    return isForce;
}

void setIsForcePreference(bool value) {
    bool existing = false;
    preferences().isExisting(plm::PLMConstants::IS_FORCE, existing);
    const bool isForce = existing ? value : true;
    LOGD("setIsForce : isForce[%d], value[%d]", isForce ? 1 : 0, value ? 1 : 0);
    preferences().setBoolean(plm::PLMConstants::IS_FORCE, isForce);
}

void insert_device_id() {
    const std::string deviceId = getDeviceID();
    LOGD("device_id = %s", deviceId.c_str());
    const int rc = master_set_string(plm::PLM_SYNC_DEVICE_ID, deviceId.c_str());
    if (rc != 0)
        LOGE("ERROR:master_set_string retval = %d", rc);
}

void plmsync_sync_reply_status(const AppControl* request, int status) {
    if (request == nullptr) {
        LOGE("Invalid callerAppControl");
        return;
    }
    AppControl reply;
    reply.addExtraData(plm::REPLY_STATUS_RESULT, std::to_string(status));
    pelio::platform::replyToLaunchRequest(reply, *request,
                                          status != 0
                                              ? pelio::platform::APP_CONTROL_RESULT_SUCCEEDED
                                              : pelio::platform::APP_CONTROL_RESULT_FAILED);
}

void plmsync_sync_reply_plm_id(const AppControl* request, const std::string& type,
                               const std::map<std::string, std::string>& ids) {
    if (request == nullptr) {
        LOGE("Invalid callerAppControl");
        return;
    }
    AppControl reply;
    if (reply.addExtraData(plm::REPLY_PLM_ID_RESULT, type) !=
        pelio::platform::APP_CONTROL_ERROR_NONE) {
        return;
    }
    int result = pelio::platform::APP_CONTROL_RESULT_SUCCEEDED;
    if (ids.empty()) {
        result = pelio::platform::APP_CONTROL_RESULT_FAILED;
    } else {
        for (const auto& [domain, id] : ids) {
            const int rc = reply.addExtraData(domain, id.empty() ? "-1" : id);
            if (rc != pelio::platform::APP_CONTROL_ERROR_NONE) {
                LOGE("Error Catched[%d]", rc);
                result = pelio::platform::APP_CONTROL_RESULT_FAILED;
                break;
            }
        }
    }
    pelio::platform::replyToLaunchRequest(reply, *request, result);
}

namespace {

// The server address, port, certificate and locale a launch request may carry.
void applyServerExtras(const AppControl& app_control) {
    std::string value;
    if (readExtra(app_control, plm::EXTRA_SET_IP, value)) {
        setIP(value);
        LOGD("set the IP : [%s]", value.c_str());
    } else {
        LOGD("ip type is NULL");
    }

    if (readExtra(app_control, plm::EXTRA_SET_PORT, value)) {
        setPort(static_cast<int>(std::strtol(value.c_str(), nullptr, 10)));
        LOGD("set the port");
    } else {
        LOGD("port type is NULL");
    }

    if (readExtra(app_control, plm::EXTRA_SET_CERT_PATH, value)) {
        setCertPath(value);
        LOGD("set the certpath");
    } else {
        LOGD("certpath type is NULL");
    }
    if (readExtra(app_control, plm::EXTRA_SET_LOCALE, value)) {
        setLocale(value);
        LOGD("set the SET_LOCALE");
    } else {
        LOGD("SET_LOCALE type is NULL");
    }
}

// The force flag of the request (stored as "is_force"); false when the request has none.
bool applyForceExtra(const AppControl& app_control) {
    std::string value;
    bool isForce = false;
    if (readExtra(app_control, plm::EXTRA_SET_IS_FORCE, value)) {
        if (value == "true") {
            isForce = true;
            PLMSyncManager* manager = PLMSyncManager::getInstance();
            if (manager != nullptr && manager->isSyncInProgress())
                manager->setPendingResync(true);
        } else {
            isForce = getIsForcePreference();
        }
        LOGD("Force Syncing[%s], set the is_force_bool[%d]", value.c_str(), isForce ? 1 : 0);
        setIsForcePreference(isForce);
    } else {
        LOGD("SET_IS_FORCE type is NULL");
    }
    return isForce;
}

// A request to clear the server: clears it, stops the workers and ends the service.
void applyClearServerExtra(const AppControl& app_control) {
    std::string value;
    if (readExtra(app_control, plm::EXTRA_CLEAR_SERVER, value)) {
        if (value.compare(0, 4, "true") == 0) {
            setClearServer(true);
            LOGD("Clearing server");
            PLMSyncManager* manager = PLMSyncManager::getInstance();
            if (manager != nullptr) {
                manager->clearServer();
                manager->stopHandlerThreads();
            }
            destroySyncManager();
            pelio::platform::serviceApp().exit();
        }
    } else {
        LOGD("CLEAR_SERVER type is NULL");
    }
}

void dispatchOperation(const AppControl& app_control, bool isForce) {
    std::string operation;
    if (!readExtra(app_control, plm::EXTRA_EVENT_TYPE, operation)) {
        LOGD("op type is NULL");
        return;
    }
    LOGD("operation[%s]", operation.c_str());
    if (operation == plm::OP_APPLICATION_TERMINATING) {
        handleTerminating();
    } else if (operation == plm::OP_TRIGGER_FORCE_SYNC) {
        handleTriggerSync(isForce);
    } else if (operation == plm::OP_CHECK_STATUS) {
        handleCheckStatus(app_control);
    } else if (operation == plm::OP_CHECK_PLM_ID) {
        handleCheckPlmId(app_control);
    } else if (operation == plm::OP_GET_DEVICE_ID) {
        LOGW("PLM service compose and send device id to client : Not Supported yet");
    } else {
        LOGE("PLM service No allowed action");
    }
}

}  // namespace

void plmsync_handle_app_event(const AppControl& app_control, void* user_data) {
    (void)user_data;
    expectMainLoop("plmsync_handle_app_event");
    LOGD("caller id matched");
    applyServerExtras(app_control);
    const bool isForce = applyForceExtra(app_control);
    applyClearServerExtra(app_control);
    dispatchOperation(app_control, isForce);
}
