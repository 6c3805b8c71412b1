// ContactGroupsSyncHandler: the contact-groups domain, declared but without data yet. A sync
// request completes at once with success; nothing is collected, stored or composed.
// Threads: syncData() runs on the handler's worker thread (BaseSyncHandler). No state.
#pragma once

#include "SyncHandlers/BaseSyncHandler.h"

class ContactGroupsSyncHandler : public BaseSyncHandler {
  public:
    explicit ContactGroupsSyncHandler(SyncHandlerHost* host = nullptr);
    ~ContactGroupsSyncHandler() override;

    // Always 0 (success).
    int syncData(int syncType) override;
};
