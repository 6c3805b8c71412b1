// IntentMgr: tells the voice app that a new PLM id exists for the applications or the contacts
// domain, by launching it with "SYNCED_TYPE" and "SYNCED_PLM_ID". Sent only while the voice app
// runs in the foreground; otherwise nothing is sent or queued.
//
// Any thread (the upload worker calls it); the platform queues the launch to the main loop.
// Every failure is one error line and an early return; the caller is never told.
#pragma once

#include <string>

class IntentMgr {
  public:
    void sendApplicationHasPlmId(const std::string& plmId);
    void sendContactHasPlmId(const std::string& plmId);

  private:
    void _send(const char* syncedType, const std::string& plmId);
};
