#include "upload/DataUploadHandler.h"

#include <json-glib/json-glib.h>
#include <pelio/platform/Connection.h>
#include <pelio/platform/Preferences.h>

#include <algorithm>
#include <atomic>
#include <cstdlib>
#include <cstring>
#include <map>
#include <stdexcept>

#include "PLMConstants.h"
#include "PelioLog.h"
#include "intent/IntentMgr.h"
#include "network/NetworkMgr.h"
#include "upload/DocsSplitter.h"
#include "upload/OrvaneException.h"
#include "upload/OrvanePDSException.h"
#include "upload/OrvanePDSNoDatabaseException.h"
#include "upload/PLMSyncPolicy.h"
#include "utils/PLMUtils.h"
#include "utils/UMgrGzip.h"

namespace platform = pelio::platform;
using StringMap = std::map<std::string, std::string>;

namespace {

constexpr int kUnitCountCompanion = 500;
constexpr int kUnitCountStandAlone = 100;
constexpr int kDeflateLevel = 6;
// A reply larger than this is refused (the transfer is aborted and the part counts as failed).
constexpr size_t kMaxReplyBytes = 64u << 20;
// Connections of the bulk post, shared by the bodies on the wire at once (the sync manager posts
// two): a body takes the ones free when it starts and those freed while it runs, up to all of
// them, and always has one. So a lone body has six parts on the wire, and a sync holds at most
// seven connections to the server (servers bound the connections of one client; pds-server's
// default bound is eight).
constexpr int kPostConnections = 6;

// The connections one body's post holds of the handler's shared count, given back when it ends.
class ConnectionShare {
  public:
    explicit ConnectionShare(std::atomic<int>& inUse) : mInUse(inUse) {}
    ~ConnectionShare() { mInUse.fetch_sub(mHeld); }
    ConnectionShare(const ConnectionShare&) = delete;
    ConnectionShare& operator=(const ConnectionShare&) = delete;

    // One connection however many are in use: a body always has one.
    void takeOne() {
        mInUse.fetch_add(1);
        ++mHeld;
    }
    // One connection if fewer than kPostConnections are in use.
    bool tryTakeOne() {
        int now = mInUse.load();
        while (now < kPostConnections) {
            if (mInUse.compare_exchange_weak(now, now + 1)) {
                ++mHeld;
                return true;
            }
        }
        return false;
    }
    void giveBackOne() {
        mInUse.fetch_sub(1);
        --mHeld;
    }

  private:
    std::atomic<int>& mInUse;
    int mHeld = 0;
};

// Transfer limits of the bulk post: no overall time-out (large bodies on slow links must finish),
// but a connect time-out and a stall limit. Tests shorten them.
std::atomic<long> gConnectTimeoutSeconds{15};
std::atomic<long> gStallSeconds{60};
constexpr long kStallBytesPerSecond = 1;
constexpr int kDefaultPort = 443;
constexpr const char* kRampCode = "dash";

using ParserPtr = pelio::GObjectPtr<JsonParser>;
using GeneratorPtr = pelio::GObjectPtr<JsonGenerator>;

std::string valueOf(const StringMap& map, const char* key) {
    auto it = map.find(key);
    return it == map.end() ? std::string() : it->second;
}

bool isSuccess(const std::string& reason, const std::string& result) {
    return reason == plm::UploadDataConstants::SUCCESS && result == "0";
}

std::string prefString(const char* key) {
    std::string value;
    if (platform::preferences().getString(key, value) != platform::PREFERENCE_ERROR_NONE) {
        return {};
    }
    return value;
}

// The open request: the ramp code and the device model.
std::map<std::string, std::string> openRequest() {
    return {{"rampcode", kRampCode}, {"serviceinfo", getDeviceModelName()}};
}

// What openPds returns for a failure of the transport library.
int openResultOf(OrvaneErrorCode code) {
    switch (code) {
        case OrvaneErrorCode::DatabaseUnreachable:
            return 13;
        case OrvaneErrorCode::ForceLimited:
            return 23;
        default:
            return -1;
    }
}

void removeAll(std::string& text, char c) {
    text.erase(std::remove(text.begin(), text.end(), c), text.end());
}

bool isGzip(const std::vector<unsigned char>& bytes) {
    return bytes.size() >= 2 && bytes[0] == 0x1f && bytes[1] == 0x8b;
}

// Joins one part's answer to the answers so far: its brackets and line breaks dropped, parts
// separated by commas (the caller wraps the whole in "[...]").
void appendPartReply(std::string& joined, std::string text) {
    removeAll(text, '[');
    removeAll(text, ']');
    removeAll(text, '\n');
    removeAll(text, '\r');
    if (joined.empty()) {
        joined = std::move(text);
    } else {
        joined += "," + text;
    }
}

}  // namespace

DataUploadHandler::DataUploadHandler(IntentMgr* intentMgr, NetworkMgr* networkMgr,
                                     std::function<void()> clearQueue)
    : mIntentMgr(intentMgr), mNetworkMgr(networkMgr), mClearQueue(std::move(clearQueue)) {
    LOGD("");
}

DataUploadHandler::~DataUploadHandler() {
    LOGD("");
    _clearOrvaneHandle();
}

void DataUploadHandler::cancelTransfers() {
    LOGD("transfers cancelled");
    mCancelled.store(true);
}

void DataUploadHandler::setTransferLimitsForTesting(long connectSeconds, long stallSeconds) {
    gConnectTimeoutSeconds.store(connectSeconds);
    gStallSeconds.store(stallSeconds);
}

int DataUploadHandler::_onProgress(void* handler, curl_off_t, curl_off_t, curl_off_t, curl_off_t) {
    // Called at least once a second while a transfer runs: a non-zero answer aborts it.
    return static_cast<DataUploadHandler*>(handler)->mCancelled.load() ? 1 : 0;
}

void DataUploadHandler::onLog(int, const std::string&) {}

void DataUploadHandler::onSessionEvent(const std::string&, long) {}

// ---------------------------------------------------------------------------------------------
// PDS session

int DataUploadHandler::openPds(int syncDataType) {
    LOGD("syncDataType[%d]", syncDataType);
    setPdsOpened(false);
    int ret = -1;
    // Everything that can throw is inside this block: the library's errors, the service's own
    // exceptions and a malformed proxy port (std::stoi while the handle is created). Nothing
    // leaves openPds, so nothing reaches the sync worker thread's loop.
    try {
        bool companion = _getCompanianMode();
        bool force = _getPrefForce();
        std::string locale = getLocalePreference();
        if (!_prepareOpenHandle(force))
            return -1;
        StringMap request = openRequest();
        _requireNetwork();
        StringMap result;
        mOrvane->Orvane_pds_open(locale, request, force, companion, result, !companion);
        ret = _acceptOpenResult(result);
    } catch (const std::exception& e) {
        LOGE("");
        LOGE("errMsg[%s]", e.what());
        ret = _openFailureResult(e);
    }
    setPdsOpened(ret == 0);
    return ret;
}

bool DataUploadHandler::_prepareOpenHandle(bool force) {
    if (force && mOrvane)
        _clearOrvaneHandle();
    if (!mOrvane) {
        LOGD("Handle is Null");
        if (!_createOrvaneHandle()) {
            LOGE("Failed to create Handle");
            return false;
        }
    }
    return true;
}

void DataUploadHandler::_requireNetwork() {
    if (mNetworkMgr != nullptr && !mNetworkMgr->getConnected()) {
        throw OrvanePDSException("client: Network is not connected");
    }
}

int DataUploadHandler::_acceptOpenResult(const StringMap& result) {
    std::string reasonCode = valueOf(result, plm::UploadDataConstants::REASON);
    std::string resultCode = valueOf(result, plm::UploadDataConstants::RESULT);
    LOGD("reasonCode[%s]", reasonCode.c_str());
    LOGD("resultCode[%s]", resultCode.c_str());

    if (isSuccess(reasonCode, resultCode)) {
        LOGD("Open Succedded");
        mCookie = valueOf(result, plm::UploadDataConstants::COOKIE);
        mDbUrl = valueOf(result, plm::UploadDataConstants::DBURL);
        mLatestPlmId = valueOf(result, plm::UploadDataConstants::PLMID);
        _handleSyncPolicy(valueOf(result, plm::UploadDataConstants::POLICY));
        return 0;
    }
    if (resultCode == plm::UploadDataConstants::RESULT_13 ||
        resultCode == plm::UploadDataConstants::RESULT_15) {
        LOGE("Open Failed - PDSS Error, Server");
        (void)std::stoi(resultCode);
        throw OrvanePDSNoDatabaseException(resultCode);
    }
    if (resultCode == plm::UploadDataConstants::RESULT_23) {
        LOGE("Open Failed - Sync Blocked");
        throw OrvanePDSException(resultCode);
    }
    LOGE("Open Failed");
    return -1;
}

int DataUploadHandler::_openFailureResult(const std::exception& e) {
    if (dynamic_cast<const OrvanePDSNoDatabaseException*>(&e) != nullptr) {
        LOGE("OrvanePDSNoDatabaseException trigger force");
        _setPrefForce(true);
        if (mClearQueue)
            mClearQueue();
    }
    const auto* transport = dynamic_cast<const OrvaneError*>(&e);
    return transport ? openResultOf(transport->code()) : -1;
}

bool DataUploadHandler::closePds() {
    LOGD("");
    setPdsOpened(false);
    setPdsClosed(true);
    try {
        bool companion = _getCompanianMode();
        std::string locale = getLocalePreference();
        if (!mOrvane) {
            LOGD("Create Handle");
            if (!_createOrvaneHandle()) {
                LOGE("Failed to create Handle");
                return false;
            }
        }
        StringMap request{{"rampcode", kRampCode}};
        StringMap result;
        setPdsClosed(false);
        mOrvane->Orvane_pds_close(locale, request, companion, result, !companion);
        std::string reasonCode = valueOf(result, plm::UploadDataConstants::REASON);
        std::string resultCode = valueOf(result, plm::UploadDataConstants::RESULT);
        LOGD("reasonCode[%s]", reasonCode.c_str());
        LOGD("resultCode[%s]", resultCode.c_str());
        if (isSuccess(reasonCode, resultCode)) {
            LOGD("Pds Closed Succeeded");
            setServerDBGenerateRequestState(0);
            // Without a candidate from the open the reason text ("success") is stored: kept so.
            setSucceededLatestPLMId(mLatestPlmId.empty() ? reasonCode : mLatestPlmId);
            setPdsClosed(true);
            return true;
        }
        LOGE("Pds Closed Failed");
        setServerDBGenerateRequestState(1);
        setPdsClosed(true);
        return false;
    } catch (const std::exception& e) {
        LOGE("Pds Closed Failed - TryCatch[%s]", e.what());
        setPdsClosed(true);
        return false;
    }
}

bool DataUploadHandler::wipePds(bool deleteAll) {
    LOGD("");
    setPdsOpened(false);
    try {
        if (!mOrvane) {
            LOGD("Create Handle");
            if (!_createOrvaneHandle()) {
                LOGE("Failed to create Handle");
                return false;
            }
        }
        std::string locale = getLocalePreference();
        StringMap request;
        if (deleteAll) {
            request["deleteall"] = "true";
        } else {
            request["resetplm"] = "true";
        }
        StringMap result;
        mOrvane->Orvane_pds_wipe(locale, request, result);
        std::string reasonCode = valueOf(result, plm::UploadDataConstants::REASON);
        std::string resultCode = valueOf(result, plm::UploadDataConstants::RESULT);
        LOGD("reasonCode[%s]", reasonCode.c_str());
        LOGD("resultCode[%s]", resultCode.c_str());
        if (isSuccess(reasonCode, resultCode)) {
            LOGD("pds wipe successful");
            return true;
        }
        LOGE("pds wipe Error");
        setServerDBGenerateRequestState(1);
        if (platform::preferences().setBoolean(plm::PLMConstants::CLEAR_SERVER, false) !=
            platform::PREFERENCE_ERROR_NONE) {
            LOGE("Failed to preference set for clear_server");
        }
        return false;
    } catch (const std::exception& e) {
        LOGE("pds wipe fail exception message [%s]", e.what());
        return false;
    }
}

bool DataUploadHandler::getPdsOpened() {
    LOGD("mPdsOpened[%d]", mPdsOpened);
    return mPdsOpened;
}

void DataUploadHandler::setPdsOpened(bool opened) {
    LOGD("current state [%d] and request is [%d]", mPdsOpened, opened);
    mPdsOpened = opened;
}

bool DataUploadHandler::getPdsClosed() {
    LOGD("mPdsClosed[%d]", mPdsClosed);
    return mPdsClosed;
}

void DataUploadHandler::setPdsClosed(bool closed) {
    LOGD("current state [%d] and request is [%d]", mPdsClosed, closed);
    mPdsClosed = closed;
}

void DataUploadHandler::setServerDBGenerateRequestState(int state) {
    LOGD("state[%d]", state);
    if (platform::preferences().setInt(plm::PREF_SYNC_NEED, state) !=
        platform::PREFERENCE_ERROR_NONE) {
        LOGE("Failed to preference set for sync_need");
    }
}

std::string DataUploadHandler::getSucceededLatestPLMId() {
    std::string id = prefString(plm::PREF_PLM_ID);
    LOGD("getSucceededLatestPLMId[%s]", id.c_str());
    return id;
}

void DataUploadHandler::setSucceededLatestPLMId(const std::string& plmId) {
    LOGD("plmId[%s]", plmId.c_str());
    if (plmId.empty())
        return;
    platform::preferences().setString(plm::PREF_PLM_ID, plmId);
}

std::string DataUploadHandler::getLastApplicationPlmId() {
    std::string id = prefString(plm::PREF_APP_SYNCED_PLM_ID);
    LOGD("appPlmId[%s]", id.c_str());
    return id;
}

void DataUploadHandler::setLastApplicationPlmId(const std::string& plmId) {
    LOGD("plmId[%s]", plmId.c_str());
    _storeDomainPlmId(plm::PREF_APP_SYNCED_PLM_ID, plmId, &IntentMgr::sendApplicationHasPlmId);
}

std::string DataUploadHandler::getLastContactPlmId() {
    std::string id = prefString(plm::PREF_CONTACT_SYNCED_PLM_ID);
    LOGD("contactPlmId[%s]", id.c_str());
    return id;
}

void DataUploadHandler::setLastContactPlmId(const std::string& plmId) {
    LOGD("plmId[%s]", plmId.c_str());
    _storeDomainPlmId(plm::PREF_CONTACT_SYNCED_PLM_ID, plmId, &IntentMgr::sendContactHasPlmId);
}

std::string DataUploadHandler::getLastMediaPlmId() {
    std::string id = prefString(plm::PREF_MEDIA_SYNCED_PLM_ID);
    LOGD("mediaPlmId[%s]", id.c_str());
    return id;
}

void DataUploadHandler::setLastMediaPlmId(const std::string& plmId) {
    LOGD("plmId[%s]", plmId.c_str());
    _storeDomainPlmId(plm::PREF_MEDIA_SYNCED_PLM_ID, plmId, nullptr);
}

void DataUploadHandler::_storeDomainPlmId(const char* key, const std::string& plmId,
                                          void (IntentMgr::*notifyFirst)(const std::string&)) {
    if (plmId.empty())
        return;
    // The voice app hears of a domain's first PLM id only.
    if (notifyFirst != nullptr && mIntentMgr != nullptr && prefString(key).empty())
        (mIntentMgr->*notifyFirst)(plmId);
    platform::preferences().setString(key, plmId);
}

bool DataUploadHandler::_createOrvaneHandle() {
    LOGD("");
    int port = _getPortNumber();
    std::string certiPath = _getCertiPath();
    std::string deviceId = getDeviceID();
    std::string locale = getLocalePreference();
    std::string serverIp = _getServerIp();
    std::string proxyHost;
    int proxyPort = 0;
    _getProxyAddress(proxyHost, &proxyPort);  // may throw (malformed port): caller catches
    LOGD("serverIp[%s], port[%d], locale[%s], proxy[%s:%d]", serverIp.c_str(), port, locale.c_str(),
         proxyHost.c_str(), proxyPort);
    try {
        mOrvane = std::make_unique<Orvane>(serverIp, port, deviceId, this, _useTls(), certiPath,
                                           proxyHost, proxyPort);
    } catch (const std::exception& e) {
        LOGE("errMsg[%s]", e.what());
        mOrvane.reset();
        return false;
    }
    mOrvane->Orvane_enable_log(5);
    return true;
}

void DataUploadHandler::_clearOrvaneHandle() {
    LOGD("");
    mOrvane.reset();
}

void DataUploadHandler::_handleSyncPolicy(const std::string& policy) {
    LOGD("");
    if (policy.empty()) {
        LOGD("string is empty");
        return;
    }
    PLMSyncPolicy syncPolicy;
    ParserPtr parser(json_parser_new());
    json_parser_load_from_data(parser.get(), policy.c_str(), static_cast<gssize>(policy.size()),
                               nullptr);
    JsonNode* root = json_parser_get_root(parser.get());
    if (root == nullptr || JSON_NODE_TYPE(root) != JSON_NODE_OBJECT) {
        LOGE("Failed to json_node_get_node_type");
        return;
    }
    JsonObject* object = json_node_get_object(root);
    if (object == nullptr) {
        LOGE("Failed to json_node_get_object");
        return;
    }
    JsonNode* syncNode = json_object_get_member(object, plm::UploadDataConstants::SYNCPOLICY);
    if (syncNode == nullptr || JSON_NODE_TYPE(syncNode) != JSON_NODE_OBJECT) {
        LOGE("Failed to policy json");
        return;
    }
    JsonObject* syncObject = json_node_get_object(syncNode);
    JsonNode* paramNode = json_object_get_member(syncObject, "parameters");
    if (paramNode == nullptr || JSON_NODE_TYPE(paramNode) != JSON_NODE_OBJECT) {
        LOGE("Failed to parameter json");
        return;
    }
    JsonObject* params = json_node_get_object(paramNode);
    auto factor = [params](const char* key) {
        JsonNode* node = json_object_get_member(params, key);
        if (node == nullptr || JSON_NODE_TYPE(node) != JSON_NODE_VALUE)
            return 0.0;
        return json_node_get_double(node);
    };
    syncPolicy.setSyncPolicy(factor("D"), factor("E"), factor("F"), factor("G"), factor("H"),
                             factor("M"), factor("R"), factor("T"));
}

// ---------------------------------------------------------------------------------------------
// Bulk posting

bool DataUploadHandler::_checkPreConditionToPerformSync(SyncData* syncData,
                                                        SyncResult* syncResult) {
    LOGD("start of plm syncing request session state : [%d]", mPdsOpened);
    if (syncData == nullptr) {
        LOGE("syncData is NULL");
        return false;
    }
    if (syncData->message.empty()) {
        LOGE("syncData has no Message");
        return false;
    }
    if (syncResult == nullptr) {
        LOGE("syncResult is NULL");
        return false;
    }
    if (!mPdsOpened) {
        LOGE("PDS is not openned");
        return false;
    }
    return true;
}

void DataUploadHandler::performSync(SyncData* syncData, SyncResult* syncResult) {
    if (!_checkPreConditionToPerformSync(syncData, syncResult)) {
        LOGE("Unable to performSync at this condition");
        return;
    }
    LOGD("syncData has length[%d], item type[%d], sync type[%d]",
         static_cast<int>(syncData->message.size()), syncData->itemType, syncData->syncType);
    LOGD("Parting start");
    int unitCount = _getCompanianMode() ? kUnitCountCompanion : kUnitCountStandAlone;
    LOGD("Parting count[%d]", unitCount);
    std::vector<std::string> parts = _getPartedSyncDataList(syncData->message, unitCount);
    LOGD("Parting End");
    if (parts.empty()) {
        LOGD("Nothing to Http Post");
        return;
    }

    LOGD("Zipping start");
    LOGD("sourceCnt has [%d]", static_cast<int>(parts.size()));
    // The first part is zipped here: a body whose first part cannot be zipped goes up plain. The
    // others are zipped while the first ones travel (a later one that cannot be zipped fails the
    // post as a transfer error does, and the body's rows wait for the next sync).
    UMgrGzip gzip;
    ZippedItemPtr first = _zipPart(gzip, parts.front(), 0);
    LOGD("Zipping End");
    if (first)
        LOGD("Zipping succedded");
    std::string reply =
        first ? _curlPostingZipped(parts, std::move(first)) : _curlPostingUnzipped(parts);

    if (reply.empty()) {
        LOGE("posting failed");
        syncResult->status = SyncResult::STATUS_FAILED;
        syncResult->syncType = syncData->syncType;
        syncResult->itemType = syncData->itemType;
        LOGE("Upload failed!");
        return;
    }
    LOGD("posting Succedded");
    syncResult->jsonResponse = "[" + reply + "]";
    syncResult->status = SyncResult::STATUS_SUCCESS;
    syncResult->syncType = syncData->syncType;
    syncResult->itemType = syncData->itemType;
}

std::vector<std::string> DataUploadHandler::_getPartedSyncDataList(const std::string& jsonMessage,
                                                                   int unitCount) {
    LOGD("jsonMessage.length[%d], unitCount[%d]", static_cast<int>(jsonMessage.size()), unitCount);
    std::vector<std::string> parts;
    std::vector<int> sizes;
    if (DocsSplitter::split(jsonMessage, unitCount, parts, sizes)) {
        // The composers' compact bodies are cut as they stand: the same parts as below.
        LOGD("parserLoadState[%d], parserLoadState[%d]", 1, 1);
        int done = 0;
        for (int size : sizes)
            done += size;
        LOGD("reqeustDataArrSize[%d]", done);
        done = 0;
        for (int size : sizes) {
            LOGD("composingSize[%d]", size);
            done += size;
            LOGD("recomposedSize[%d]", done);
        }
        LOGD("retL has [%d]", static_cast<int>(parts.size()));
        return parts;
    }
    ParserPtr parser(json_parser_new());
    if (!parser) {
        LOGE("Failed to json_parser_new");
        return parts;
    }
    gboolean loaded = json_parser_load_from_data(parser.get(), jsonMessage.c_str(), -1, nullptr);
    if (!loaded) {
        LOGE("Failed to json_parser_load_from_data");
        return parts;
    }
    LOGD("parserLoadState[%d], parserLoadState[%d]", loaded, loaded);
    JsonNode* root = json_parser_get_root(parser.get());
    if (root == nullptr || JSON_NODE_TYPE(root) != JSON_NODE_OBJECT) {
        LOGE("Failed to get root node");
        return parts;
    }
    JsonObject* object = json_node_get_object(root);
    if (object == nullptr) {
        LOGE("Failed to json_node_get_object");
        return parts;
    }
    JsonNode* docsNode = json_object_get_member(object, plm::DOC_DOCS);
    if (docsNode == nullptr || JSON_NODE_TYPE(docsNode) != JSON_NODE_ARRAY) {
        LOGE("Failed to json_object_get_array_member");
        return parts;
    }
    JsonArray* docs = json_node_get_array(docsNode);
    int n = static_cast<int>(json_array_get_length(docs));
    LOGD("reqeustDataArrSize[%d]", n);
    if (n == 0) {
        LOGE("Failed to json_array_get_length");
        return parts;
    }
    GeneratorPtr generator(json_generator_new());
    int start = 0;
    int failedGenerations = 0;
    while (start < n) {
        int size = std::min(unitCount, n - start);
        LOGD("composingSize[%d]", size);
        if (size < 1) {
            LOGE("Wrong calculation");
            break;
        }
        JsonArray* slice = json_array_sized_new(static_cast<guint>(size));
        for (int i = start; i < start + size; ++i) {
            json_array_add_element(slice, json_node_copy(json_array_get_element(docs, i)));
        }
        JsonObject* partObject = json_object_new();
        json_object_set_array_member(partObject, plm::DOC_DOCS, slice);  // takes slice
        JsonNode* partNode = json_node_new(JSON_NODE_OBJECT);
        json_node_take_object(partNode, partObject);
        json_generator_set_pretty(generator.get(), FALSE);
        json_generator_set_root(generator.get(), partNode);
        pelio::GCharPtr text(json_generator_to_data(generator.get(), nullptr));
        json_node_unref(partNode);
        if (!text || text.get()[0] == '\0') {
            LOGE("Create string failed");
            // The same slice is tried again; a generator that never succeeds must not spin
            // forever, so the retries are bounded.
            if (++failedGenerations > 3)
                break;
            continue;
        }
        parts.emplace_back(text.get());
        LOGD("recomposedSize[%d]", start + size);
        start += size;
    }
    LOGD("retL has [%d]", static_cast<int>(parts.size()));
    return parts;
}

DataUploadHandler::ZippedItemPtr DataUploadHandler::_zipPart(UMgrGzip& gzip,
                                                             const std::string& part,
                                                             size_t index) {
    unsigned char* buffer = nullptr;
    int size = 0;
    const int rc = gzip.compress(part, kDeflateLevel, &buffer, &size);
    pelio::MallocPtr<unsigned char> owned(buffer);
    if (rc != UMgrGzip::RESULT) {
        LOGE("Failed to zipping [%d]th item : error returns", static_cast<int>(index) + 1);
        return nullptr;
    }
    if (buffer == nullptr) {
        LOGE("Failed to zipping [%d]th item : zipped is NULL", static_cast<int>(index) + 1);
        return nullptr;
    }
    LOGD("[%d]th size is [%d]", static_cast<int>(index), size);
    return std::make_unique<ZippedItem>(ZippedItem{std::move(owned), size});
}

std::string DataUploadHandler::_curlPostingZipped(std::vector<std::string>& parts,
                                                  ZippedItemPtr first) {
    std::string result;
    curl_slist* rawHeader = nullptr;
    _setCurlHttpPostingHeader(&rawHeader, true);
    pelio::CurlList header(rawHeader);
    pelio::CurlEasy curl(curl_easy_init());
    if (!curl) {
        LOGE("Failed to curl_easy_init");
        return result;
    }
    if (!_setCurlEnvironment(curl.get(), header.get())) {
        LOGE("Upload failed!");
        return result;
    }
    if (parts.empty() || !first) {
        LOGE("Upload failed!");
        return result;
    }
    // Parts go up over a few connections at once: while one waits for the server's answer the
    // next ones travel, and the parts after them are zipped. Each connection's handle is reused
    // for the parts it takes; the answers are joined in the parts' order whatever order they
    // come in. The connections are taken from the handler's shared count and given back when the
    // body is done, once they are closed.
    struct Lane {
        pelio::CurlEasy handle;  // its connection's transfer handle
        size_t part = 0;
        bool busy = false;
        ZippedReply reply;
    };
    ConnectionShare share(mPostConnections);
    share.takeOne();  // the first lane's, the handle made above
    pelio::CurlMulti multi(curl_multi_init());
    if (!multi) {
        LOGE("Failed to curl_easy_init");
        LOGE("Upload failed!");
        return result;
    }
    std::vector<Lane> lanes;
    lanes.reserve(static_cast<size_t>(kPostConnections));
    std::vector<ZippedItemPtr> zipped(parts.size());
    zipped[0] = std::move(first);
    std::string().swap(parts[0]);
    size_t zippedCount = 1;  // parts [0, zippedCount) are zipped and their plain text released
    std::vector<std::optional<std::string>> texts(parts.size());
    size_t next = 0;
    size_t busy = 0;
    bool failed = false;
    UMgrGzip gzip;
    auto zipNext = [&] {
        zipped[zippedCount] = _zipPart(gzip, parts[zippedCount], zippedCount);
        if (!zipped[zippedCount]) {
            LOGE("Upload failed!");
            failed = true;
            return;
        }
        std::string().swap(parts[zippedCount++]);
    };
    auto start = [&](Lane& lane) {
        if (next == zippedCount)
            zipNext();
        if (failed)
            return;
        const ZippedItemPtr& part = zipped[next];
        lane.part = next++;
        lane.reply = ZippedReply();
        curl_easy_setopt(lane.handle.get(), CURLOPT_WRITEFUNCTION,
                         &DataUploadHandler::SavePostResultZipped);
        curl_easy_setopt(lane.handle.get(), CURLOPT_WRITEDATA, &lane.reply);
        curl_easy_setopt(lane.handle.get(), CURLOPT_POSTFIELDS, part->item.get());
        curl_easy_setopt(lane.handle.get(), CURLOPT_POSTFIELDSIZE, static_cast<long>(part->size));
        lane.busy = curl_multi_add_handle(multi.get(), lane.handle.get()) == CURLM_OK;
        busy += lane.busy ? 1 : 0;
        failed = failed || !lane.busy;
    };
    auto addLane = [&](pelio::CurlEasy handle) {
        lanes.emplace_back();
        lanes.back().handle = std::move(handle);
        start(lanes.back());
    };
    // Adds lanes while parts wait to be started and connections are free.
    bool canGrow = true;
    auto grow = [&] {
        while (!failed && canGrow && next < parts.size() &&
               lanes.size() < static_cast<size_t>(kPostConnections) && share.tryTakeOne()) {
            pelio::CurlEasy more(curl_easy_init());
            if (!more || !_setCurlEnvironment(more.get(), header.get())) {
                share.giveBackOne();
                canGrow = false;  // fewer connections, same parts
                return;
            }
            addLane(std::move(more));
        }
    };
    addLane(std::move(curl));
    grow();
    while (busy > 0 && !failed) {
        int running = 0;
        if (curl_multi_perform(multi.get(), &running) != CURLM_OK) {
            failed = true;
            break;
        }
        int left = 0;
        while (CURLMsg* msg = curl_multi_info_read(multi.get(), &left)) {
            if (msg->msg != CURLMSG_DONE)
                continue;
            auto lane = std::find_if(lanes.begin(), lanes.end(), [msg](const Lane& l) {
                return l.busy && l.handle.get() == msg->easy_handle;
            });
            if (lane == lanes.end())
                continue;
            const CURLcode rc = msg->data.result;  // read before the handle leaves the multi
            curl_multi_remove_handle(multi.get(), lane->handle.get());
            lane->busy = false;
            --busy;
            if (failed)
                continue;
            const int postSize = zipped[lane->part]->size;
            zipped[lane->part].reset();  // answered: its bytes are not needed again
            texts[lane->part] =
                _partReplyText(lane->handle.get(), rc, postSize, lane->reply, failed);
            if (!failed && next < parts.size())
                start(*lane);
        }
        if (busy == 0 || failed)
            break;
        grow();
        // Between transfers' progress, the next part is zipped; once all are, the loop sleeps
        // until a transfer has something to do.
        if (zippedCount < parts.size())
            zipNext();
        else
            curl_multi_poll(multi.get(), nullptr, 0, 1000, nullptr);
    }
    // A failed part stops the others; every handle leaves the multi before either goes.
    for (Lane& lane : lanes) {
        if (lane.busy)
            curl_multi_remove_handle(multi.get(), lane.handle.get());
    }
    if (failed) {
        result.clear();
    } else {
        for (std::optional<std::string>& text : texts) {
            if (text)
                appendPartReply(result, std::move(*text));
        }
    }
    if (!result.empty()) {
        LOGD("Upload succedded");
    } else {
        LOGE("Upload failed!");
        result.clear();
    }
    LOGD("End of plm syncing request");
    return result;
}

std::optional<std::string> DataUploadHandler::_partReplyText(CURL* curl, CURLcode rc, int postSize,
                                                             const ZippedReply& reply,
                                                             bool& failed) {
    LOGD("postSize[%d], postResult[%d]", postSize, static_cast<int>(rc));
    if (rc != CURLE_OK) {
        LOGE("Failed to perform");
        LOGE("Upload failed!");
        failed = true;
        return std::nullopt;
    }
    long httpCode = 0;
    curl_easy_getinfo(curl, CURLINFO_RESPONSE_CODE, &httpCode);
    LOGD("partialPostCurlResult[%d], httpResponseCode[%d]", static_cast<int>(rc),
         static_cast<int>(httpCode));
    if (reply.item.empty()) {
        LOGD("size is 0");
        return std::nullopt;
    }
    if (!reply.recorded) {
        LOGD("item is NULL");
        return std::nullopt;
    }
    LOGD("zippedItem[%p], zippedItem.item[%p], zippedItem.size[%u]",
         static_cast<const void*>(&reply), static_cast<const void*>(reply.item.data()),
         static_cast<unsigned>(reply.item.size()));
    std::string text;
    if (isGzip(reply.item)) {
        UMgrGzip gzip;
        gzip.deCompress(reply.item.data(), reply.item.size(), text);
        if (text.empty()) {
            LOGE("Failed to deCompress the reply of [%u] bytes",
                 static_cast<unsigned>(reply.item.size()));
            failed = true;
            return std::nullopt;
        }
    } else {
        // A server or proxy that answered without compression: the reply is the text.
        LOGW("reply is not gzip, read as plain text");
        text.assign(reply.item.begin(), reply.item.end());
    }
    return text;
}

std::string DataUploadHandler::_curlPostingUnzipped(const std::vector<std::string>& parts) {
    LOGD("");
    std::string result;
    curl_slist* rawHeader = nullptr;
    _setCurlHttpPostingHeader(&rawHeader, false);
    pelio::CurlList header(rawHeader);
    LOGD("header[%p]", static_cast<void*>(header.get()));
    pelio::CurlEasy curl(curl_easy_init());
    if (!curl) {
        LOGE("Failed to curl_easy_init");
        return result;
    }
    if (!_setCurlEnvironment(curl.get(), header.get())) {
        LOGE("Upload failed!");
        return result;
    }
    if (parts.empty()) {
        LOGE("Upload failed!");
        return result;
    }
    std::string reply;
    for (const std::string& part : parts) {
        reply.clear();
        curl_easy_setopt(curl.get(), CURLOPT_WRITEFUNCTION,
                         &DataUploadHandler::SavePostResultUnzipped);
        curl_easy_setopt(curl.get(), CURLOPT_WRITEDATA, &reply);
        curl_easy_setopt(curl.get(), CURLOPT_POSTFIELDS, part.c_str());
        curl_easy_setopt(curl.get(), CURLOPT_POSTFIELDSIZE, -1L);
        CURLcode rc = curl_easy_perform(curl.get());
        LOGD("postSize[%d], postResult[%d]", static_cast<int>(part.size()), static_cast<int>(rc));
        if (rc != CURLE_OK) {
            LOGE("Failed to perform");
            result.clear();
            LOGE("Upload failed!");
            break;
        }
        long httpCode = 0;
        curl_easy_getinfo(curl.get(), CURLINFO_RESPONSE_CODE, &httpCode);
        LOGD("partialPostCurlResult[%d], httpResponseCode[%d]", static_cast<int>(rc),
             static_cast<int>(httpCode));
        if (reply.empty()) {
            LOGD("size is 0");
            continue;
        }
        std::string text = reply;
        appendPartReply(result, text);
    }
    if (!result.empty()) {
        LOGD("Upload Success!");
    } else {
        LOGE("Upload failed!");
        result.clear();
    }
    LOGD("End of plm syncing request");
    return result;
}

size_t DataUploadHandler::SavePostResultZipped(char* chunk, size_t size, size_t count,
                                               void* reply) {
    LOGD("size[%d], count[%d]", static_cast<int>(size), static_cast<int>(count));
    auto* zippedReply = static_cast<ZippedReply*>(reply);
    if (zippedReply == nullptr) {
        LOGE("item is NULL");
        return 0;
    }
    // Every chunk is kept: a reply may arrive in several pieces. The chunk is copied because the
    // transfer reuses its buffer.
    const size_t bytes = size * count;
    if (zippedReply->item.size() + bytes > kMaxReplyBytes) {
        LOGE("reply larger than [%u] bytes, refused", static_cast<unsigned>(kMaxReplyBytes));
        return 0;  // aborts the transfer
    }
    zippedReply->item.insert(zippedReply->item.end(), reinterpret_cast<unsigned char*>(chunk),
                             reinterpret_cast<unsigned char*>(chunk) + bytes);
    zippedReply->recorded = true;
    return bytes;
}

size_t DataUploadHandler::SavePostResultUnzipped(char* chunk, size_t size, size_t count,
                                                 void* reply) {
    LOGD("size[%d], count[%d]", static_cast<int>(size), static_cast<int>(count));
    size_t bytes = size * count;
    auto* text = static_cast<std::string*>(reply);
    if (text == nullptr) {
        LOGE("item is NULL");
        return 0;
    }
    if (text->size() + bytes > kMaxReplyBytes) {
        LOGE("reply larger than [%u] bytes, refused", static_cast<unsigned>(kMaxReplyBytes));
        return 0;  // aborts the transfer
    }
    // Read as a C string: a zero byte ends the chunk early.
    text->append(chunk, strnlen(chunk, bytes));
    return bytes;
}

// ---------------------------------------------------------------------------------------------
// Server, network and proxy configuration

std::string DataUploadHandler::_getPrefServerIp() {
    std::string serverIp;
    bool existing = false;
    if (platform::preferences().isExisting(plm::PLMConstants::SERVER_IP, existing) ==
            platform::PREFERENCE_ERROR_NONE &&
        existing) {
        serverIp = prefString(plm::PLMConstants::SERVER_IP);
    }
    LOGD("serverIp[%s]", serverIp.c_str());
    return serverIp;
}

int DataUploadHandler::_getPrefPortNum() {
    int retv = 0;
    if (platform::preferences().getInt(plm::PLMConstants::PORT, retv) !=
        platform::PREFERENCE_ERROR_NONE) {
        retv = 0;
    }
    LOGD("retv[%d]", retv);
    return retv;
}

std::string DataUploadHandler::_getPrefCertiPath() {
    std::string certiPath;
    bool existing = false;
    if (platform::preferences().isExisting(plm::PLMConstants::CERT_PATH, existing) ==
            platform::PREFERENCE_ERROR_NONE &&
        existing) {
        certiPath = prefString(plm::PLMConstants::CERT_PATH);
    }
    LOGD("certiPath[%s]", certiPath.c_str());
    return certiPath;
}

bool DataUploadHandler::_getPrefForce() {
    bool retv = true;
    if (platform::preferences().getBoolean(plm::PLMConstants::IS_FORCE, retv) !=
        platform::PREFERENCE_ERROR_NONE) {
        retv = true;
    }
    LOGI("retv[%d]", retv);
    return retv;
}

void DataUploadHandler::_setPrefForce(bool force) {
    if (platform::preferences().setBoolean(plm::PLMConstants::IS_FORCE, force) !=
        platform::PREFERENCE_ERROR_NONE) {
        LOGE("Failed to preference set for isForce");
    }
}

bool DataUploadHandler::_useTls() {
    LOGD("Use Tls[%d]", 1);
    return true;
}

int DataUploadHandler::_getPortNumber() {
    int pref = _getPrefPortNum();
    int retv = pref > 1 ? pref : kDefaultPort;
    LOGD("retv[%d]", retv);
    return retv;
}

std::string DataUploadHandler::_getCertiPath() {
    std::string certiPath = plm::UploadDataConstants::NAME;
    std::string pref = _getPrefCertiPath();
    if (!pref.empty())
        certiPath = pref;
    LOGD("Certification Path[%s]", certiPath.c_str());
    return certiPath;
}

std::string DataUploadHandler::_getProxyAddress() {
    std::string result;
    std::unique_ptr<platform::ConnectionHandle> handle;
    if (platform::connection().create(handle) != platform::CONNECTION_ERROR_NONE || !handle) {
        LOGE("Failed to connection_create");
        return result;
    }
    std::string proxy;
    int rc = handle->getProxy(platform::CONNECTION_ADDRESS_FAMILY_IPV4, proxy);
    handle.reset();
    if (rc != platform::CONNECTION_ERROR_NONE) {
        LOGE("Failed to connection_get_proxy");
        return result;
    }
    if (proxy.empty()) {
        LOGD("Invalid proxy address");
        return result;
    }
    result = proxy;
    LOGD("Proxy Address[%s]", result.c_str());
    return result;
}

void DataUploadHandler::_getProxyAddress(std::string& host, int* port) {
    if (port == nullptr) {
        LOGE("Basket is NULL");
        return;
    }
    std::string fullProxy = _getProxyAddress();
    auto colon = fullProxy.find(':');
    if (colon == std::string::npos)
        return;
    host = fullProxy.substr(0, colon);
    *port = std::stoi(fullProxy.substr(colon + 1));  // throws for a malformed port
    LOGD("fullProxy[%s], ip[%s], port[%d]", fullProxy.c_str(), host.c_str(), *port);
}

bool DataUploadHandler::_getCompanianMode() {
    if (mCompanionMode == 1)
        return true;
    if (mCompanionMode == 2)
        return false;
    LOGD("Not checked before. Checking now");
    std::string proxy = _getProxyAddress();
    const int mode = proxy == plm::COMPANION_PROXY_MARKER ? 1 : 2;
    mCompanionMode.store(mode);
    bool retv = mode == 1;
    LOGD("Paring mode[%d], retv[%d]", mode, retv);
    return retv;
}

std::string DataUploadHandler::_getServerIp() {
    bool companion = _getCompanianMode();
    std::string serverIp = _getPrefServerIp();
    if (serverIp.empty()) {
        std::string locale = getLocalePreference();
        static constexpr const char* kEastAsia[] = {"ja-JP", "ko-KR", "zh-CN",
                                                    "zh-HK", "zh-SG", "zh-TW"};
        bool korea = std::any_of(std::begin(kEastAsia), std::end(kEastAsia),
                                 [&locale](const char* l) { return locale == l; });
        if (korea) {
            serverIp = companion ? plm::HOST_KR_CONTENT : plm::HOST_KR_INTERACTION;
        } else {
            serverIp = companion ? plm::HOST_US_CONTENT : plm::HOST_US_INTERACTION;
        }
    }
    LOGD("serverIp[%s]", serverIp.c_str());
    return serverIp;
}

bool DataUploadHandler::_setCurlEnvironment(CURL* curl, curl_slist* header) {
    if (curl == nullptr) {
        LOGE("There is no initated curl handle");
        return false;
    }
    if (header == nullptr) {
        LOGE("There is no initated header");
        return false;
    }
    std::string proxy = _getProxyAddress();
    std::string url = mDbUrl + "/" + plm::UploadDataConstants::BULK_DOCS;
    curl_easy_setopt(curl, CURLOPT_URL, url.c_str());  // libcurl copies option strings
    curl_easy_setopt(curl, CURLOPT_CUSTOMREQUEST, "POST");
    curl_easy_setopt(curl, CURLOPT_HTTPHEADER, header);
    curl_easy_setopt(curl, CURLOPT_POST, 1L);
    curl_easy_setopt(curl, CURLOPT_NOSIGNAL, 1L);
    curl_easy_setopt(curl, CURLOPT_CONNECTTIMEOUT, gConnectTimeoutSeconds.load());
    curl_easy_setopt(curl, CURLOPT_LOW_SPEED_LIMIT, kStallBytesPerSecond);
    curl_easy_setopt(curl, CURLOPT_LOW_SPEED_TIME, gStallSeconds.load());
    curl_easy_setopt(curl, CURLOPT_NOPROGRESS, 0L);
    curl_easy_setopt(curl, CURLOPT_XFERINFOFUNCTION, &DataUploadHandler::_onProgress);
    curl_easy_setopt(curl, CURLOPT_XFERINFODATA, this);
    if (!proxy.empty()) {
        curl_easy_setopt(curl, CURLOPT_PROXY, proxy.c_str());
        LOGD("Plm Syncing with companian mode");
    } else {
        // The connection service already answered "no proxy" (its own settings override the
        // environment): keep libcurl from picking a proxy from the environment by itself.
        curl_easy_setopt(curl, CURLOPT_PROXY, "");
        LOGD("Plm Syncing with stand alone mode");
    }
    return true;
}

void DataUploadHandler::_setCurlHttpPostingHeader(curl_slist** header, bool zipping) {
    LOGD("zipping[%d]", zipping);
    if (header == nullptr)
        return;
    namespace U = plm::UploadDataConstants;
    auto add = [header](const std::string& name, const std::string& value) {
        curl_slist* next = curl_slist_append(*header, (name + ": " + value).c_str());
        if (next != nullptr)
            *header = next;
    };
    add(U::HEADER_ACCEPT, U::VALUE_JSON);
    add(U::HEADER_CHARSET, U::VALUE_UTF8);
    add(U::HEADER_CONTENT_TYPE, U::VALUE_JSON);
    add(U::COOKIE, mCookie);
    if (zipping) {
        add(U::HEADER_ACCEPT_ENCODING, U::VALUE_GZIP);
        add(U::HEADER_CONTENT_ENCODING, U::VALUE_GZIP);
    }
    LOGD("header[%p]", static_cast<void*>(*header));
}
