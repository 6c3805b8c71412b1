// The uploader against the real server stack on loopback (pds-server with a throw-away
// certificate in front of PouchDB Server): a session is opened, 250 documents are posted and land
// in the device's database, a stale revision comes back as a conflict carrying the revision the
// database holds, and the close stores the PLM id of the open.
//
// Needs the stack of tests/support/stack.sh (tests/e2e/upload_handler.sh starts it); skipped when
// STACK_PDS_PORT, STACK_CERT or STACK_COUCH_URL is missing.
#include <gtest/gtest.h>

#include <curl/curl.h>
#include <glib-object.h>
#include <json-glib/json-glib.h>

#include <pelio/platform/Preferences.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "support/TempHome.h"
#include "upload/DataUploadHandler.h"
#include "upload/SyncData.h"
#include "upload/SyncResult.h"

namespace pp = pelio::platform;

// Friend of DataUploadHandler: the PLM id the open received.
struct DataUploadHandlerPeer {
    static std::string latestPlmId(const DataUploadHandler& h) { return h.mLatestPlmId; }
};

namespace {

struct GObjectUnref {
    void operator()(gpointer p) const { g_object_unref(p); }
};
using ParserPtr = std::unique_ptr<JsonParser, GObjectUnref>;

struct CurlCleanup {
    void operator()(CURL* c) const { curl_easy_cleanup(c); }
};

// Unsets the proxy variables for the life of the object, restoring them afterwards.
class NoProxyEnvironment {
  public:
    NoProxyEnvironment() {
        for (const char* name :
             {"http_proxy", "HTTP_PROXY", "https_proxy", "HTTPS_PROXY", "all_proxy", "ALL_PROXY"}) {
            const char* old = std::getenv(name);
            saved_[name] = old ? std::optional<std::string>(old) : std::nullopt;
            unsetenv(name);
        }
    }
    ~NoProxyEnvironment() {
        for (const auto& [name, value] : saved_) {
            if (value)
                setenv(name.c_str(), value->c_str(), 1);
        }
    }
    NoProxyEnvironment(const NoProxyEnvironment&) = delete;
    NoProxyEnvironment& operator=(const NoProxyEnvironment&) = delete;

  private:
    std::map<std::string, std::optional<std::string>> saved_;
};

// Installs a preference store for the life of the object (then back to the default store).
class PreferencesScope {
  public:
    explicit PreferencesScope(std::unique_ptr<pp::Preferences> store) {
        pp::installPreferences(std::move(store));
    }
    ~PreferencesScope() { pp::installPreferences(nullptr); }
    PreferencesScope(const PreferencesScope&) = delete;
    PreferencesScope& operator=(const PreferencesScope&) = delete;
};

size_t collect(char* data, size_t size, size_t count, void* out) {
    static_cast<std::string*>(out)->append(data, size * count);
    return size * count;
}

// GET of a loopback URL; the body, or nullopt when the transfer fails or the status is not 200.
std::optional<std::string> httpGet(const std::string& url) {
    std::unique_ptr<CURL, CurlCleanup> curl(curl_easy_init());
    if (!curl)
        return std::nullopt;
    std::string body;
    curl_easy_setopt(curl.get(), CURLOPT_URL, url.c_str());
    curl_easy_setopt(curl.get(), CURLOPT_PROXY, "");
    curl_easy_setopt(curl.get(), CURLOPT_TIMEOUT, 30L);
    curl_easy_setopt(curl.get(), CURLOPT_WRITEFUNCTION, collect);
    curl_easy_setopt(curl.get(), CURLOPT_WRITEDATA, &body);
    if (curl_easy_perform(curl.get()) != CURLE_OK)
        return std::nullopt;
    long status = 0;
    curl_easy_getinfo(curl.get(), CURLINFO_RESPONSE_CODE, &status);
    if (status != 200)
        return std::nullopt;
    return body;
}

// Parses text; the parser (owner of the nodes) or null when the text is not JSON.
ParserPtr parse(const std::string& text) {
    ParserPtr parser(json_parser_new());
    if (!json_parser_load_from_data(parser.get(), text.c_str(), static_cast<gssize>(text.size()),
                                    nullptr))
        return nullptr;
    return parser;
}

std::string member(JsonObject* o, const char* name) {
    if (o == nullptr || !json_object_has_member(o, name))
        return {};
    JsonNode* n = json_object_get_member(o, name);
    if (JSON_NODE_HOLDS_VALUE(n) && json_node_get_value_type(n) == G_TYPE_STRING)
        return json_node_get_string(n);
    return {};
}

std::string docId(int i) {
    char id[32];
    std::snprintf(id, sizeof id, "stack-doc-%03d", i);
    return id;
}

const char* env(const char* name) {
    const char* v = std::getenv(name);
    return v != nullptr && *v != '\0' ? v : nullptr;
}

}  // namespace

TEST(UploadHandlerOnStackTest, PostsDocumentsIntoTheDatabaseAndReportsStaleRevisions) {
    const char* pdsPort = env("STACK_PDS_PORT");
    const char* cert = env("STACK_CERT");
    const char* couch = env("STACK_COUCH_URL");
    if (pdsPort == nullptr || cert == nullptr || couch == nullptr)
        GTEST_SKIP() << "no server stack (run tests/e2e/upload_handler.sh)";
    const std::string couchUrl = couch;

    pelio::test::TempHome home;
    NoProxyEnvironment noProxy;
    // The connection is up (Ethernet) with no proxy.
    std::filesystem::create_directories(home.configHome() + "/pelio-platform");
    {
        std::ofstream ini(home.configHome() + "/pelio-platform/settings.ini");
        ini << "[settings]\nmemory/dnet/status=3\nmemory/dnet/proxy=\n";
        ASSERT_TRUE(ini.good());
    }
    PreferencesScope store(pp::openPreferencesFile(home.path() + "/preferences.ini", false));
    pp::Preferences& prefs = pp::preferences();
    ASSERT_EQ(prefs.setString("server_ip", "127.0.0.1"), pp::PREFERENCE_ERROR_NONE);
    ASSERT_EQ(prefs.setInt("port", std::stoi(pdsPort)), pp::PREFERENCE_ERROR_NONE);
    ASSERT_EQ(prefs.setString("cert_path", cert), pp::PREFERENCE_ERROR_NONE);
    ASSERT_EQ(prefs.setString("locale", "en-US"), pp::PREFERENCE_ERROR_NONE);

    DataUploadHandler handler(nullptr, nullptr, []() {});
    ASSERT_EQ(handler.openPds(3), 0);
    EXPECT_TRUE(handler.getPdsOpened());
    const std::string plmId = DataUploadHandlerPeer::latestPlmId(handler);
    EXPECT_FALSE(plmId.empty());

    // 250 documents in one message: posted in parts, answered as one joined array.
    constexpr int kCount = 250;
    std::string message = "{\"docs\":[";
    for (int i = 0; i < kCount; ++i) {
        if (i > 0)
            message += ",";
        message += "{\"_id\":\"" + docId(i) + "\",\"n\":" + std::to_string(i) +
                   ",\"name\":\"Document " + std::to_string(i) + "\"}";
    }
    message += "]}";
    SyncData data;
    data.message = message;
    data.itemType = 3;
    SyncResult result;
    handler.performSync(&data, &result);
    ASSERT_EQ(result.status, SyncResult::STATUS_SUCCESS);
    EXPECT_EQ(result.itemType, 3);
    ParserPtr reply = parse(result.jsonResponse);
    ASSERT_TRUE(reply) << result.jsonResponse.substr(0, 300);
    JsonNode* root = json_parser_get_root(reply.get());
    ASSERT_TRUE(JSON_NODE_HOLDS_ARRAY(root)) << result.jsonResponse.substr(0, 300);
    JsonArray* answers = json_node_get_array(root);
    ASSERT_EQ(json_array_get_length(answers), static_cast<guint>(kCount));
    std::map<std::string, std::string> revs;  // id -> revision the post answered
    for (guint i = 0; i < json_array_get_length(answers); ++i) {
        JsonObject* a = json_array_get_object_element(answers, i);
        ASSERT_NE(a, nullptr) << "element " << i;
        EXPECT_EQ(member(a, "id"), docId(static_cast<int>(i))) << "element " << i;
        EXPECT_FALSE(member(a, "rev").empty()) << "element " << i;
        EXPECT_FALSE(json_object_has_member(a, "error")) << "element " << i;
        revs[member(a, "id")] = member(a, "rev");
    }

    // The device's database holds exactly those documents.
    std::optional<std::string> dbs = httpGet(couchUrl + "/_all_dbs");
    ASSERT_TRUE(dbs);
    ParserPtr dbList = parse(*dbs);
    ASSERT_TRUE(dbList && JSON_NODE_HOLDS_ARRAY(json_parser_get_root(dbList.get()))) << *dbs;
    std::vector<std::string> deviceDbs;
    JsonArray* names = json_node_get_array(json_parser_get_root(dbList.get()));
    for (guint i = 0; i < json_array_get_length(names); ++i) {
        std::string name = json_array_get_string_element(names, i);
        if (name.rfind("plm_", 0) == 0)
            deviceDbs.push_back(name);
    }
    ASSERT_EQ(deviceDbs.size(), 1u) << *dbs;
    const std::string dbUrl = couchUrl + "/" + deviceDbs[0];
    std::optional<std::string> all = httpGet(dbUrl + "/_all_docs");
    ASSERT_TRUE(all);
    ParserPtr allDocs = parse(*all);
    ASSERT_TRUE(allDocs && JSON_NODE_HOLDS_OBJECT(json_parser_get_root(allDocs.get())));
    JsonObject* allRoot = json_node_get_object(json_parser_get_root(allDocs.get()));
    ASSERT_TRUE(json_object_has_member(allRoot, "rows")) << all->substr(0, 300);
    JsonArray* rows = json_object_get_array_member(allRoot, "rows");
    std::map<std::string, std::string> stored;  // id -> revision in the database
    for (guint i = 0; i < json_array_get_length(rows); ++i) {
        JsonObject* row = json_array_get_object_element(rows, i);
        std::string id = member(row, "id");
        if (id.rfind("_design/", 0) == 0)
            continue;
        JsonObject* value = row != nullptr && json_object_has_member(row, "value")
                                ? json_object_get_object_member(row, "value")
                                : nullptr;
        stored[id] = member(value, "rev");
    }
    EXPECT_EQ(stored, revs);

    // A stale revision: a conflict element with the revision the database holds now.
    const std::string target = docId(7);
    SyncData stale;
    stale.message = "{\"docs\":[{\"_id\":\"" + target +
                    "\",\"_rev\":\"1-00000000000000000000000000000000\",\"n\":-7}]}";
    SyncResult staleResult;
    handler.performSync(&stale, &staleResult);
    ASSERT_EQ(staleResult.status, SyncResult::STATUS_SUCCESS);
    ParserPtr staleReply = parse(staleResult.jsonResponse);
    ASSERT_TRUE(staleReply) << staleResult.jsonResponse;
    ASSERT_TRUE(JSON_NODE_HOLDS_ARRAY(json_parser_get_root(staleReply.get())));
    JsonArray* staleAnswers = json_node_get_array(json_parser_get_root(staleReply.get()));
    ASSERT_EQ(json_array_get_length(staleAnswers), 1u) << staleResult.jsonResponse;
    JsonObject* conflict = json_array_get_object_element(staleAnswers, 0);
    std::optional<std::string> current = httpGet(dbUrl + "/" + target);
    ASSERT_TRUE(current);
    ParserPtr currentDoc = parse(*current);
    ASSERT_TRUE(currentDoc && JSON_NODE_HOLDS_OBJECT(json_parser_get_root(currentDoc.get())));
    JsonObject* doc = json_node_get_object(json_parser_get_root(currentDoc.get()));
    EXPECT_EQ(json_object_get_int_member_with_default(doc, "n", -1), 7);  // not overwritten
    const std::string currentRev = member(doc, "_rev");
    EXPECT_EQ(currentRev, revs[target]);
    EXPECT_EQ(member(conflict, "id"), target);
    EXPECT_EQ(member(conflict, "error"), "conflict");
    EXPECT_EQ(member(conflict, "reason"), "Document update conflict.");
    EXPECT_EQ(member(conflict, "rev"), currentRev);
    EXPECT_EQ(json_object_get_size(conflict), 4u) << staleResult.jsonResponse;

    EXPECT_TRUE(handler.closePds());
    EXPECT_FALSE(handler.getPdsOpened());
    EXPECT_EQ(handler.getSucceededLatestPLMId(), plmId);
}
