// Shared pieces of the uploader's tests: access to the handler's helpers, an in-process HTTP(S)
// server on 127.0.0.1 with a random port, gzip helpers and a test certificate.
#pragma once

#include <gtest/gtest.h>
#include <httplib.h>
#include <zlib.h>

#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "doubles/FakeConnection.h"
#include "doubles/FakePreferences.h"
#include "doubles/FakeSystemInfo.h"
#include "support/Gzip.h"
#include "upload/DataUploadHandler.h"

// Friend of DataUploadHandler: forwards to its private helpers.
struct DataUploadHandlerPeer {
    explicit DataUploadHandlerPeer(DataUploadHandler& h) : h(h) {}
    DataUploadHandler& h;

    std::vector<std::string> parts(const std::string& m, int unit) {
        return h._getPartedSyncDataList(m, unit);
    }
    std::vector<std::string> zipped(const std::vector<std::string>& parts) {
        std::vector<std::string> out;
        for (auto& z : h._getZippedPartedSyncDataList(parts)) {
            out.emplace_back(reinterpret_cast<char*>(z->item), static_cast<size_t>(z->size));
        }
        return out;
    }
    std::string postUnzipped(const std::vector<std::string>& parts) {
        return h._curlPostingUnzipped(parts);
    }
    std::vector<std::string> headers(bool zipping) {
        curl_slist* list = nullptr;
        h._setCurlHttpPostingHeader(&list, zipping);
        std::vector<std::string> out;
        for (curl_slist* i = list; i != nullptr; i = i->next)
            out.emplace_back(i->data);
        curl_slist_free_all(list);
        return out;
    }
    void setSession(const std::string& dbUrl, const std::string& cookie) {
        h.mDbUrl = dbUrl;
        h.mCookie = cookie;
        h.mPdsOpened = true;
    }
    std::string cookie() { return h.mCookie; }
    std::string dbUrl() { return h.mDbUrl; }
    std::string latestPlmId() { return h.mLatestPlmId; }
    const Orvane* orvane() { return h.mOrvane.get(); }
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

// A self-signed certificate for 127.0.0.1 (made with the openssl command) in a temp folder.
struct TestCertificate {
    TestCertificate() {
        char tmpl[] = "/tmp/pelio-cert-XXXXXX";
        dir = mkdtemp(tmpl);
        cert = dir + "/cert.pem";
        key = dir + "/key.pem";
        std::string cmd =
            "openssl req -x509 -newkey rsa:2048 -nodes -days 2 -subj /CN=127.0.0.1"
            " -addext subjectAltName=IP:127.0.0.1 -keyout " +
            key + " -out " + cert + " >/dev/null 2>&1";
        ok = std::system(cmd.c_str()) == 0;
    }
    ~TestCertificate() { std::filesystem::remove_all(dir); }
    std::string dir, cert, key;
    bool ok = false;
};

// Installs the in-memory preferences, system information and connection service; keeps
// the proxy variables of the environment away from libcurl. The platform slots own the doubles.
struct UploadDoubles {
    UploadDoubles() {
        for (const char* v :
             {"http_proxy", "https_proxy", "HTTP_PROXY", "HTTPS_PROXY", "all_proxy", "ALL_PROXY"}) {
            unsetenv(v);
        }
        auto p = std::make_unique<pelio::test::FakePreferences>();
        prefs = p.get();
        pelio::platform::installPreferences(std::move(p));
        auto s = std::make_unique<pelio::test::FakeSystemInfo>();
        s->set(pelio::platform::kSystemKeyModelName, "test-model");
        s->set(pelio::platform::kSystemKeyDeviceId, "machine-1");
        pelio::platform::installSystemInfo(std::move(s));
        connection = &pelio::test::FakeConnection::install();
    }
    ~UploadDoubles() {
        pelio::platform::installConnection(nullptr);
        pelio::platform::installPreferences(nullptr);
        pelio::platform::installSystemInfo(nullptr);
    }
    pelio::test::FakePreferences* prefs = nullptr;
    pelio::test::FakeConnection* connection = nullptr;
};

}  // namespace uploadtest
