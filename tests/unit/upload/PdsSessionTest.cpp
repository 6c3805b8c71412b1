// PDS open / close / wipe through the transport library against a TLS server on 127.0.0.1 that
// speaks the library's wire format (JSON bodies, string maps, {"message"} on errors).
#include <gtest/gtest.h>

#include <map>

#include "PLMConstants.h"
#include "doubles/FakePlatformApp.h"
#include "intent/IntentMgr.h"
#include "network/NetworkMgr.h"
#include "support/Installed.h"
#include "support/LogCapture.h"
#include "unit/upload/UploadTestSupport.h"

using pelio::test::LogCapture;

namespace {

using uploadtest::jsonMembers;
using StringMap = std::map<std::string, std::string>;

// A handler whose preferences point at the loopback PDS server.
class PdsSessionThreadedTest : public ::testing::Test {
  protected:
    void SetUp() override {
        doubles.prefs->setString(plm::PLMConstants::SERVER_IP, "127.0.0.1");
        doubles.prefs->setInt(plm::PLMConstants::PORT, pds.port());
        doubles.prefs->setString(plm::PLMConstants::CERT_PATH, pds.cert.certPath());
        doubles.prefs->setString(plm::PLMConstants::DEVICE_ID, "device-42");
        doubles.prefs->setString(plm::PLMConstants::LOCALE, "ko-KR");
    }
    void answer(const std::string& op, int status, const std::string& body) {
        pds.answer(op, status, body);
    }
    std::vector<std::pair<std::string, std::string>> calls() { return pds.calls(); }
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

    uploadtest::UploadDoubles doubles;
    uploadtest::PdsServer pds;
    int queueCleared = 0;
    DataUploadHandler handler{nullptr, nullptr, [this] { ++queueCleared; }};
    DataUploadHandlerPeer peer{handler};
};

TEST_F(PdsSessionThreadedTest, OpenSucceedsAndKeepsTheSession) {
    answer(
        "open", 200,
        R"({"reason":"success","result":"0","cookie":"AuthSession=c1","dburl":"https://127.0.0.1:1/userdb-9","plmid":"PLM-1","policy":"{\"syncpolicy\":{\"parameters\":{\"D\":5}}}"})");
    EXPECT_EQ(handler.openPds(plm::SYNC_ITEM_CONTACTS), 0);
    EXPECT_TRUE(handler.getPdsOpened());
    EXPECT_EQ(peer.cookie(), "AuthSession=c1");
    EXPECT_EQ(peer.dbUrl(), "https://127.0.0.1:1/userdb-9");
    EXPECT_EQ(peer.latestPlmId(), "PLM-1");

    auto sent = calls();
    ASSERT_EQ(sent.size(), 1u);
    EXPECT_EQ(sent[0].first, "open");
    // What the handler chooses; the library's own members are checked with the library.
    auto body = jsonMembers(sent[0].second);
    EXPECT_EQ(jsonMembers(body["request"]),
              (StringMap{{"rampcode", "dash"}, {"serviceinfo", "test-model"}}));
    EXPECT_EQ(
        body["device_id"] + "|" + body["locale"] + "|" + body["force"] + "|" + body["companion"],
        "device-42|ko-KR|true|false");  // an absent force flag reads true
}

TEST_F(PdsSessionThreadedTest, OpenResultsAndExceptions) {
    LogCapture log;
    doubles.prefs->setBoolean(plm::PLMConstants::IS_FORCE, false);
    answer("open", 200, R"({"reason":"success","result":"1"})");
    EXPECT_EQ(handler.openPds(1), -1);
    EXPECT_FALSE(handler.getPdsOpened());

    // 13 and 15: no database on the server: force set, queue dropped, message replaced.
    for (const char* code : {"13", "15"}) {
        doubles.prefs->setBoolean(plm::PLMConstants::IS_FORCE, false);
        answer("open", 200, std::string(R"({"reason":"fail","result":")") + code + "\"}");
        EXPECT_EQ(handler.openPds(1), -1) << code;
        EXPECT_TRUE(boolPref(plm::PLMConstants::IS_FORCE)) << code;
    }
    EXPECT_EQ(queueCleared, 2);
    EXPECT_EQ(log.count("OrvanePDSNoDatabaseException trigger force"), 2);

    answer("open", 200, R"({"reason":"blocked","result":"23"})");
    EXPECT_EQ(handler.openPds(1), -1);
    EXPECT_TRUE(log.hasMessage("Open Failed - Sync Blocked"));
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

TEST_F(PdsSessionThreadedTest, NoNetworkOrAMalformedProxyMeansNoRequest) {
    LogCapture log;
    NetworkMgr network;
    DataUploadHandler offline(nullptr, &network, nullptr);
    doubles.connection->setType(pelio::platform::CONNECTION_TYPE_DISCONNECTED);
    EXPECT_EQ(offline.openPds(1), -1);
    EXPECT_TRUE(log.hasMessage("errMsg[client: Network is not connected]"));
    EXPECT_TRUE(calls().empty());
    doubles.connection->setType(pelio::platform::CONNECTION_TYPE_CELLULAR);
    EXPECT_EQ(offline.openPds(1), 0);
    doubles.connection->failCreate = true;  // no connection service: not connected
    EXPECT_FALSE(network.getConnected());

    // A malformed proxy port: no call leaves.
    doubles.connection->failCreate = false;
    doubles.connection->setProxy("localhost:notaport");
    EXPECT_EQ(handler.openPds(1), -1);
    EXPECT_TRUE(log.contains("errMsg[stoi"));
    EXPECT_FALSE(handler.closePds());
    EXPECT_FALSE(handler.wipePds(false));
    EXPECT_EQ(calls().size(), 1u);
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
    EXPECT_EQ(jsonMembers(sent[1].second)["force"], "false");
    EXPECT_EQ(jsonMembers(sent[2].second)["force"], "true");
}

TEST_F(PdsSessionThreadedTest, CloseStoresThePlmId) {
    LogCapture log;
    answer("open", 200, R"({"reason":"success","result":"0","plmid":"PLM-7"})");
    ASSERT_EQ(handler.openPds(1), 0);
    EXPECT_TRUE(handler.closePds());
    EXPECT_FALSE(handler.getPdsOpened());
    EXPECT_TRUE(handler.getPdsClosed());
    EXPECT_EQ(handler.getSucceededLatestPLMId(), "PLM-7");
    auto sent = calls();
    ASSERT_EQ(sent.size(), 2u);
    auto body = jsonMembers(sent[1].second);
    EXPECT_EQ(body.count("force"), 0u);
    EXPECT_EQ(jsonMembers(body["request"]), (StringMap{{"rampcode", "dash"}}));

    // A handler without a candidate stores the reason text.
    DataUploadHandler fresh(nullptr, nullptr, nullptr);
    EXPECT_TRUE(fresh.closePds());
    EXPECT_EQ(pref(plm::PREF_PLM_ID), "success");

    answer("close", 200, R"({"reason":"success","result":"2"})");
    EXPECT_FALSE(handler.closePds());
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
    auto sent = calls();
    ASSERT_EQ(sent.size(), 2u);
    auto reset = jsonMembers(sent[0].second);
    EXPECT_EQ(jsonMembers(reset["request"]), (StringMap{{"resetplm", "true"}}));
    EXPECT_EQ(reset.count("companion") + reset.count("force") + reset.count("standalone"), 0u);
    EXPECT_EQ(jsonMembers(jsonMembers(sent[1].second)["request"]),
              (StringMap{{"deleteall", "true"}}));

    answer("wipe", 200, R"({"reason":"nope","result":"0"})");
    EXPECT_FALSE(handler.wipePds(true));
    EXPECT_EQ(intPref(plm::PREF_SYNC_NEED), 1);
    EXPECT_FALSE(boolPref(plm::PLMConstants::CLEAR_SERVER));

    answer("wipe", 502, R"({"message":"wipe: down"})");
    EXPECT_FALSE(handler.wipePds(false));
    EXPECT_TRUE(log.hasMessage("pds wipe fail exception message [wipe: down]"));
}

// The last ids are kept (empty ids ignored); the first application and contact ids tell the
// voice application.
TEST(PlmIdNotificationTest, TheFirstApplicationAndContactIdsTellTheVoiceApp) {
    uploadtest::UploadDoubles doubles;
    pelio::test::Installed<pelio::test::FakeAppManager, &pelio::platform::installAppManager> apps;
    apps->setApp(plm::VOICE_APP_ID, true, 1);  // running, foreground
    pelio::test::Installed<pelio::test::FakeAppControlService,
                           &pelio::platform::installAppControlService>
        control;
    IntentMgr intents;
    DataUploadHandler handler(&intents, nullptr, nullptr);
    handler.setLastApplicationPlmId("A1");
    handler.setLastApplicationPlmId("A2");  // not the first any more
    handler.setLastContactPlmId("");        // ignored
    handler.setLastContactPlmId("C1");
    handler.setLastMediaPlmId("M1");  // media only stores
    handler.setLastMediaPlmId("");
    handler.setSucceededLatestPLMId("P1");
    handler.setSucceededLatestPLMId("");

    std::vector<std::string> notified;
    for (const auto& launch : control->sent()) {
        std::string id;
        launch.getExtraData(plm::EXTRA_SYNCED_PLM_ID, id);
        notified.push_back(id);
    }
    EXPECT_EQ(notified, (std::vector<std::string>{"A1", "C1"}));
    EXPECT_EQ(handler.getLastApplicationPlmId(), "A2");
    EXPECT_EQ(handler.getLastMediaPlmId(), "M1");
    EXPECT_EQ(handler.getLastContactPlmId(), "C1");
    EXPECT_EQ(handler.getSucceededLatestPLMId(), "P1");
    std::string stored;
    doubles.prefs->getString(plm::PREF_CONTACT_SYNCED_PLM_ID, stored);
    EXPECT_EQ(stored, "C1");
}

}  // namespace
