// PDS open / close / wipe through the transport library against a TLS server on 127.0.0.1 that
// speaks the library's wire format (JSON bodies, string maps, {"message"} on errors).
#include <gtest/gtest.h>
#include <json-glib/json-glib.h>

#include <atomic>
#include <map>
#include <mutex>

#include "PLMConstants.h"
#include "doubles/FakePlatformApp.h"
#include "intent/IntentMgr.h"
#include "network/NetworkMgr.h"
#include "support/LogCapture.h"
#include "unit/upload/UploadTestSupport.h"

using pelio::test::LogCapture;

namespace {

struct Answer {
    int status = 200;
    std::string body;
};

// Members of a JSON object request body: strings and booleans as text, "request" as its JSON.
std::map<std::string, std::string> members(const std::string& body) {
    std::map<std::string, std::string> out;
    JsonParser* parser = json_parser_new();
    if (json_parser_load_from_data(parser, body.c_str(), -1, nullptr)) {
        JsonObject* o = json_node_get_object(json_parser_get_root(parser));
        GList* names = json_object_get_members(o);
        for (GList* i = names; i != nullptr; i = i->next) {
            const char* name = static_cast<const char*>(i->data);
            JsonNode* node = json_object_get_member(o, name);
            if (JSON_NODE_HOLDS_VALUE(node) && json_node_get_value_type(node) == G_TYPE_BOOLEAN) {
                out[name] = json_node_get_boolean(node) ? "true" : "false";
            } else if (JSON_NODE_HOLDS_VALUE(node)) {
                out[name] = json_node_get_string(node);
            } else {
                gchar* text = json_to_string(node, FALSE);
                out[name] = text;
                g_free(text);
            }
        }
        g_list_free(names);
    }
    g_object_unref(parser);
    return out;
}

class PdsSessionThreadedTest : public ::testing::Test {
  protected:
    static void SetUpTestSuite() { certificate = new uploadtest::TestCertificate(); }
    static void TearDownTestSuite() {
        delete certificate;
        certificate = nullptr;
    }

    void SetUp() override {
        ASSERT_TRUE(certificate->ok) << "openssl could not make a test certificate";
        server = std::make_unique<uploadtest::RunningServer<httplib::SSLServer>>(
            certificate->cert.c_str(), certificate->key.c_str());
        server->server.Post(
            R"(/pds/(\w+))", [this](const httplib::Request& req, httplib::Response& res) {
                std::string op = req.matches[1];
                Answer answer;
                {
                    std::lock_guard<std::mutex> guard(mutex);
                    bodies.push_back({op, req.body});
                    answer = answers.count(op) ? answers[op] : Answer{200, successBody()};
                }
                res.status = answer.status;
                res.set_content(answer.body, "application/json");
            });
        server->start();
        doubles.prefs->setString(plm::PLMConstants::SERVER_IP, "127.0.0.1");
        doubles.prefs->setInt(plm::PLMConstants::PORT, server->port);
        doubles.prefs->setString(plm::PLMConstants::CERT_PATH, certificate->cert);
        doubles.prefs->setString(plm::PLMConstants::DEVICE_ID, "device-42");
        doubles.prefs->setString(plm::PLMConstants::LOCALE, "ko-KR");
    }

    void TearDown() override { server.reset(); }

    static std::string successBody() { return R"({"reason":"success","result":"0"})"; }
    void answer(const std::string& op, int status, const std::string& body) {
        std::lock_guard<std::mutex> guard(mutex);
        answers[op] = {status, body};
    }
    std::vector<std::pair<std::string, std::string>> calls() {
        std::lock_guard<std::mutex> guard(mutex);
        return bodies;
    }
    std::string pref(const char* key) {
        std::string v;
        doubles.prefs->getString(key, v);
        return v;
    }
    int intPref(const char* key) {
        int v = -100;
        doubles.prefs->getInt(key, v);
        return v;
    }
    bool boolPref(const char* key) {
        bool v = false;
        doubles.prefs->getBoolean(key, v);
        return v;
    }

    static uploadtest::TestCertificate* certificate;
    uploadtest::UploadDoubles doubles;
    std::unique_ptr<uploadtest::RunningServer<httplib::SSLServer>> server;
    std::mutex mutex;
    std::map<std::string, Answer> answers;
    std::vector<std::pair<std::string, std::string>> bodies;
    int queueCleared = 0;
    DataUploadHandler handler{nullptr, nullptr, [this] { ++queueCleared; }};
    DataUploadHandlerPeer peer{handler};
};

uploadtest::TestCertificate* PdsSessionThreadedTest::certificate = nullptr;

TEST_F(PdsSessionThreadedTest, OpenSucceedsAndKeepsTheSession) {
    LogCapture log;
    answer(
        "open", 200,
        R"({"reason":"success","result":"0","cookie":"AuthSession=c1","dburl":"https://127.0.0.1:1/userdb-9","plmid":"PLM-1","policy":"{\"syncpolicy\":{\"parameters\":{\"D\":5}}}"})");
    EXPECT_EQ(handler.openPds(plm::SYNC_ITEM_CONTACTS), 0);
    EXPECT_TRUE(handler.getPdsOpened());
    EXPECT_EQ(peer.cookie(), "AuthSession=c1");
    EXPECT_EQ(peer.dbUrl(), "https://127.0.0.1:1/userdb-9");
    EXPECT_EQ(peer.latestPlmId(), "PLM-1");
    EXPECT_TRUE(log.hasMessage("Open Succedded"));
    EXPECT_TRUE(log.hasMessage("factors d[5], e[0], f[0], g[0], h[0], m[0], r[0], t[0]"));

    auto sent = calls();
    ASSERT_EQ(sent.size(), 1u);
    EXPECT_EQ(sent[0].first, "open");
    auto body = members(sent[0].second);
    EXPECT_EQ(body["device_id"], "device-42");
    EXPECT_EQ(body["locale"], "ko-KR");
    EXPECT_EQ(body["force"], "true");  // absent force flag reads true
    EXPECT_EQ(body["companion"], "false");
    EXPECT_EQ(body["standalone"], "true");
    EXPECT_EQ(members(body["request"]), (std::map<std::string, std::string>{
                                            {"rampcode", "dash"}, {"serviceinfo", "test-model"}}));
}

TEST_F(PdsSessionThreadedTest, OpenResultsAndExceptions) {
    LogCapture log;
    doubles.prefs->setBoolean(plm::PLMConstants::IS_FORCE, false);
    answer("open", 200, R"({"reason":"success","result":"1"})");
    EXPECT_EQ(handler.openPds(1), -1);
    EXPECT_TRUE(log.hasMessage("Open Failed"));
    EXPECT_FALSE(handler.getPdsOpened());

    // 13 and 15: no database on the server: force set, queue dropped, message replaced.
    for (const char* code : {"13", "15"}) {
        doubles.prefs->setBoolean(plm::PLMConstants::IS_FORCE, false);
        answer("open", 200, std::string(R"({"reason":"fail","result":")") + code + "\"}");
        EXPECT_EQ(handler.openPds(1), -1) << code;
        EXPECT_TRUE(boolPref(plm::PLMConstants::IS_FORCE)) << code;
    }
    EXPECT_EQ(queueCleared, 2);
    EXPECT_EQ(log.count("Open Failed - PDSS Error, Server"), 2);
    EXPECT_EQ(log.count("OrvanePDSNoDatabaseException trigger force"), 2);
    EXPECT_TRUE(log.hasMessage("errMsg[13]"));

    answer("open", 200, R"({"reason":"blocked","result":"23"})");
    EXPECT_EQ(handler.openPds(1), -1);
    EXPECT_TRUE(log.hasMessage("Open Failed - Sync Blocked"));
    EXPECT_TRUE(log.hasMessage("errMsg[23]"));
    EXPECT_EQ(queueCleared, 2);

    // Library exceptions carry the server's message.
    answer("open", 503, R"({"message":"open: PDSS DB Network Error"})");
    EXPECT_EQ(handler.openPds(1), 13);
    answer("open", 429, R"({"message":"open: Force Sync Limit exceeded. Retry after 600 s"})");
    EXPECT_EQ(handler.openPds(1), 23);
    answer("open", 500, R"({"message":"open: PDSS DB Network Error "})");
    EXPECT_EQ(handler.openPds(1), -1);
    EXPECT_FALSE(handler.getPdsOpened());
}

TEST_F(PdsSessionThreadedTest, NoNetworkMeansNoRequest) {
    LogCapture log;
    NetworkMgr network;
    DataUploadHandler offline(nullptr, &network, nullptr);
    doubles.connection->setType(pelio::platform::CONNECTION_TYPE_DISCONNECTED);
    EXPECT_EQ(offline.openPds(1), -1);
    EXPECT_TRUE(log.hasMessage("errMsg[client: Network is not connected]"));
    EXPECT_TRUE(calls().empty());
    doubles.connection->setType(pelio::platform::CONNECTION_TYPE_WIFI);
    EXPECT_EQ(offline.openPds(1), 0);
}

TEST_F(PdsSessionThreadedTest, HandleReuseDependsOnTheForceFlag) {
    LogCapture log;
    doubles.prefs->setBoolean(plm::PLMConstants::IS_FORCE, false);
    EXPECT_EQ(handler.openPds(1), 0);
    EXPECT_EQ(handler.openPds(1), 0);
    EXPECT_EQ(log.count("Handle is Null"), 1);
    int readsBefore = doubles.connection->proxyReads;
    doubles.prefs->setBoolean(plm::PLMConstants::IS_FORCE, true);
    EXPECT_EQ(handler.openPds(1), 0);
    EXPECT_EQ(handler.openPds(1), 0);
    EXPECT_EQ(log.count("Handle is Null"), 3);  // a forced open always builds a fresh handle
    EXPECT_EQ(doubles.connection->proxyReads, readsBefore + 2);
    auto sent = calls();
    ASSERT_EQ(sent.size(), 4u);
    EXPECT_EQ(members(sent[1].second)["force"], "false");
    EXPECT_EQ(members(sent[2].second)["force"], "true");
}

TEST_F(PdsSessionThreadedTest, CloseStoresThePlmId) {
    LogCapture log;
    answer("open", 200, R"({"reason":"success","result":"0","plmid":"PLM-7"})");
    ASSERT_EQ(handler.openPds(1), 0);
    EXPECT_TRUE(handler.closePds());
    EXPECT_FALSE(handler.getPdsOpened());
    EXPECT_TRUE(handler.getPdsClosed());
    EXPECT_EQ(handler.getSucceededLatestPLMId(), "PLM-7");
    EXPECT_EQ(intPref(plm::PREF_SYNC_NEED), 0);
    auto sent = calls();
    ASSERT_EQ(sent.size(), 2u);
    auto body = members(sent[1].second);
    EXPECT_EQ(body.count("force"), 0u);
    EXPECT_EQ(members(body["request"]), (std::map<std::string, std::string>{{"rampcode", "dash"}}));

    // A handler without a candidate stores the reason text.
    DataUploadHandler fresh(nullptr, nullptr, nullptr);
    EXPECT_TRUE(fresh.closePds());
    EXPECT_TRUE(log.hasMessage("Create Handle"));
    EXPECT_EQ(pref(plm::PREF_PLM_ID), "success");

    answer("close", 200, R"({"reason":"success","result":"2"})");
    EXPECT_FALSE(handler.closePds());
    EXPECT_TRUE(log.hasMessage("Pds Closed Failed"));
    EXPECT_EQ(intPref(plm::PREF_SYNC_NEED), 1);
    EXPECT_TRUE(handler.getPdsClosed());

    answer("close", 500, R"({"message":"close: boom"})");
    EXPECT_FALSE(handler.closePds());
    EXPECT_TRUE(log.hasMessage("Pds Closed Failed - TryCatch[close: boom]"));
    EXPECT_TRUE(handler.getPdsClosed());
    EXPECT_EQ(pref(plm::PREF_PLM_ID), "success");
}

TEST_F(PdsSessionThreadedTest, Wipe) {
    LogCapture log;
    doubles.prefs->setBoolean(plm::PLMConstants::CLEAR_SERVER, true);
    EXPECT_TRUE(handler.wipePds(false));
    EXPECT_TRUE(handler.wipePds(true));
    EXPECT_EQ(log.count("pds wipe successful"), 2);
    auto sent = calls();
    ASSERT_EQ(sent.size(), 2u);
    auto reset = members(sent[0].second);
    EXPECT_EQ(members(reset["request"]),
              (std::map<std::string, std::string>{{"resetplm", "true"}}));
    EXPECT_EQ(reset.count("companion") + reset.count("force") + reset.count("standalone"), 0u);
    EXPECT_EQ(members(members(sent[1].second)["request"]),
              (std::map<std::string, std::string>{{"deleteall", "true"}}));

    answer("wipe", 200, R"({"reason":"nope","result":"0"})");
    EXPECT_FALSE(handler.wipePds(true));
    EXPECT_TRUE(log.hasMessage("pds wipe Error"));
    EXPECT_EQ(intPref(plm::PREF_SYNC_NEED), 1);
    EXPECT_FALSE(boolPref(plm::PLMConstants::CLEAR_SERVER));

    answer("wipe", 502, R"({"message":"wipe: down"})");
    EXPECT_FALSE(handler.wipePds(false));
    EXPECT_TRUE(log.hasMessage("pds wipe fail exception message [wipe: down]"));
}

TEST_F(PdsSessionThreadedTest, AMalformedProxyPortNeverLeavesTheCalls) {
    LogCapture log;
    doubles.connection->setProxy("localhost:notaport");
    EXPECT_EQ(handler.openPds(1), -1);
    EXPECT_TRUE(log.contains("errMsg[stoi"));
    EXPECT_FALSE(handler.closePds());
    EXPECT_FALSE(handler.wipePds(false));
    EXPECT_TRUE(calls().empty());
}

TEST_F(PdsSessionThreadedTest, PlmIdSettersIgnoreEmptyIds) {
    handler.setLastApplicationPlmId("A1");
    handler.setLastApplicationPlmId("");
    handler.setLastContactPlmId("C1");
    handler.setLastContactPlmId("");
    handler.setLastMediaPlmId("M1");
    handler.setLastMediaPlmId("");
    handler.setSucceededLatestPLMId("P1");
    handler.setSucceededLatestPLMId("");
    EXPECT_EQ(handler.getLastApplicationPlmId(), "A1");
    EXPECT_EQ(handler.getLastContactPlmId(), "C1");
    EXPECT_EQ(handler.getLastMediaPlmId(), "M1");
    EXPECT_EQ(handler.getSucceededLatestPLMId(), "P1");
    handler.setLastContactPlmId("C2");
    EXPECT_EQ(pref(plm::PREF_CONTACT_SYNCED_PLM_ID), "C2");
}

}  // namespace

namespace {

TEST(PlmIdNotificationTest, TheFirstApplicationAndContactIdsTellTheVoiceApp) {
    uploadtest::UploadDoubles doubles;
    auto manager = std::make_unique<pelio::test::FakeAppManager>();
    manager->setApp(plm::VOICE_APP_ID, true, 1);  // running, foreground
    pelio::platform::installAppManager(std::move(manager));
    auto service = std::make_unique<pelio::test::FakeAppControlService>();
    auto* sent = service.get();
    pelio::platform::installAppControlService(std::move(service));

    IntentMgr intents;
    DataUploadHandler handler(&intents, nullptr, nullptr);
    handler.setLastApplicationPlmId("A1");
    handler.setLastApplicationPlmId("A2");  // not the first any more
    handler.setLastContactPlmId("");        // ignored
    handler.setLastContactPlmId("C1");
    handler.setLastMediaPlmId("M1");  // media only stores

    auto launches = sent->sent();
    ASSERT_EQ(launches.size(), 2u);
    std::string type, id;
    launches[0].getExtraData(plm::EXTRA_SYNCED_TYPE, type);
    launches[0].getExtraData(plm::EXTRA_SYNCED_PLM_ID, id);
    EXPECT_EQ(type, "APPLICATION");
    EXPECT_EQ(id, "A1");
    launches[1].getExtraData(plm::EXTRA_SYNCED_TYPE, type);
    launches[1].getExtraData(plm::EXTRA_SYNCED_PLM_ID, id);
    EXPECT_EQ(type, "CONTACT");
    EXPECT_EQ(id, "C1");
    EXPECT_EQ(handler.getLastApplicationPlmId(), "A2");
    EXPECT_EQ(handler.getLastMediaPlmId(), "M1");

    pelio::platform::installAppManager(nullptr);
    pelio::platform::installAppControlService(nullptr);
}

}  // namespace
