// DataUploadHandler: the PDS session (open / close / wipe through the transport library), bulk
// posting of SyncData (parting, gzip, HTTP POST) and the server / network / proxy configuration.
//
// Thread: the sync worker thread only (all calls block). Owned by the sync manager, created on
// first use and kept for the life of the process. It is the OrvaneCallbacks object it hands to
// the transport library and owns that library handle.
// The operations are virtual so that tests of the sync manager can hand it a fake uploader.
// Errors: open gives 0 / -1 / 13 / 23, close and wipe give false, performSync leaves its outcome
// in the SyncResult; library exceptions never leave these operations.
#pragma once

#include <orvane/Orvane.h>
#include <orvane/OrvaneCallbacks.h>

#include <functional>
#include <memory>
#include <string>

#include "upload/SyncData.h"
#include "upload/SyncResult.h"

class IntentMgr;
class NetworkMgr;

class DataUploadHandler : public OrvaneCallbacks {
public:
    // intentMgr: told when a domain gets its first PLM id; networkMgr: connectivity;
    // clearQueue: called when the server reports that it has no database for the device.
    // The pointers are borrowed (the sync manager owns them) and may be null in tests.
    DataUploadHandler(IntentMgr* intentMgr, NetworkMgr* networkMgr,
                      std::function<void()> clearQueue);
    ~DataUploadHandler() override;

    virtual int openPds(int syncDataType);
    virtual bool closePds();
    virtual bool wipePds(bool deleteAll);
    virtual void performSync(SyncData* syncData, SyncResult* syncResult);

    virtual bool getPdsOpened();
    void setPdsOpened(bool opened);
    virtual bool getPdsClosed();
    void setPdsClosed(bool closed);

    void setServerDBGenerateRequestState(int state);
    virtual std::string getSucceededLatestPLMId();
    virtual void setSucceededLatestPLMId(const std::string& plmId);
    virtual std::string getLastApplicationPlmId();
    virtual void setLastApplicationPlmId(const std::string& plmId);
    virtual std::string getLastContactPlmId();
    virtual void setLastContactPlmId(const std::string& plmId);
    virtual std::string getLastMediaPlmId();
    virtual void setLastMediaPlmId(const std::string& plmId);

    // (Private members and helpers: see the implementation's owner.)
};
