// Shared pieces of the uploader's tests: access to the handler's helpers, an in-process HTTP(S)
// server on 127.0.0.1 with a random port, gzip helpers and the platform doubles.
#pragma once

#include <gtest/gtest.h>
#include <httplib.h>
#include <json-glib/json-glib.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include <chrono>
#include <cstdlib>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "doubles/FakeConnection.h"
#include "doubles/FakePreferences.h"
#include "doubles/FakeSystemInfo.h"
#include "support/Gzip.h"
#include "support/Installed.h"
#include "support/TestCertificate.h"
#include "upload/DataUploadHandler.h"

// Friend of DataUploadHandler: forwards to its private helpers.
struct DataUploadHandlerPeer {
    explicit DataUploadHandlerPeer(DataUploadHandler& h) : h(h) {}
    DataUploadHandler& h;

    std::vector<std::string> parts(const std::string& m, int unit) {
        return h._getPartedSyncDataList(m, unit);
    }
    std::string postUnzipped(const std::vector<std::string>& parts) {
        return h._curlPostingUnzipped(parts);
    }
    void setSession(const std::string& dbUrl, const std::string& cookie) {
        h.mDbUrl = dbUrl;
        h.mCookie = cookie;
        h.mPdsOpened = true;
    }
    std::string cookie() { return h.mCookie; }
    std::string dbUrl() { return h.mDbUrl; }
    std::string latestPlmId() { return h.mLatestPlmId; }
    bool companion() { return h._getCompanianMode(); }
    std::string serverIp() { return h._getServerIp(); }
    int port() { return h._getPortNumber(); }
    std::string certiPath() { return h._getCertiPath(); }
    bool useTls() { return h._useTls(); }
    void splitProxy(std::string& host, int* port) { h._getProxyAddress(host, port); }
    std::string proxy() { return h._getProxyAddress(); }
    void handlePolicy(const std::string& policy) { h._handleSyncPolicy(policy); }
    bool setCurlEnvironment(CURL* c, curl_slist* l) { return h._setCurlEnvironment(c, l); }
};

namespace uploadtest {

using pelio::test::gunzip;
using pelio::test::gzip;

// Members of a JSON object text: strings and booleans as text, anything else as its JSON text;
// empty when the text is not an object.
inline std::map<std::string, std::string> jsonMembers(const std::string& text) {
    std::map<std::string, std::string> out;
    JsonParser* parser = json_parser_new();
    JsonNode* root = json_parser_load_from_data(parser, text.c_str(), -1, nullptr)
                         ? json_parser_get_root(parser)
                         : nullptr;
    JsonObject* o = root && JSON_NODE_HOLDS_OBJECT(root) ? json_node_get_object(root) : nullptr;
    GList* names = o ? json_object_get_members(o) : nullptr;
    for (GList* i = names; i != nullptr; i = i->next) {
        const char* name = static_cast<const char*>(i->data);
        JsonNode* node = json_object_get_member(o, name);
        if (JSON_NODE_HOLDS_VALUE(node) && json_node_get_value_type(node) == G_TYPE_BOOLEAN) {
            out[name] = json_node_get_boolean(node) ? "true" : "false";
        } else if (JSON_NODE_HOLDS_VALUE(node) && json_node_get_value_type(node) == G_TYPE_STRING) {
            out[name] = json_node_get_string(node);
        } else {
            gchar* json = json_to_string(node, FALSE);
            out[name] = json;
            g_free(json);
        }
    }
    g_list_free(names);
    g_object_unref(parser);
    return out;
}

// A {"docs": [...]} message of n small documents {"_id": "d<i>"}, plus an extra root member.
inline std::string docsMessage(int n) {
    std::string m = "{\"version\":\"0.82\",\"docs\":[";
    for (int i = 0; i < n; ++i) {
        if (i > 0)
            m += ",";
        m += "{\"_id\":\"d" + std::to_string(i) + "\"}";
    }
    return m + "]}";
}

// A TCP socket bound to a free loopback port (*port), listening if asked; the caller closes it.
inline int loopbackSocket(bool listening, int* port) {
    const int fd = ::socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in addr{};
    addr.sin_family = AF_INET;
    addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t len = sizeof addr;
    EXPECT_EQ(::bind(fd, reinterpret_cast<sockaddr*>(&addr), len), 0);
    EXPECT_TRUE(!listening || ::listen(fd, 4) == 0);
    EXPECT_EQ(::getsockname(fd, reinterpret_cast<sockaddr*>(&addr), &len), 0);
    *port = ntohs(addr.sin_port);
    return fd;
}

// Runs a server on 127.0.0.1 with a random port on its own thread; stops it when destroyed.
template <class Server>
class RunningServer {
  public:
    template <class... Args>
    explicit RunningServer(Args&&... args) : server(std::forward<Args>(args)...) {}
    ~RunningServer() { stop(); }

    void start() {
        // One request per connection: stopping never waits for an idle keep-alive client.
        server.set_keep_alive_max_count(1);
        port = server.bind_to_any_port("127.0.0.1");
        ASSERT_GT(port, 0);
        thread = std::thread([this] { server.listen_after_bind(); });
        while (!server.is_running())
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    void stop() {
        server.stop();
        if (thread.joinable())
            thread.join();
    }
    std::string url() const { return "http://127.0.0.1:" + std::to_string(port); }

    Server server;
    int port = 0;
    std::thread thread;
};

// A TLS server on 127.0.0.1 with a throw-away certificate that records each POST /pds/<op> as
// (op, body) and answers it with the status and body set for op, by default a success.
class PdsServer {
  public:
    PdsServer() : server_(cert.certPath().c_str(), cert.keyPath().c_str()) {
        server_.server.Post(
            R"(/pds/(\w+))", [this](const httplib::Request& req, httplib::Response& res) {
                std::lock_guard<std::mutex> guard(mutex_);
                std::string op = req.matches[1];
                calls_.push_back({op, req.body});
                auto [status, body] = answers_.count(op) ? answers_[op] : std::pair{200, kSuccess};
                res.status = status;
                res.set_content(body, "application/json");
            });
        server_.start();
    }
    void answer(const std::string& op, int status, const std::string& body) {
        std::lock_guard<std::mutex> guard(mutex_);
        answers_[op] = {status, body};
    }
    std::vector<std::pair<std::string, std::string>> calls() {
        std::lock_guard<std::mutex> guard(mutex_);
        return calls_;
    }
    int port() const { return server_.port; }

    const std::string kSuccess = R"({"reason":"success","result":"0"})";
    const pelio::test::TestCertificate cert;

  private:
    std::mutex mutex_;
    std::map<std::string, std::pair<int, std::string>> answers_;
    std::vector<std::pair<std::string, std::string>> calls_;
    RunningServer<httplib::SSLServer> server_;
};

// Installs the in-memory preferences, system information and connection service; keeps
// the proxy variables of the environment away from libcurl. The platform slots own the doubles.
struct UploadDoubles {
    UploadDoubles() {
        for (const char* v :
             {"http_proxy", "https_proxy", "HTTP_PROXY", "HTTPS_PROXY", "all_proxy", "ALL_PROXY"}) {
            unsetenv(v);
        }
        info->set(pelio::platform::kSystemKeyModelName, "test-model");
        info->set(pelio::platform::kSystemKeyDeviceId, "machine-1");
    }
    ~UploadDoubles() { pelio::platform::installConnection(nullptr); }
    pelio::test::Installed<pelio::test::FakePreferences, &pelio::platform::installPreferences>
        prefs;
    pelio::test::Installed<pelio::test::FakeSystemInfo, &pelio::platform::installSystemInfo> info;
    pelio::test::FakeConnection* connection = &pelio::test::FakeConnection::install();
};

}  // namespace uploadtest
