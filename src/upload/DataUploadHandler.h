// DataUploadHandler: the PDS session (open / close / wipe through the transport library), bulk
// posting of SyncData (parting, gzip, HTTP POST) and the server / network / proxy configuration.
//
// Thread: the sync worker thread (all calls block); performSync also on the sync manager's body
// posting threads, several at once (each call has its own transfer). Owned by the sync manager,
// created on first use and kept for the life of the process. It is the OrvaneCallbacks object it
// hands to the transport library and owns that library handle. The operations are virtual so that
// tests of the sync manager can hand it a fake uploader. Errors: open gives 0 / -1 / 13 / 23, close
// and wipe give false, performSync leaves its outcome in the SyncResult; library exceptions never
// leave these operations. Every exception raised on the way (the service's Orvane*Exception
// classes, the library's OrvaneError, and the std::invalid_argument / std::out_of_range of a
// malformed proxy port while the library handle is built) is caught as std::exception inside
// openPds, closePds and wipePds themselves; openPds tells 13 and 23 from -1 by the OrvaneError's
// code, never by its text.
//
// Decisions of this implementation:
// - Preferences are read and written through the platform preference store directly (typed
//   reads: "port" int, "is_force" bool, ...), afresh on every call.
// - A null NetworkMgr skips the connectivity check (taken as connected); a null IntentMgr sends
//   no notification; an empty clearQueue is not called.
// - When the connection service reports no proxy, the bulk post also turns off libcurl's own
//   reading of the proxy environment (the service's settings may have overridden it to none).
// - performSync keeps every chunk of a reply (bounded at 64 MiB); a reply that is not gzip is read
//   as plain text.
// - The bulk post has no overall time-out, but a connect time-out (15 s) and a stall limit (under
//   1 byte/s for 60 s), and cancelTransfers() (any thread) aborts a running transfer within about
//   a second, so the service's stop paths never wait on a silent server.
#pragma once

#include <orvane/Orvane.h>
#include <orvane/OrvaneCallbacks.h>
#include <pelio/CHandles.h>

#include <curl/curl.h>

#include <atomic>
#include <cstddef>
#include <exception>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "upload/SyncData.h"
#include "upload/SyncResult.h"

class IntentMgr;
class UMgrGzip;
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

    // Any thread: aborts the running bulk transfer and every later one of this handler.
    void cancelTransfers();
    // Tests: shorter connect time-out and stall limit for the bulk post (seconds).
    static void setTransferLimitsForTesting(long connectSeconds, long stallSeconds);

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

    // OrvaneCallbacks: the handler does nothing with the library's log lines and events.
    void onLog(int level, const std::string& message) override;
    void onSessionEvent(const std::string& operation, long httpStatus) override;

  private:
    friend struct DataUploadHandlerPeer;  // unit tests reach the helpers below

    // One gzip'd upload part: a calloc'd buffer (freed with free()) and its length.
    struct ZippedItem {
        pelio::MallocPtr<unsigned char> item;
        int size = 0;
    };
    using ZippedItemPtr = std::unique_ptr<ZippedItem>;
    // The reply of one zipped part, as the transfer delivered it.
    struct ZippedReply {
        std::vector<unsigned char> item;
        bool recorded = false;
    };

    // Posting (bulk documents).
    bool _checkPreConditionToPerformSync(SyncData* syncData, SyncResult* syncResult);
    std::vector<std::string> _getPartedSyncDataList(const std::string& jsonMessage, int unitCount);
    // Zips part `index` (logging as the zipping of a body does); null when zipping failed.
    static ZippedItemPtr _zipPart(UMgrGzip& gzip, const std::string& part, size_t index);
    // Posts the parts zipped, the first one already zipped by the caller. The others are zipped
    // while the first ones travel, and each plain part is released once zipped. A part that cannot
    // be zipped then fails the post as a transfer error does.
    std::string _curlPostingZipped(std::vector<std::string>& parts, ZippedItemPtr first);
    std::string _curlPostingUnzipped(const std::vector<std::string>& parts);
    // One zipped part's transfer is over: its reply as text, or nothing to join (an empty or
    // missing reply). A transfer error or an unreadable reply sets `failed`.
    std::optional<std::string> _partReplyText(CURL* curl, CURLcode rc, int postSize,
                                              const ZippedReply& reply, bool& failed);
    static size_t SavePostResultZipped(char* chunk, size_t size, size_t count, void* reply);
    static size_t SavePostResultUnzipped(char* chunk, size_t size, size_t count, void* reply);
    static int _onProgress(void* handler, curl_off_t, curl_off_t, curl_off_t, curl_off_t);

    // Server, network and proxy configuration (preferences read afresh on every call).
    std::string _getPrefServerIp();
    int _getPrefPortNum();
    std::string _getPrefCertiPath();
    bool _getPrefForce();
    void _setPrefForce(bool force);
    bool _useTls();
    int _getPortNumber();
    std::string _getCertiPath();
    std::string _getProxyAddress();
    // Splits the proxy at its first ':'. Throws std::invalid_argument / std::out_of_range for a
    // malformed port (the callers, the PDS calls, catch std::exception).
    void _getProxyAddress(std::string& host, int* port);
    bool _getCompanianMode();
    std::string _getServerIp();
    bool _setCurlEnvironment(CURL* curl, curl_slist* header);
    void _setCurlHttpPostingHeader(curl_slist** header, bool zipping);

    // PDS session library handle.
    // Stores a domain's PLM id (an empty id is ignored); notifyFirst, when given, tells the voice
    // app when the domain had no id before.
    void _storeDomainPlmId(const char* key, const std::string& plmId,
                           void (IntentMgr::*notifyFirst)(const std::string&));
    // The steps of openPds. Each may throw; openPds catches.
    bool _prepareOpenHandle(bool force);  // a forced open uses a fresh handle
    void _requireNetwork();               // throws when the network is down
    // 0 on success; throws the service's exceptions for results 13, 15 and 23; else -1.
    int _acceptOpenResult(const std::map<std::string, std::string>& result);
    // What openPds returns for an exception caught while opening (and the no-database reaction).
    int _openFailureResult(const std::exception& e);
    bool _createOrvaneHandle();  // may throw as _getProxyAddress(host, port)
    void _clearOrvaneHandle();
    void _handleSyncPolicy(const std::string& policy);

    IntentMgr* mIntentMgr;
    NetworkMgr* mNetworkMgr;
    std::function<void()> mClearQueue;

    std::atomic<bool> mCancelled{false};
    // Connections of the bulk posts running now (bodies are posted from more than one thread).
    std::atomic<int> mPostConnections{0};
    bool mPdsOpened = false;
    bool mPdsClosed = true;
    std::string mCookie;
    std::string mDbUrl;
    std::string mLatestPlmId;
    // 0 not checked yet, 1 companion (paired), 2 stand-alone; bodies are posted from more than
    // one thread at once.
    std::atomic<int> mCompanionMode{0};
    std::unique_ptr<Orvane> mOrvane;
};
