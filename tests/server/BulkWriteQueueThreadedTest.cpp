// Writes that request threads make to one database at the same time: joined into few requests,
// each thread answered for its own documents, ids never twice in one request, and a failed joined
// request posted again write by write. The database is a loopback HTTP server.
#include <httplib.h>

#include <gtest/gtest.h>

#include <chrono>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "BulkWriteQueue.h"
#include "CouchClient.h"

using nlohmann::json;

namespace {

class BulkWriteQueueThreadedTest : public ::testing::Test {
  protected:
    void SetUp() override {
        server.Post("/db/_bulk_docs", [this](const httplib::Request& req, httplib::Response& res) {
            const json docs = json::parse(req.body).at("docs");
            std::vector<std::string> ids;
            for (const json& d : docs)
                ids.push_back(d.at("_id").get<std::string>());
            {
                std::lock_guard<std::mutex> guard(mutex);
                requests.push_back(ids);
            }
            std::this_thread::sleep_for(std::chrono::milliseconds(40));  // others queue meanwhile
            if (docs.size() > refuseAbove) {
                res.status = 500;
                return;
            }
            json answer = json::array();
            for (const std::string& id : ids)
                answer.push_back({{"ok", true}, {"id", id}, {"rev", "1-" + id}});
            res.status = 201;
            res.set_content(answer.dump(), "application/json");
        });
        const int port = server.bind_to_any_port("127.0.0.1");
        ASSERT_GT(port, 0);
        thread = std::thread([this] { server.listen_after_bind(); });
        while (!server.is_running())
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
        couch = std::make_unique<CouchClient>("http://127.0.0.1:" + std::to_string(port));
    }
    void TearDown() override {
        server.stop();
        thread.join();
    }

    // Writes `count` documents named prefix0, prefix1, ... from `writers` threads at once; returns
    // what each thread was answered.
    std::vector<BulkWriteQueue::Written> writeAtOnce(BulkWriteQueue& queue,
                                                     const std::vector<std::string>& prefixes,
                                                     int count) {
        std::vector<BulkWriteQueue::Written> out(prefixes.size());
        std::vector<std::thread> writers;
        for (std::size_t w = 0; w < prefixes.size(); ++w) {
            writers.emplace_back([&, w] {
                json docs = json::array();
                std::vector<std::string> ids;
                for (int i = 0; i < count; ++i) {
                    ids.push_back(prefixes[w] + std::to_string(i));
                    docs.push_back({{"_id", ids.back()}, {"n", i}});
                }
                out[w] = queue.post("/db", docs, ids);
            });
            std::this_thread::sleep_for(std::chrono::milliseconds(5));  // in this order
        }
        for (std::thread& t : writers)
            t.join();
        return out;
    }

    httplib::Server server;
    std::thread thread;
    std::unique_ptr<CouchClient> couch;
    std::mutex mutex;
    std::vector<std::vector<std::string>> requests;
    std::size_t refuseAbove = 100000;
};

// Each writer gets exactly its own results, in its order.
void expectOwnResults(const std::vector<BulkWriteQueue::Written>& written,
                      const std::vector<std::string>& prefixes, int count) {
    for (std::size_t w = 0; w < written.size(); ++w) {
        EXPECT_EQ(written[w].reply.status, 201) << w;
        ASSERT_TRUE(written[w].results.is_array()) << w;
        ASSERT_EQ(written[w].results.size(), static_cast<std::size_t>(count)) << w;
        for (int i = 0; i < count; ++i)
            EXPECT_EQ(written[w].results[i].at("id"), prefixes[w] + std::to_string(i));
    }
}

TEST_F(BulkWriteQueueThreadedTest, WritesAtTheSameTimeGoTogetherAndEachGetsItsOwnAnswers) {
    BulkWriteQueue queue(*couch, 250);
    const std::vector<std::string> prefixes{"a", "b", "c", "d", "e"};
    expectOwnResults(writeAtOnce(queue, prefixes, 100), prefixes, 100);
    // "a" goes alone; the rest queue behind it and go at most two at a time (250 documents).
    ASSERT_LT(requests.size(), prefixes.size());
    std::size_t total = 0;
    for (const auto& ids : requests) {
        EXPECT_LE(ids.size(), 250u);
        total += ids.size();
    }
    EXPECT_EQ(total, 500u);

    // The same ids from two writers never share a request.
    requests.clear();
    const std::vector<std::string> same{"x", "x", "x"};
    expectOwnResults(writeAtOnce(queue, same, 10), same, 10);
    EXPECT_EQ(requests.size(), 3u);
}

TEST_F(BulkWriteQueueThreadedTest, AFailedJoinedRequestIsPostedAgainWriteByWrite) {
    BulkWriteQueue queue(*couch);
    refuseAbove = 100;  // the database refuses any request that joins two writes
    const std::vector<std::string> prefixes{"a", "b", "c"};
    expectOwnResults(writeAtOnce(queue, prefixes, 100), prefixes, 100);
    std::size_t alone = 0;
    for (const auto& ids : requests)
        alone += ids.size() == 100 ? 1 : 0;
    EXPECT_EQ(alone, 3u);
    EXPECT_GT(requests.size(), 3u);  // at least one joined attempt was made
}

}  // namespace
