// Bulk posting against a real HTTP server on 127.0.0.1: parting, gzip bodies, headers, reply
// joining and cleaning, failures of the transfer and of the reply.
#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <json-glib/json-glib.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <mutex>
#include <thread>

#include "PLMConstants.h"
#include "support/LogCapture.h"
#include "unit/upload/UploadTestSupport.h"

using pelio::test::LogCapture;

namespace {

// Number of elements of the "docs" array of a part, and whether "docs" is its only member.
int docsCount(const std::string& part, bool* onlyDocs = nullptr) {
    JsonParser* parser = json_parser_new();
    int n = -1;
    if (json_parser_load_from_data(parser, part.c_str(), -1, nullptr)) {
        JsonObject* o = json_node_get_object(json_parser_get_root(parser));
        if (onlyDocs != nullptr)
            *onlyDocs = json_object_get_size(o) == 1;
        n = static_cast<int>(json_array_get_length(json_object_get_array_member(o, "docs")));
    }
    g_object_unref(parser);
    return n;
}

class BulkPostingThreadedTest : public ::testing::Test {
  protected:
    struct Received {
        std::string path, body, contentEncoding, acceptEncoding, cookie, contentType;
    };

    void SetUp() override {
        server.server.Post(".*", [this](const httplib::Request& req, httplib::Response& res) {
            int index;
            {
                std::lock_guard<std::mutex> guard(mutex);
                // httplib inflates a gzip request body itself (zlib).
                received.push_back({req.path, req.body, req.get_header_value("Content-Encoding"),
                                    req.get_header_value("Accept-Encoding"),
                                    req.get_header_value("cookie"),
                                    req.get_header_value("Content-Type")});
                index = static_cast<int>(received.size());
            }
            if (index == failOnRequest) {
                // Promise more than is sent, then close: a transfer error.
                res.set_header("Content-Length", "1000");
                res.set_content_provider(1000, "application/octet-stream",
                                         [](size_t, size_t, httplib::DataSink& sink) {
                                             sink.write("xx", 2);
                                             return false;  // abort the connection mid-reply
                                         });
                return;
            }
            res.status = status;
            std::string reply = replyFor(index, req.body);
            res.set_header("Content-Encoding", "gzip");
            // Not a compressible type: httplib must not gzip it a second time.
            res.set_content(rawReply ? reply : uploadtest::gzip(reply), "application/octet-stream");
        });
        server.start();
        peer.setSession(server.url() + "/userdb-1", "AuthSession=tok");
    }

    // Default reply: one answer per posted document, pretty-printed with newlines.
    std::string replyFor(int index, const std::string& body) {
        if (!fixedReply.empty())
            return fixedReply;
        int n = docsCount(body);
        std::string reply = "[\r\n";
        for (int i = 0; i < n; ++i) {
            reply += (i ? ",\n" : "") + std::string("{\"ok\":true,\"part\":") +
                     std::to_string(index) + "}";
        }
        return reply + "\n]";
    }

    std::vector<Received> requests() {
        std::lock_guard<std::mutex> guard(mutex);
        return received;
    }

    uploadtest::UploadDoubles doubles;
    uploadtest::RunningServer<httplib::Server> server;
    DataUploadHandler handler{nullptr, nullptr, nullptr};
    DataUploadHandlerPeer peer{handler};
    std::mutex mutex;
    std::vector<Received> received;
    std::atomic<int> failOnRequest{0};
    std::atomic<int> status{200};
    std::string fixedReply;
    bool rawReply = false;
};

TEST_F(BulkPostingThreadedTest, PartsOfAHundredStandAloneAndOnePartInCompanionMode) {
    std::string message = uploadtest::docsMessage(250);
    auto parts = peer.parts(message, 100);
    ASSERT_EQ(parts.size(), 3u);
    bool onlyDocs = false;
    EXPECT_EQ(docsCount(parts[0], &onlyDocs), 100);
    EXPECT_TRUE(onlyDocs);  // the "version" member of the message is dropped
    EXPECT_EQ(docsCount(parts[1]), 100);
    EXPECT_EQ(docsCount(parts[2]), 50);
    EXPECT_NE(parts[2].find("{\"_id\":\"d200\"}"), std::string::npos);
    EXPECT_EQ(parts[0].find('\n'), std::string::npos);  // compact text

    // Companion mode: parts of 500. Only the parting is exercised; nothing is posted while
    // the marker is the proxy.
    DataUploadHandler paired(nullptr, nullptr, nullptr);
    DataUploadHandlerPeer pairedPeer(paired);
    doubles.connection->setProxy(plm::COMPANION_PROXY_MARKER);
    ASSERT_TRUE(pairedPeer.companion());
    doubles.connection->setProxy("");
    EXPECT_EQ(pairedPeer.parts(message, 500).size(), 1u);

    LogCapture log;
    EXPECT_TRUE(peer.parts("{\"docs\":[]}", 100).empty());
    EXPECT_TRUE(log.hasMessage("Failed to json_array_get_length"));
    EXPECT_TRUE(peer.parts("{\"other\":1}", 100).empty());
    EXPECT_TRUE(log.hasMessage("Failed to json_object_get_array_member"));
    EXPECT_TRUE(peer.parts("not json", 100).empty());
    EXPECT_TRUE(log.hasMessage("Failed to json_parser_load_from_data"));
}

TEST_F(BulkPostingThreadedTest, PostsGzipPartsAndJoinsTheCleanedReplies) {
    std::string message = uploadtest::docsMessage(250);
    // The zipped parts inflate back to the parts with zlib.
    auto parts = peer.parts(message, 100);
    auto zipped = peer.zipped(parts);
    ASSERT_EQ(zipped.size(), 3u);
    for (size_t i = 0; i < 3; ++i) {
        EXPECT_EQ(static_cast<unsigned char>(zipped[i][0]), 0x1f);
        EXPECT_EQ(static_cast<unsigned char>(zipped[i][1]), 0x8b);
        EXPECT_EQ(uploadtest::gunzip(zipped[i]), parts[i]);
    }

    SyncData data;
    data.message = message;
    data.itemType = plm::SYNC_ITEM_CONTACTS;
    data.syncType = plm::SYNC_TYPE_DIFF;
    SyncResult result;
    result.status = -5;
    handler.performSync(&data, &result);

    auto got = requests();
    ASSERT_EQ(got.size(), 3u);
    for (size_t i = 0; i < 3; ++i) {
        EXPECT_EQ(got[i].path, "/userdb-1/_bulk_docs");
        EXPECT_EQ(got[i].contentEncoding, "gzip");
        EXPECT_EQ(got[i].acceptEncoding, "gzip");
        EXPECT_EQ(got[i].cookie, "AuthSession=tok");
        EXPECT_EQ(got[i].contentType, "application/json");
        EXPECT_EQ(got[i].body, parts[i]);
    }
    EXPECT_EQ(result.status, SyncResult::STATUS_SUCCESS);
    EXPECT_EQ(result.itemType, plm::SYNC_ITEM_CONTACTS);
    EXPECT_EQ(result.syncType, plm::SYNC_TYPE_DIFF);
    // One array for the whole message, brackets, newlines and CRs of each reply removed.
    JsonParser* parser = json_parser_new();
    ASSERT_TRUE(json_parser_load_from_data(parser, result.jsonResponse.c_str(), -1, nullptr))
        << result.jsonResponse;
    JsonArray* all = json_node_get_array(json_parser_get_root(parser));
    ASSERT_EQ(json_array_get_length(all), 250u);
    EXPECT_EQ(json_object_get_int_member(json_array_get_object_element(all, 0), "part"), 1);
    EXPECT_EQ(json_object_get_int_member(json_array_get_object_element(all, 249), "part"), 3);
    g_object_unref(parser);
    EXPECT_EQ(result.jsonResponse.find('\n'), std::string::npos);
    EXPECT_EQ(result.jsonResponse.find('\r'), std::string::npos);
}

TEST_F(BulkPostingThreadedTest, RepliesAreCleanedEvenInsideValuesAndStatusIsOnlyLogged) {
    LogCapture log;
    status = 500;
    fixedReply = "[{\"id\":\"a[1]\",\"reason\":\"line\nbreak\"}]";
    SyncData data;
    data.message = uploadtest::docsMessage(2);
    SyncResult result;
    handler.performSync(&data, &result);
    EXPECT_EQ(result.status, SyncResult::STATUS_SUCCESS);
    EXPECT_EQ(result.jsonResponse, "[{\"id\":\"a1\",\"reason\":\"linebreak\"}]");
    EXPECT_TRUE(log.contains("httpResponseCode[500]"));
}

TEST_F(BulkPostingThreadedTest, ATransferErrorOnTheSecondPartDiscardsEverything) {
    LogCapture log;
    failOnRequest = 2;
    SyncData data;
    data.message = uploadtest::docsMessage(250);
    data.itemType = plm::SYNC_ITEM_MEDIA;
    SyncResult result;
    result.status = -5;
    result.jsonResponse = "untouched";
    handler.performSync(&data, &result);
    EXPECT_EQ(requests().size(), 2u);  // the third part is not sent
    EXPECT_EQ(result.status, SyncResult::STATUS_FAILED);
    EXPECT_EQ(result.itemType, plm::SYNC_ITEM_MEDIA);
    EXPECT_EQ(result.jsonResponse, "untouched");
    EXPECT_TRUE(log.hasMessage("Failed to perform"));
    EXPECT_TRUE(log.hasMessage("posting failed"));
}

TEST_F(BulkPostingThreadedTest, PlainRepliesAreReadAndDamagedGzipFails) {
    SyncData data;
    data.message = uploadtest::docsMessage(3);
    rawReply = true;
    fixedReply = "[{\"ok\":true,\"id\":\"p\"}]";  // plain text, not a gzip member
    SyncResult plain;
    handler.performSync(&data, &plain);
    EXPECT_EQ(plain.status, SyncResult::STATUS_SUCCESS);
    EXPECT_EQ(plain.jsonResponse, "[{\"ok\":true,\"id\":\"p\"}]");

    // Truncated gzip member, or a header alone: half a reply is never taken for a whole one.
    std::string full = uploadtest::gzip("[{\"ok\":true,\"id\":\"x\"}]");
    for (const std::string& cut : {full.substr(0, full.size() - 8), full.substr(0, 5)}) {
        fixedReply = cut;
        SyncResult damaged;
        handler.performSync(&data, &damaged);
        EXPECT_EQ(damaged.status, SyncResult::STATUS_FAILED);
        EXPECT_TRUE(damaged.jsonResponse.empty());
    }
}

TEST_F(BulkPostingThreadedTest, HugeReplies) {
    SyncData data;
    data.message = uploadtest::docsMessage(1);
    // Inflates to more than one 1,024,000-byte round, arrives in one chunk: assembled whole.
    std::string big = "[{\"id\":\"" + std::string(3'000'000, 'x') + "\"}]";
    fixedReply = big;
    SyncResult one;
    handler.performSync(&data, &one);
    EXPECT_EQ(one.status, SyncResult::STATUS_SUCCESS);
    EXPECT_EQ(one.jsonResponse, big);

    // A gzip reply delivered in many chunks is kept whole.
    std::string noise;
    unsigned x = 12345;
    for (int i = 0; i < 400000; ++i) {
        x = x * 1103515245u + 12345u;
        noise += static_cast<char>('a' + (x >> 16) % 26);
    }
    rawReply = true;
    fixedReply = uploadtest::gzip("[{\"id\":\"" + noise + "\"}]");
    ASSERT_GT(fixedReply.size(), 100000u);
    SyncResult chunked;
    handler.performSync(&data, &chunked);
    EXPECT_EQ(chunked.status, SyncResult::STATUS_SUCCESS);
    EXPECT_EQ(chunked.jsonResponse, "[{\"id\":\"" + noise + "\"}]");
}

TEST_F(BulkPostingThreadedTest, SilentServerIsLeftAtTheStallLimitOrWhenCancelled) {
    // A listener that never accepts: the connection opens, the request goes out, no answer comes.
    const int listener = ::socket(AF_INET, SOCK_STREAM, 0);
    ASSERT_GE(listener, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t length = sizeof address;
    ASSERT_EQ(::bind(listener, reinterpret_cast<sockaddr*>(&address), length), 0);
    ASSERT_EQ(::listen(listener, 4), 0);
    ASSERT_EQ(::getsockname(listener, reinterpret_cast<sockaddr*>(&address), &length), 0);
    peer.setSession("http://127.0.0.1:" + std::to_string(ntohs(address.sin_port)) + "/db",
                    "AuthSession=tok");
    SyncData data;
    data.message = uploadtest::docsMessage(2);

    DataUploadHandler::setTransferLimitsForTesting(5, 1);
    SyncResult stalled;
    handler.performSync(&data, &stalled);
    EXPECT_EQ(stalled.status, SyncResult::STATUS_FAILED);

    DataUploadHandler::setTransferLimitsForTesting(15, 60);
    std::atomic<bool> done{false};
    SyncResult cancelled;
    std::thread poster([&] {
        handler.performSync(&data, &cancelled);
        done = true;
    });
    std::this_thread::sleep_for(std::chrono::milliseconds(300));
    handler.cancelTransfers();
    for (int i = 0; i < 50 && !done; ++i)
        std::this_thread::sleep_for(std::chrono::milliseconds(100));
    EXPECT_TRUE(done.load());  // well before the 60 s stall limit
    poster.join();
    EXPECT_EQ(cancelled.status, SyncResult::STATUS_FAILED);
    ::close(listener);
}

TEST_F(BulkPostingThreadedTest, PreconditionsAndNothingToPost) {
    LogCapture log;
    SyncData data;
    SyncResult result;
    result.status = -5;
    handler.performSync(nullptr, &result);
    EXPECT_TRUE(log.hasMessage("syncData is NULL"));
    handler.performSync(&data, &result);
    EXPECT_TRUE(log.hasMessage("syncData has no Message"));
    data.message = "{\"docs\":[]}";
    handler.performSync(&data, nullptr);
    EXPECT_TRUE(log.hasMessage("syncResult is NULL"));
    handler.performSync(&data, &result);
    EXPECT_TRUE(log.hasMessage("Nothing to Http Post"));
    DataUploadHandler closed(nullptr, nullptr, nullptr);
    data.message = uploadtest::docsMessage(1);
    closed.performSync(&data, &result);
    EXPECT_TRUE(log.hasMessage("PDS is not openned"));
    EXPECT_EQ(log.count("Unable to performSync at this condition"), 4);
    EXPECT_EQ(result.status, -5);
    EXPECT_TRUE(requests().empty());
}

TEST_F(BulkPostingThreadedTest, UnzippedPostingSendsPlainText) {
    rawReply = true;
    fixedReply = "[{\"a\":1}]";
    std::string reply = peer.postUnzipped({"{\"docs\":[{\"_id\":\"1\"}]}", "{\"docs\":[]}"});
    EXPECT_EQ(reply, "{\"a\":1},{\"a\":1}");
    auto got = requests();
    ASSERT_EQ(got.size(), 2u);
    EXPECT_EQ(got[0].body, "{\"docs\":[{\"_id\":\"1\"}]}");
    EXPECT_EQ(got[0].contentEncoding, "");
    EXPECT_EQ(got[0].acceptEncoding, "");
}

// A server that answers with headers and a few bytes, then closes the connection.
TEST(BulkPostingServerThreadedTest, AServerClosingMidReplyFailsTheUpload) {
    uploadtest::UploadDoubles doubles;
    int listener = socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in addr{};
    addr.sin_family = AF_INET;
    addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    ASSERT_EQ(bind(listener, reinterpret_cast<sockaddr*>(&addr), sizeof addr), 0);
    ASSERT_EQ(listen(listener, 4), 0);
    socklen_t len = sizeof addr;
    getsockname(listener, reinterpret_cast<sockaddr*>(&addr), &len);
    std::thread serverThread([listener] {
        int c = accept(listener, nullptr, nullptr);
        if (c < 0)
            return;
        char buf[65536];
        (void)!read(c, buf, sizeof buf);
        const std::string head =
            "HTTP/1.1 200 OK\r\nContent-Encoding: gzip\r\nContent-Length: 5000\r\n\r\n\x1f\x8b";
        (void)!write(c, head.data(), head.size());
        close(c);
    });
    DataUploadHandler handler(nullptr, nullptr, nullptr);
    DataUploadHandlerPeer peer(handler);
    peer.setSession("http://127.0.0.1:" + std::to_string(ntohs(addr.sin_port)) + "/db", "");
    SyncData data;
    data.message = uploadtest::docsMessage(1);
    SyncResult result;
    result.status = -5;
    handler.performSync(&data, &result);
    serverThread.join();
    close(listener);
    EXPECT_EQ(result.status, SyncResult::STATUS_FAILED);
    EXPECT_TRUE(result.jsonResponse.empty());
}

}  // namespace

namespace {

// A proxy that is not the companion marker still carries the transfer; the host choice and the
// part size stay stand-alone. The "proxy" is a loopback server that answers in the database's
// place; the database URL points at a port where nothing listens.
TEST(BulkPostingProxyThreadedTest, AnyProxyCarriesTheTransfer) {
    uploadtest::UploadDoubles doubles;
    uploadtest::RunningServer<httplib::Server> proxy;
    std::mutex mutex;
    std::vector<std::string> targets;
    proxy.server.Post(".*", [&](const httplib::Request& req, httplib::Response& res) {
        {
            std::lock_guard<std::mutex> guard(mutex);
            targets.push_back(req.path);
        }
        res.set_header("Content-Encoding", "gzip");
        res.set_content(uploadtest::gzip("[{\"ok\":true}]"), "application/octet-stream");
    });
    proxy.start();
    doubles.connection->setProxy("127.0.0.1:" + std::to_string(proxy.port));

    LogCapture log;
    DataUploadHandler handler(nullptr, nullptr, nullptr);
    DataUploadHandlerPeer peer(handler);
    EXPECT_FALSE(peer.companion());
    peer.setSession("http://127.0.0.1:1/db", "");
    SyncData data;
    data.message = uploadtest::docsMessage(150);
    SyncResult result;
    handler.performSync(&data, &result);
    EXPECT_EQ(result.status, SyncResult::STATUS_SUCCESS);
    EXPECT_EQ(result.jsonResponse, "[{\"ok\":true},{\"ok\":true}]");  // two parts of 100 / 50
    EXPECT_TRUE(log.hasMessage("Plm Syncing with companian mode"));
    std::lock_guard<std::mutex> guard(mutex);
    ASSERT_EQ(targets.size(), 2u);
    EXPECT_NE(targets[0].find("/db/_bulk_docs"), std::string::npos) << targets[0];
}

}  // namespace
