// Orvane against a real HTTPS server on loopback (cpp-httplib, throw-away certificate).
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <functional>

#include "orvane/Orvane.h"
#include "support/TempHome.h"
#include "unit/upload/UploadTestSupport.h"

namespace {

using pelio::test::TempHome;
using pelio::test::TestCertificate;
using uploadtest::jsonMembers;
using StringMap = std::map<std::string, std::string>;

class RecordingCallbacks : public OrvaneCallbacks {
  public:
    void onLog(int level, const std::string& message) override { logs.push_back({level, message}); }
    void onSessionEvent(const std::string& op, long status) override {
        events.push_back(op + ":" + std::to_string(status));
    }
    std::vector<std::pair<int, std::string>> logs;
    std::vector<std::string> events;
};

// A loopback port with nothing listening on it (bound, read back, closed again).
int closedPort() {
    int port = 0;
    ::close(uploadtest::loopbackSocket(false, &port));
    return port;
}

using Error = std::pair<OrvaneErrorCode, std::string>;  // code and message of an OrvaneError
Error errorOf(const std::function<void()>& call) {
    try {
        call();
    } catch (const OrvaneError& e) {
        return {e.code(), e.what()};
    }
    return {OrvaneErrorCode{}, "<no error>"};
}

class OrvaneThreadedTest : public ::testing::Test {
  protected:
    std::unique_ptr<Orvane> make(const std::string& caPath, const std::string& proxyHost = "",
                                 int proxyPort = 0) {
        return std::make_unique<Orvane>("127.0.0.1", pds.port(), "device-42", &callbacks, true,
                                        caPath, proxyHost, proxyPort);
    }

    TempHome home;  // the device secret is kept in the service's data directory
    RecordingCallbacks callbacks;
    uploadtest::PdsServer pds;
    const TestCertificate& cert = pds.cert;
};

TEST_F(OrvaneThreadedTest, OpenPostsEveryFieldAndReturnsTheAnswerAsStrings) {
    pds.answer("open", 200,
               R"({"reason":"success","result":"0","cookie":"tok.en","dburl":"http://x/db",)"
               R"("plmid":"p1","policy":{"syncpolicy":{"parameters":{"D":5}}},"n":7})");
    auto orvane = make(cert.certPath());
    StringMap result{{"stale", "entry"}};
    orvane->Orvane_pds_open("de_DE", {{"rampcode", "dash"}, {"serviceinfo", "Model X"}}, true,
                            false, result, true);

    const auto sent = pds.calls();
    ASSERT_EQ(sent.size(), 1u);
    EXPECT_EQ(sent[0].first, "open");
    auto body = jsonMembers(sent[0].second);
    EXPECT_EQ(jsonMembers(body["request"]),
              (StringMap{{"rampcode", "dash"}, {"serviceinfo", "Model X"}}));
    body.erase("request");
    body.erase("device_secret");  // its form: the device secret test
    EXPECT_EQ(body, (StringMap{{"companion", "false"},
                               {"device_id", "device-42"},
                               {"force", "true"},
                               {"locale", "de_DE"},
                               {"standalone", "true"}}));

    // A non-string member reaches the caller as its JSON text.
    EXPECT_EQ(jsonMembers(result["policy"]).count("syncpolicy"), 1u);
    result.erase("policy");
    EXPECT_EQ(result, (StringMap{{"reason", "success"},
                                 {"result", "0"},
                                 {"cookie", "tok.en"},
                                 {"dburl", "http://x/db"},
                                 {"plmid", "p1"},
                                 {"n", "7"}}));
}

TEST_F(OrvaneThreadedTest, RefusalThrowsTheServerMessage) {
    auto orvane = make(cert.certPath());
    StringMap result;
    pds.answer("open", 429, R"({"message":"Force Sync Limit exceeded. Retry after 120"})");
    EXPECT_EQ(errorOf([&] { orvane->Orvane_pds_open("en_US", {}, true, false, result, true); }),
              Error(OrvaneErrorCode::ForceLimited, "Force Sync Limit exceeded. Retry after 120"));
    EXPECT_TRUE(result.empty());
    // Without a message the status names the failure; a 200 that is not an object is refused.
    pds.answer("close", 500, "oops");
    EXPECT_EQ(errorOf([&] { orvane->Orvane_pds_close("en_US", {}, false, result, true); }),
              Error(OrvaneErrorCode::Refused, "close: HTTP 500"));
    pds.answer("wipe", 200, "[1,2]");
    EXPECT_EQ(errorOf([&] { orvane->Orvane_pds_wipe("en_US", {}, result); }),
              Error(OrvaneErrorCode::BadReply, "wipe: malformed answer from server"));
    EXPECT_EQ(callbacks.events, (std::vector<std::string>{"open:429", "close:500", "wipe:200"}));
}

TEST_F(OrvaneThreadedTest, TransportFailureNamesTheOperation) {
    const int port = closedPort();
    RecordingCallbacks cb;
    Orvane orvane("127.0.0.1", port, "device-42", &cb, true, cert.certPath(), "", 0);
    StringMap result;
    const std::vector<std::pair<std::string, std::function<void()>>> calls = {
        {"open: ", [&] { orvane.Orvane_pds_open("en_US", {}, false, false, result, true); }},
        {"close: ", [&] { orvane.Orvane_pds_close("en_US", {}, false, result, true); }},
        {"wipe: ", [&] { orvane.Orvane_pds_wipe("en_US", {}, result); }},
    };
    for (const auto& [prefix, call] : calls) {
        const auto [code, what] = errorOf(call);
        EXPECT_TRUE(code == OrvaneErrorCode::Transport && what.rfind(prefix, 0) == 0) << what;
        EXPECT_GT(what.size(), prefix.size() + 3) << what;
    }
    EXPECT_EQ(cb.events, (std::vector<std::string>{"open:0", "close:0", "wipe:0"}));

    // Without callbacks, logging on, a failure is still just the error.
    Orvane silent("127.0.0.1", port, "d", nullptr, true, "", "", 0);
    silent.Orvane_enable_log(5);
    EXPECT_THROW(silent.Orvane_pds_wipe("en_US", {{"resetplm", "true"}}, result), OrvaneError);
}

TEST_F(OrvaneThreadedTest, MissingCaFileFallsBackToTheSystemStoreAndProxyNeedsAPort) {
    // The test certificate is in no system store, so verification against it must fail ...
    StringMap result;
    auto open = [&](const std::string& ca) {
        make(ca)->Orvane_pds_open("en_US", {}, false, false, result, true);
    };
    EXPECT_EQ(errorOf([&] { open(cert.dir() + "/no-such-bundle.pem"); }).second.find("open:"), 0u);
    EXPECT_TRUE(pds.calls().empty());
    // ... while naming the certificate as the bundle lets the same call through.
    open(cert.certPath());
    EXPECT_EQ(pds.calls().size(), 1u);

    // A proxy host without a port is no proxy: the call goes straight through.
    make(cert.certPath(), "127.0.0.1", 0)->Orvane_pds_close("en_US", {}, true, result, false);
    EXPECT_EQ(pds.calls().size(), 2u);
    // A proxy that is down: the call fails although the server is up.
    auto viaProxy = make(cert.certPath(), "127.0.0.1", closedPort());
    EXPECT_THROW(viaProxy->Orvane_pds_close("en_US", {}, true, result, false), OrvaneError);
    EXPECT_EQ(pds.calls().size(), 2u);
}

TEST_F(OrvaneThreadedTest, LogLevelFiltersLines) {
    auto orvane = make(cert.certPath());
    StringMap result;
    const auto open = [&] { orvane->Orvane_pds_open("en_US", {}, false, false, result, true); };
    open();
    EXPECT_TRUE(callbacks.logs.empty());  // logging is off until enabled
    orvane->Orvane_enable_log(3);
    callbacks.logs.clear();
    open();
    EXPECT_TRUE(callbacks.logs.empty());  // only debug lines on success
    pds.answer("open", 403, R"({"message":"denied"})");
    EXPECT_THROW(open(), OrvaneError);
    ASSERT_FALSE(callbacks.logs.empty());
    for (const auto& [level, line] : callbacks.logs)
        EXPECT_LE(level, 3) << line;
    orvane->Orvane_enable_log(5);
    callbacks.logs.clear();
    pds.answer("open", 200, pds.kSuccess);
    open();
    EXPECT_FALSE(callbacks.logs.empty());  // debug lines too
}

TEST_F(OrvaneThreadedTest, DeviceSecretIsCreatedOnceOwnerOnlyAndSentWithEveryCall) {
    StringMap result;
    make(cert.certPath())->Orvane_pds_open("en_US", {}, false, false, result, true);
    make(cert.certPath())->Orvane_pds_wipe("en_US", {{"resetplm", "true"}}, result);
    const auto sent = pds.calls();
    ASSERT_EQ(sent.size(), 2u);
    const std::string secret = jsonMembers(sent[0].second)["device_secret"];
    EXPECT_EQ(secret.size(), 64u);
    EXPECT_EQ(jsonMembers(sent[1].second)["device_secret"], secret);  // kept across instances

    const std::string path = home.dataHome() + "/com.quorvin.plmsvc/data/.orvane-device-secret";
    struct stat st {};
    ASSERT_EQ(::stat(path.c_str(), &st), 0);
    EXPECT_EQ(st.st_mode & 0777, 0600u);

    // Another home is another device.
    TempHome other;
    make(cert.certPath())->Orvane_pds_close("en_US", {}, false, result, true);
    EXPECT_NE(jsonMembers(pds.calls().back().second)["device_secret"], secret);
}

}  // namespace
