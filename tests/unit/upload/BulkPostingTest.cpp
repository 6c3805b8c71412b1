// Bulk posting against a real HTTP server on 127.0.0.1: parting, gzip bodies, headers, reply
// joining and cleaning, failures of the transfer and of the reply.
#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <mutex>
#include <regex>
#include <thread>

#include "PLMConstants.h"
#include "support/LogCapture.h"
#include "unit/sync/SyncTestSupport.h"
#include "unit/upload/UploadTestSupport.h"
#include "upload/DocsSplitter.h"

using pelio::test::LogCapture;

namespace {

// Number of elements of the "docs" array of a part.
int docsCount(const std::string& part) {
    return static_cast<int>(pelio::test::Body(part).size());
}

class BulkPostingThreadedTest : public ::testing::Test {
  protected:
    struct Received {
        std::string path, body, contentEncoding, acceptEncoding, cookie, contentType, accept,
            charset;
    };

    void SetUp() override {
        server.server.Post(".*", [this](const httplib::Request& req, httplib::Response& res) {
            int index;
            {
                std::lock_guard<std::mutex> guard(mutex);
                // httplib inflates a gzip request body itself (zlib).
                received.push_back(
                    {req.path, req.body, req.get_header_value("Content-Encoding"),
                     req.get_header_value("Accept-Encoding"), req.get_header_value("cookie"),
                     req.get_header_value("Content-Type"), req.get_header_value("Accept"),
                     req.get_header_value("charset")});
                index = static_cast<int>(received.size());
            }
            {
                // Parts on the wire at once, as the server sees them.
                const int now = ++inFlight;
                for (int most = mostInFlight;
                     now > most && !mostInFlight.compare_exchange_weak(most, now);) {
                }
                std::this_thread::sleep_for(std::chrono::milliseconds(holdMs));
                --inFlight;
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
            std::string reply = fixedReply.empty() ? replyFor(req.body) : fixedReply;
            res.set_header("Content-Encoding", "gzip");
            // Not a compressible type: httplib must not gzip it a second time.
            res.set_content(rawReply ? reply : uploadtest::gzip(reply), "application/octet-stream");
        });
        server.start();
        peer.setSession(server.url() + "/userdb-1", "AuthSession=tok");
    }

    // Default reply: one answer per posted document naming it, pretty-printed with newlines.
    static std::string replyFor(const std::string& body) {
        std::string reply = "[\r\n";
        const std::regex id("\"_id\":\"(d[0-9]+)\"");
        for (std::sregex_iterator it(body.begin(), body.end(), id), end; it != end; ++it)
            reply += (reply.size() > 3 ? ",\n{\"id\":\"" : "{\"id\":\"") + (*it)[1].str() + "\"}";
        return reply + "\n]";
    }
    std::vector<Received> requests() {
        std::lock_guard<std::mutex> guard(mutex);
        return received;
    }
    SyncResult post(int docs) {
        SyncData data;
        data.message = uploadtest::docsMessage(docs);
        SyncResult result;
        result.status = -5;
        handler.performSync(&data, &result);
        return result;
    }

    uploadtest::UploadDoubles doubles;
    std::mutex mutex;
    std::vector<Received> received;
    std::atomic<int> failOnRequest{0};
    std::atomic<int> status{200};
    std::atomic<int> holdMs{0};  // each request is answered after this long
    std::atomic<int> inFlight{0};
    std::atomic<int> mostInFlight{0};
    std::string fixedReply;
    bool rawReply = false;
    uploadtest::RunningServer<httplib::Server> server;
    DataUploadHandler handler{nullptr, nullptr, nullptr};
    DataUploadHandlerPeer peer{handler};
};

TEST_F(BulkPostingThreadedTest, PartsOfAHundredStandAloneAndOnePartInCompanionMode) {
    std::string message = uploadtest::docsMessage(250);
    auto parts = peer.parts(message, 100);
    ASSERT_EQ(parts.size(), 3u);
    EXPECT_EQ(docsCount(parts[0]), 100);
    EXPECT_EQ(parts[0].find("version"), std::string::npos);  // only the documents go
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

    for (const char* bad : {"{\"docs\":[]}", "{\"other\":1}", "not json"})
        EXPECT_TRUE(peer.parts(bad, 100).empty()) << bad;

    // A body as the composers write it (the generator's compact text, which is what the parser's
    // way writes back as one part) is cut as it stands, into the parts the parser's way makes.
    const std::string docs =
        R"({"_id":"q","t":"a \"}{[ b\\","n":[1,{"x":[]}],"u":"\u00e9\u0001"},{"_id":"r","v":-1.5e3},)"
        R"({"_id":"s","e":{},"a":[[],[{}]],"z":null})";
    const std::string parsed = "{\"n\":1,\"docs\":[" + docs + "]}";
    const std::vector<std::string> whole = peer.parts(parsed, 1000);
    ASSERT_EQ(whole.size(), 1u);
    std::vector<std::string> cut;
    std::vector<int> sizes;
    for (int unit : {1, 2, 100}) {
        ASSERT_TRUE(DocsSplitter::split(whole[0], unit, cut, sizes)) << unit;
        EXPECT_EQ(cut, peer.parts(parsed, unit)) << unit;
    }
    EXPECT_EQ(sizes, (std::vector<int>{3}));
    // Anything else takes the parser's way; unbalanced elements are not cut blindly.
    for (const char* other : {R"({"docs":[{"a":1} ]})", R"({"docs":[{"a":[}]]})",
                              R"({"docs":[{"a":"open]})", R"({"docs":[{"a":1}}]})"})
        EXPECT_FALSE(DocsSplitter::split(other, 100, cut, sizes)) << other;
    EXPECT_TRUE(peer.parts(R"({"docs":[{"a":[}]]})", 100).empty());
}

TEST_F(BulkPostingThreadedTest, PostsGzipPartsAndJoinsTheCleanedReplies) {
    SyncData data;
    data.message = uploadtest::docsMessage(250);
    data.itemType = plm::SYNC_ITEM_CONTACTS;
    data.syncType = plm::SYNC_TYPE_DIFF;
    SyncResult result;
    handler.performSync(&data, &result);

    auto parts = peer.parts(data.message, 100);
    auto got = requests();
    ASSERT_EQ(got.size(), 3u);
    // Parts travel side by side: each arrives once, in any order.
    std::sort(got.begin(), got.end(),
              [](const Received& a, const Received& b) { return a.body < b.body; });
    std::sort(parts.begin(), parts.end());
    for (size_t i = 0; i < 3; ++i) {
        EXPECT_EQ(got[i].path, "/userdb-1/_bulk_docs");
        EXPECT_EQ(got[i].contentEncoding, "gzip");
        EXPECT_EQ(got[i].acceptEncoding, "gzip");
        EXPECT_EQ(got[i].cookie, "AuthSession=tok");
        EXPECT_EQ(got[i].contentType, "application/json");
        EXPECT_EQ(got[i].accept, "application/json");
        EXPECT_EQ(got[i].charset, "UTF-8");
        EXPECT_EQ(got[i].body, parts[i]);  // the server inflated the gzip body
    }
    EXPECT_EQ(result.status, SyncResult::STATUS_SUCCESS);
    EXPECT_EQ(result.itemType, plm::SYNC_ITEM_CONTACTS);
    EXPECT_EQ(result.syncType, plm::SYNC_TYPE_DIFF);
    // One array for the whole message in the parts' order, brackets, newlines and CRs of each
    // reply removed.
    std::string joined;
    for (int i = 0; i < 250; ++i)
        joined += (i ? ",{\"id\":\"d" : "{\"id\":\"d") + std::to_string(i) + "\"}";
    EXPECT_EQ(result.jsonResponse, "[" + joined + "]");
}

// Two bodies posted at once share the connections: never more than seven on the wire, every part
// answered. A lone body has more than half of the six on the wire, and never more than six.
TEST_F(BulkPostingThreadedTest, BodiesPostedAtOnceShareTheConnections) {
    holdMs = 100;
    std::thread other([this] { EXPECT_EQ(post(1000).status, SyncResult::STATUS_SUCCESS); });
    EXPECT_EQ(post(1000).status, SyncResult::STATUS_SUCCESS);
    other.join();
    EXPECT_EQ(requests().size(), 20u);
    EXPECT_LE(mostInFlight.exchange(0), 7);

    EXPECT_EQ(post(1000).status, SyncResult::STATUS_SUCCESS);
    EXPECT_EQ(requests().size(), 30u);
    const int lone = mostInFlight.load();
    EXPECT_GT(lone, 3);
    EXPECT_LE(lone, 6);
}

// Status codes are only logged; a reply is cleaned even inside its values; a plain reply is read
// as it is; a truncated gzip member or a header alone is never taken for a whole reply.
TEST_F(BulkPostingThreadedTest, RepliesAsTheServerSendsThem) {
    LogCapture log;
    const std::string gz = uploadtest::gzip("[{\"ok\":true,\"id\":\"x\"}]");
    struct Case {
        int status;
        bool raw;
        std::string reply, expected;
    };
    for (const Case& c : std::vector<Case>{
             {500, false, "[{\"id\":\"a[1]\",\"reason\":\"line\nbreak\"}]",
              "[{\"id\":\"a1\",\"reason\":\"linebreak\"}]"},
             {200, true, "[{\"ok\":true,\"id\":\"p\"}]", "[{\"ok\":true,\"id\":\"p\"}]"},
             {200, true, gz.substr(0, gz.size() - 8), ""},
             {200, true, gz.substr(0, 5), ""}}) {
        status = c.status;
        rawReply = c.raw;
        fixedReply = c.reply;
        SyncResult result = post(3);
        EXPECT_EQ(result.status,
                  c.expected.empty() ? SyncResult::STATUS_FAILED : SyncResult::STATUS_SUCCESS);
        EXPECT_EQ(result.jsonResponse, c.expected);
    }
    EXPECT_TRUE(log.contains("httpResponseCode[500]"));
}

TEST_F(BulkPostingThreadedTest, ATransferErrorOnTheSecondPartDiscardsEverything) {
    LogCapture log;
    failOnRequest = 2;
    SyncData data;
    data.message = uploadtest::docsMessage(2000);
    data.itemType = plm::SYNC_ITEM_MEDIA;
    SyncResult result;
    result.jsonResponse = "untouched";
    handler.performSync(&data, &result);
    // Parts on the wire when the error came may finish; no later part is sent.
    EXPECT_LT(requests().size(), 20u);
    EXPECT_EQ(result.status, SyncResult::STATUS_FAILED);
    EXPECT_EQ(result.itemType, plm::SYNC_ITEM_MEDIA);
    EXPECT_EQ(result.jsonResponse, "untouched");
    EXPECT_TRUE(log.hasMessage("Failed to perform"));
}

TEST_F(BulkPostingThreadedTest, AHugeReplyInManyChunksIsInflatedWholeAndInOrder) {
    // Random letters inflate to more than two 1,024,000-byte rounds and arrive in many chunks.
    std::string noise;
    unsigned x = 12345;
    for (int i = 0; i < 2'500'000; ++i) {
        x = x * 1103515245u + 12345u;
        noise += static_cast<char>('a' + (x >> 16) % 26);
    }
    fixedReply = "[{\"id\":\"" + noise + "\"}]";
    SyncResult result = post(1);
    EXPECT_EQ(result.status, SyncResult::STATUS_SUCCESS);
    EXPECT_TRUE(result.jsonResponse == fixedReply);
}

TEST_F(BulkPostingThreadedTest, SilentServerIsLeftAtTheStallLimitOrWhenCancelled) {
    // A listener that never accepts: the connection opens, the request goes out, no answer comes.
    int port = 0;
    const int listener = uploadtest::loopbackSocket(true, &port);
    peer.setSession("http://127.0.0.1:" + std::to_string(port) + "/db", "AuthSession=tok");
    DataUploadHandler::setTransferLimitsForTesting(5, 1);
    EXPECT_EQ(post(2).status, SyncResult::STATUS_FAILED);

    DataUploadHandler::setTransferLimitsForTesting(15, 60);
    std::atomic<bool> done{false};
    SyncResult cancelled;
    std::thread poster([&] {
        cancelled = post(2);
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
    handler.performSync(&data, &result);  // no message
    data.message = "{\"docs\":[]}";
    handler.performSync(&data, nullptr);
    handler.performSync(&data, &result);
    EXPECT_TRUE(log.hasMessage("Nothing to Http Post"));
    DataUploadHandler closed(nullptr, nullptr, nullptr);
    data.message = uploadtest::docsMessage(1);
    closed.performSync(&data, &result);
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
    EXPECT_EQ(got[0].contentType, "application/json");
    EXPECT_EQ(got[0].cookie, "AuthSession=tok");
}

// A proxy that is not the companion marker still carries the transfer; the host choice and the
// part size stay stand-alone. The test server answers as the proxy in the database's place; the
// database URL points at a port where nothing listens.
TEST_F(BulkPostingThreadedTest, AnyProxyCarriesTheTransfer) {
    LogCapture log;
    doubles.connection->setProxy("127.0.0.1:" + std::to_string(server.port));
    DataUploadHandler proxied(nullptr, nullptr, nullptr);
    DataUploadHandlerPeer proxiedPeer(proxied);
    EXPECT_FALSE(proxiedPeer.companion());
    proxiedPeer.setSession("http://127.0.0.1:1/db", "");
    fixedReply = "[{\"ok\":true}]";
    SyncData data;
    data.message = uploadtest::docsMessage(150);
    SyncResult result;
    proxied.performSync(&data, &result);
    EXPECT_EQ(result.status, SyncResult::STATUS_SUCCESS);
    EXPECT_EQ(result.jsonResponse, "[{\"ok\":true},{\"ok\":true}]");  // two parts of 100 / 50
    EXPECT_TRUE(log.hasMessage("Plm Syncing with companian mode"));
    auto got = requests();
    ASSERT_EQ(got.size(), 2u);
    EXPECT_NE(got[0].path.find("/db/_bulk_docs"), std::string::npos) << got[0].path;
}

}  // namespace
