// Orvane against a real HTTPS server on loopback (cpp-httplib, throw-away certificate).
#include <gtest/gtest.h>
#include <httplib.h>
#include <json-glib/json-glib.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <functional>
#include <map>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "orvane/Orvane.h"
#include "support/TempHome.h"
#include "support/TestCertificate.h"

namespace {

using pelio::test::TempHome;
using pelio::test::TestCertificate;
using StringMap = std::map<std::string, std::string>;

struct Received {
    std::string path;
    std::string body;
};

// HTTPS server on 127.0.0.1 answering every POST with a configured status and body.
class LoopbackPds {
  public:
    explicit LoopbackPds(const TestCertificate& cert)
        : server_(cert.certPath().c_str(), cert.keyPath().c_str()) {
        server_.Post(".*", [this](const httplib::Request& req, httplib::Response& res) {
            std::lock_guard<std::mutex> lock(mutex_);
            received_.push_back({req.path, req.body});
            res.status = status_;
            res.set_content(body_, "application/json");
        });
        port_ = server_.bind_to_any_port("127.0.0.1");
        thread_ = std::thread([this] { server_.listen_after_bind(); });
        // stop() before the accept loop runs would be lost, and the join would hang.
        while (!server_.is_running()) {
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
        }
    }
    ~LoopbackPds() {
        server_.stop();
        thread_.join();
    }
    void answer(int status, std::string body) {
        std::lock_guard<std::mutex> lock(mutex_);
        status_ = status;
        body_ = std::move(body);
    }
    std::vector<Received> received() {
        std::lock_guard<std::mutex> lock(mutex_);
        return received_;
    }
    int port() const { return port_; }

  private:
    httplib::SSLServer server_;
    std::thread thread_;
    int port_ = 0;
    std::mutex mutex_;
    int status_ = 200;
    std::string body_ = R"({"reason":"success","result":"0"})";
    std::vector<Received> received_;
};

class RecordingCallbacks : public OrvaneCallbacks {
  public:
    void onLog(int level, const std::string& message) override { logs.push_back({level, message}); }
    void onSessionEvent(const std::string& op, long status) override {
        events.push_back(op + ":" + std::to_string(status));
    }
    std::vector<std::pair<int, std::string>> logs;
    std::vector<std::string> events;
};

// A parsed request body, with typed accessors that tell a missing member apart.
class Body {
  public:
    explicit Body(const std::string& text) : parser_(json_parser_new()) {
        EXPECT_TRUE(json_parser_load_from_data(parser_, text.c_str(), -1, nullptr)) << text;
        JsonNode* root = json_parser_get_root(parser_);
        obj_ = (root && JSON_NODE_HOLDS_OBJECT(root)) ? json_node_get_object(root) : nullptr;
    }
    ~Body() { g_object_unref(parser_); }
    bool has(const char* key) const { return obj_ && json_object_has_member(obj_, key); }
    std::string str(const char* key) const { return json_object_get_string_member(obj_, key); }
    bool flag(const char* key) const { return json_object_get_boolean_member(obj_, key); }
    StringMap request() const {
        StringMap out;
        JsonObject* r = json_object_get_object_member(obj_, "request");
        GList* members = json_object_get_members(r);
        for (GList* m = members; m; m = m->next) {
            const char* k = static_cast<const char*>(m->data);
            out[k] = json_object_get_string_member(r, k);
        }
        g_list_free(members);
        return out;
    }
    std::vector<std::string> keys() const {
        std::vector<std::string> out;
        GList* members = json_object_get_members(obj_);
        for (GList* m = members; m; m = m->next) {
            out.emplace_back(static_cast<const char*>(m->data));
        }
        g_list_free(members);
        std::sort(out.begin(), out.end());
        return out;
    }

  private:
    JsonParser* parser_;
    JsonObject* obj_ = nullptr;
};

// A loopback port with nothing listening on it (bound, read back, closed again).
int closedPort() {
    const int fd = ::socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in addr{};
    addr.sin_family = AF_INET;
    addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t len = sizeof addr;
    EXPECT_EQ(::bind(fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr), 0);
    EXPECT_EQ(::getsockname(fd, reinterpret_cast<sockaddr*>(&addr), &len), 0);
    ::close(fd);
    return ntohs(addr.sin_port);
}

class OrvaneThreadedTest : public ::testing::Test {
  protected:
    TempHome home;  // the device secret is kept in the service's data directory
    TestCertificate cert;
    LoopbackPds pds{cert};
    RecordingCallbacks callbacks;

    std::unique_ptr<Orvane> make(const std::string& caPath, const std::string& proxyHost = "",
                                 int proxyPort = 0) {
        return std::make_unique<Orvane>("127.0.0.1", pds.port(), "device-42", &callbacks, true,
                                        caPath, proxyHost, proxyPort);
    }
};

TEST_F(OrvaneThreadedTest, OpenPostsEveryFieldAndReturnsTheAnswerAsStrings) {
    pds.answer(200, R"({"reason":"success","result":"0","cookie":"tok.en","dburl":"http://x/db",)"
                    R"("plmid":"p1","policy":{"syncpolicy":{"parameters":{"D":5}}},"n":7})");
    auto orvane = make(cert.certPath());
    StringMap result{{"stale", "entry"}};
    orvane->Orvane_pds_open("de_DE", {{"rampcode", "dash"}, {"serviceinfo", "Model X"}}, true,
                            false, result, true);

    const auto got = pds.received();
    ASSERT_EQ(got.size(), 1u);
    EXPECT_EQ(got[0].path, "/pds/open");
    Body body(got[0].body);
    EXPECT_EQ(body.keys(), (std::vector<std::string>{"companion", "device_id", "device_secret",
                                                     "force", "locale", "request", "standalone"}));
    EXPECT_EQ(body.str("device_id"), "device-42");
    EXPECT_EQ(body.str("locale"), "de_DE");
    EXPECT_TRUE(body.flag("force"));
    EXPECT_FALSE(body.flag("companion"));
    EXPECT_TRUE(body.flag("standalone"));
    EXPECT_EQ(body.request(), (StringMap{{"rampcode", "dash"}, {"serviceinfo", "Model X"}}));

    EXPECT_EQ(result.count("stale"), 0u);
    EXPECT_EQ(result["reason"], "success");
    EXPECT_EQ(result["result"], "0");
    EXPECT_EQ(result["cookie"], "tok.en");
    EXPECT_EQ(result["dburl"], "http://x/db");
    EXPECT_EQ(result["plmid"], "p1");
    EXPECT_EQ(result["n"], "7");
    // A non-string member reaches the caller as its JSON text.
    Body policy(result["policy"]);
    EXPECT_TRUE(policy.has("syncpolicy"));
}

TEST_F(OrvaneThreadedTest, CloseAndWipeSendOnlyTheirFields) {
    auto orvane = make(cert.certPath());
    StringMap result;
    orvane->Orvane_pds_close("en_US", {{"rampcode", "dash"}}, true, result, false);
    EXPECT_EQ(result, (StringMap{{"reason", "success"}, {"result", "0"}}));
    orvane->Orvane_pds_wipe("en_US", {{"deleteall", "true"}}, result);
    EXPECT_EQ(result, (StringMap{{"reason", "success"}, {"result", "0"}}));

    const auto got = pds.received();
    ASSERT_EQ(got.size(), 2u);
    EXPECT_EQ(got[0].path, "/pds/close");
    Body close(got[0].body);
    EXPECT_EQ(close.keys(), (std::vector<std::string>{"companion", "device_id", "device_secret",
                                                      "locale", "request", "standalone"}));
    EXPECT_TRUE(close.flag("companion"));
    EXPECT_FALSE(close.flag("standalone"));
    EXPECT_EQ(close.request(), (StringMap{{"rampcode", "dash"}}));
    EXPECT_EQ(got[1].path, "/pds/wipe");
    Body wipe(got[1].body);
    EXPECT_EQ(wipe.keys(),
              (std::vector<std::string>{"device_id", "device_secret", "locale", "request"}));
    EXPECT_EQ(wipe.request(), (StringMap{{"deleteall", "true"}}));
    EXPECT_EQ(callbacks.events, (std::vector<std::string>{"close:200", "wipe:200"}));
}

TEST_F(OrvaneThreadedTest, RefusalThrowsTheServerMessage) {
    auto orvane = make(cert.certPath());
    StringMap result;
    pds.answer(429, R"({"message":"Force Sync Limit exceeded. Retry after 120"})");
    try {
        orvane->Orvane_pds_open("en_US", {}, true, false, result, true);
        FAIL() << "no exception";
    } catch (const std::runtime_error& e) {
        EXPECT_STREQ(e.what(), "Force Sync Limit exceeded. Retry after 120");
    }
    EXPECT_TRUE(result.empty());

    pds.answer(503, R"({"message":"open: PDSS DB Network Error"})");
    EXPECT_THROW(
        {
            try {
                orvane->Orvane_pds_open("en_US", {}, false, false, result, true);
            } catch (const OrvaneError& e) {
                EXPECT_STREQ(e.what(), "open: PDSS DB Network Error");
                throw;
            }
        },
        OrvaneError);

    // Without a message the status names the failure; a 200 that is not an object is refused.
    pds.answer(500, "oops");
    try {
        orvane->Orvane_pds_close("en_US", {}, false, result, true);
        FAIL() << "no exception";
    } catch (const OrvaneError& e) {
        EXPECT_STREQ(e.what(), "close: HTTP 500");
    }
    pds.answer(200, "[1,2]");
    try {
        orvane->Orvane_pds_wipe("en_US", {}, result);
        FAIL() << "no exception";
    } catch (const OrvaneError& e) {
        EXPECT_STREQ(e.what(), "wipe: malformed answer from server");
    }
    EXPECT_EQ(callbacks.events,
              (std::vector<std::string>{"open:429", "open:503", "close:500", "wipe:200"}));
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
        try {
            call();
            ADD_FAILURE() << prefix << "did not throw";
        } catch (const OrvaneError& e) {
            const std::string what = e.what();
            EXPECT_EQ(what.rfind(prefix, 0), 0u) << what;
            EXPECT_GT(what.size(), prefix.size() + 3) << what;
        }
    }
    EXPECT_EQ(cb.events, (std::vector<std::string>{"open:0", "close:0", "wipe:0"}));
}

TEST_F(OrvaneThreadedTest, MissingCaFileFallsBackToTheSystemStore) {
    // The test certificate is in no system store, so verification against it must fail ...
    auto orvane = make(cert.dir() + "/no-such-bundle.pem");
    StringMap result;
    try {
        orvane->Orvane_pds_open("en_US", {}, false, false, result, true);
        FAIL() << "a self-signed server passed the system store";
    } catch (const OrvaneError& e) {
        EXPECT_EQ(std::string(e.what()).rfind("open: ", 0), 0u) << e.what();
    }
    EXPECT_TRUE(pds.received().empty());
    // ... while naming the certificate as the bundle lets the same call through.
    make(cert.certPath())->Orvane_pds_open("en_US", {}, false, false, result, true);
    EXPECT_EQ(pds.received().size(), 1u);
}

TEST_F(OrvaneThreadedTest, ProxyIsUsedOnlyWithHostAndPort) {
    StringMap result;
    // Host without a port: no proxy, the call goes straight through.
    make(cert.certPath(), "127.0.0.1", 0)->Orvane_pds_close("en_US", {}, true, result, false);
    EXPECT_EQ(pds.received().size(), 1u);
    // A proxy that is down: the call fails although the server is up.
    auto viaProxy = make(cert.certPath(), "127.0.0.1", closedPort());
    EXPECT_THROW(viaProxy->Orvane_pds_close("en_US", {}, true, result, false), OrvaneError);
    EXPECT_EQ(pds.received().size(), 1u);
}

TEST_F(OrvaneThreadedTest, LogLevelFiltersLines) {
    auto orvane = make(cert.certPath());
    StringMap result;
    orvane->Orvane_pds_open("en_US", {}, false, false, result, true);
    EXPECT_TRUE(callbacks.logs.empty());  // logging is off until enabled

    orvane->Orvane_enable_log(3);
    callbacks.logs.clear();
    orvane->Orvane_pds_open("en_US", {}, false, false, result, true);
    EXPECT_TRUE(callbacks.logs.empty());  // only debug lines on success
    pds.answer(403, R"({"message":"denied"})");
    EXPECT_THROW(orvane->Orvane_pds_open("en_US", {}, false, false, result, true), OrvaneError);
    ASSERT_FALSE(callbacks.logs.empty());
    for (const auto& [level, line] : callbacks.logs) {
        EXPECT_LE(level, 3) << line;
    }

    orvane->Orvane_enable_log(5);
    callbacks.logs.clear();
    pds.answer(200, R"({"reason":"success","result":"0"})");
    orvane->Orvane_pds_open("en_US", {}, false, false, result, true);
    bool sawPost = false;
    for (const auto& [level, line] : callbacks.logs) {
        sawPost = sawPost || line.find("/pds/open") != std::string::npos;
    }
    EXPECT_TRUE(sawPost);
}

TEST_F(OrvaneThreadedTest, DeviceSecretIsCreatedOnceOwnerOnlyAndSentWithEveryCall) {
    StringMap result;
    make(cert.certPath())->Orvane_pds_open("en_US", {}, false, false, result, true);
    make(cert.certPath())->Orvane_pds_wipe("en_US", {{"resetplm", "true"}}, result);
    const auto got = pds.received();
    ASSERT_EQ(got.size(), 2u);
    const std::string secret = Body(got[0].body).str("device_secret");
    EXPECT_EQ(secret.size(), 64u);
    EXPECT_EQ(Body(got[1].body).str("device_secret"), secret);  // kept across instances

    const std::string path = home.dataHome() + "/com.quorvin.plmsvc/data/.orvane-device-secret";
    struct stat st {};
    ASSERT_EQ(::stat(path.c_str(), &st), 0);
    EXPECT_EQ(st.st_mode & 0777, 0600u);

    // Another home is another device.
    TempHome other;
    make(cert.certPath())->Orvane_pds_close("en_US", {}, false, result, true);
    EXPECT_NE(Body(pds.received().back().body).str("device_secret"), secret);
}

TEST(OrvaneTest, NoCallbacksIsAllowed) {
    TempHome home;
    Orvane orvane("127.0.0.1", closedPort(), "d", nullptr, true, "", "", 0);
    orvane.Orvane_enable_log(5);
    StringMap result;
    EXPECT_THROW(orvane.Orvane_pds_wipe("en_US", {{"resetplm", "true"}}, result), OrvaneError);
}

}  // namespace
