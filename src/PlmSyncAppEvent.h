// The control-request handler: every launch request of the voice app reaches
// plmsync_handle_app_event() through the service's app-control callback (__app_reset in
// PelioSvcMain.cpp). It applies the configuration extras to the preference store, then performs at
// most one operation named by "EVENT_TYPE"; CHECK_STATUS and CHECK_PLM_ID answer with a reply.
//
// It lives apart from the process entry so that the unit tests can drive it with a request and a
// preference double. Thread: the main loop. Errors: a missing extra is a log line; no request is
// rejected as a whole; preference write failures are not checked.
#pragma once

#include <map>
#include <string>

#include <pelio/platform/AppControl.h>

void plmsync_handle_app_event(const pelio::platform::AppControl& app_control, void* user_data);

void setIP(std::string host);
void setPort(int port);
void setCertPath(std::string path);
void setLocale(std::string locale);
void setClearServer(bool clear);
// The "is_force" preference; true when the key does not exist.
bool getIsForcePreference();
// Stores value when "is_force" exists; stores true when it does not (the first write enables it).
void setIsForcePreference(bool value);
// Stores the device id in the master table under "PLM_SYNC_DEVICE_ID".
void insert_device_id();

void plmsync_sync_reply_status(const pelio::platform::AppControl* request, int status);
void plmsync_sync_reply_plm_id(const pelio::platform::AppControl* request, const std::string& type,
                               const std::map<std::string, std::string>& ids);
