#include <gtest/gtest.h>

#include <atomic>
#include <stdexcept>
#include <thread>
#include <vector>

#include "SyncHandlers/BaseSyncHandler.h"
#include "unit/sync/SyncTestSupport.h"

using namespace pelio::test;

namespace {

// A handler whose collection returns a configured result and records what it was asked.
class ScriptedHandler : public BaseSyncHandler {
  public:
    ScriptedHandler(SyncHandlerHost* host, int domain, int result)
        : BaseSyncHandler(host), result_(result) {
        mDomainId = domain;
    }
    ~ScriptedHandler() override { stopWorker(); }

    int syncData(int syncType) override {
        const int now = ++inside_;
        int seen = maxInside_.load();
        while (now > seen && !maxInside_.compare_exchange_weak(seen, now)) {
        }
        {
            std::lock_guard<std::mutex> guard(mutex_);
            types_.push_back(syncType);
        }
        if (hook)
            hook(syncType);
        --inside_;
        return result_;
    }
    std::vector<int> types() {
        std::lock_guard<std::mutex> guard(mutex_);
        return types_;
    }
    int maxConcurrent() const { return maxInside_.load(); }
    bool interrupted() { return isInterrupted(); }

    std::function<void(int)> hook;

  private:
    int result_;
    std::mutex mutex_;
    std::vector<int> types_;
    std::atomic<int> inside_{0};
    std::atomic<int> maxInside_{0};
};

class BaseSyncHandlerTest : public SyncStoreTest {};

}  // namespace

TEST(FixedWidthIdTest, FormatsPadsOverwritesPrefixAndRefusesTooLongIds) {
    EXPECT_EQ(BaseSyncHandler::formatFixedWidthId("con_", "57", 12), "con_00000057");
    EXPECT_EQ(BaseSyncHandler::formatFixedWidthId("con_", "12345678", 12), "con_12345678");
    // Longer than the digits behind the prefix: the id eats into the prefix.
    EXPECT_EQ(BaseSyncHandler::formatFixedWidthId("con_", "1234567890", 12), "co1234567890");
    EXPECT_EQ(BaseSyncHandler::formatFixedWidthId("apl_", "7", 8), "apl_0007");
    EXPECT_THROW(BaseSyncHandler::formatFixedWidthId("con_", "1234567890123", 12),
                 std::logic_error);
}

TEST(FixedWidthIdTest, DecodeInvertsTheFormatterForIdsOfUpToEightDigits) {
    for (const char* id : {"1", "7", "10", "57", "100", "1000001", "10000000", "99999999"}) {
        const std::string doc = BaseSyncHandler::formatFixedWidthId("con_", id, 12);
        EXPECT_EQ(BaseSyncHandler::decodeDocumentId(doc), id) << doc;
    }
    EXPECT_EQ(BaseSyncHandler::decodeDocumentId("aud_0000203"), "203");
    EXPECT_EQ(BaseSyncHandler::decodeDocumentId("con_00000000"), "");
    EXPECT_EQ(BaseSyncHandler::decodeDocumentId("con_"), "");
    EXPECT_EQ(BaseSyncHandler::decodeDocumentId(""), "");
}

TEST_F(BaseSyncHandlerTest, RejectsTypesBelowOneWithoutQueueingOrStartingAWorker) {
    RecordingHost host;
    ScriptedHandler handler(&host, 3, 0);
    EXPECT_EQ(handler.requestSync(0), -1);
    EXPECT_EQ(handler.requestSync(-5), -1);
    EXPECT_EQ(log_.count("Unknown sync type"), 2);
    EXPECT_EQ(handler.queueLength(), 0);
    EXPECT_FALSE(handler.isWorkerRunning());
    EXPECT_TRUE(handler.types().empty());
}

TEST_F(BaseSyncHandlerTest, QueueHoldsOneRequestAndForcedReplacesDifferenceThreaded) {
    RecordingHost host;
    ScriptedHandler handler(&host, 3, 2);
    std::unique_lock<std::mutex> domain(host.domainLock);  // the worker will wait for it

    EXPECT_EQ(handler.requestSync(98), 0);  // starts the worker, which takes this request
    ASSERT_TRUE(eventually([&] { return handler.queueLength() == 0; }));

    EXPECT_EQ(handler.requestSync(98), -1);
    EXPECT_EQ(handler.requestSync(98), -1);
    EXPECT_EQ(handler.requestSync(98), -1);
    EXPECT_EQ(handler.queueLength(), 1);
    EXPECT_FALSE(handler.isForcedPending());
    EXPECT_TRUE(log_.hasMessage("thread already created"));

    EXPECT_EQ(handler.requestSync(99), -1);
    EXPECT_EQ(handler.queueLength(), 1);
    EXPECT_TRUE(handler.isForcedPending());
    EXPECT_TRUE(log_.hasMessage("popped during reset[98]"));

    // A difference request does not displace a pending forced one.
    EXPECT_EQ(handler.requestSync(98), -1);
    EXPECT_TRUE(handler.isForcedPending());

    domain.unlock();
    ASSERT_TRUE(eventually([&] { return !handler.isWorkerRunning(); }));
    EXPECT_EQ(handler.types(), (std::vector<int>{98, 99}));
    EXPECT_EQ(handler.queueLength(), 0);
    EXPECT_TRUE(log_.hasMessage("thread exited"));
    EXPECT_TRUE(log_.hasMessage("popped[99], syncDomain[3]"));
}

TEST_F(BaseSyncHandlerTest, ResultsDecideStatusAndUploadThreaded) {
    {
        RecordingHost host;
        ScriptedHandler handler(&host, 3, 0);
        EXPECT_EQ(handler.requestSync(98), 0);
        ASSERT_TRUE(eventually([&] { return !handler.isWorkerRunning(); }));
        EXPECT_EQ(
            host.statusCalls(),
            (std::vector<std::pair<std::string, std::string>>{{"CONTACTS_SYNC_STATUS_P", "0"}}));
        EXPECT_EQ(host.queuedItems(), std::vector<int>{3});
        EXPECT_TRUE(log_.hasMessage("Sync type called from base[98], ret[0]"));
    }
    for (const auto& [domain, key] : std::vector<std::pair<int, std::string>>{
             {1, "APP_SYNC_STATUS_P"}, {2, "MEDIA_SYNC_STATUS_P"}}) {
        RecordingHost host;
        ScriptedHandler handler(&host, domain, 0);
        handler.requestSync(99);
        ASSERT_TRUE(eventually([&] { return !handler.isWorkerRunning(); }));
        ASSERT_EQ(host.statusCalls().size(), 1u);
        EXPECT_EQ(host.statusCalls()[0].first, key);
        EXPECT_EQ(host.queuedItems(), std::vector<int>{domain});
    }
    {
        // A domain without a status key is still handed over for upload.
        RecordingHost host;
        ScriptedHandler handler(&host, 11, 0);
        handler.requestSync(98);
        ASSERT_TRUE(eventually([&] { return !handler.isWorkerRunning(); }));
        EXPECT_TRUE(log_.hasMessage("BaseSyncHandler else case"));
        EXPECT_TRUE(host.statusCalls().empty());
        EXPECT_EQ(host.queuedItems(), std::vector<int>{11});
    }
    for (int result : {2, 1, -1}) {
        log_.clear();
        RecordingHost host;
        ScriptedHandler handler(&host, 3, result);
        handler.requestSync(98);
        ASSERT_TRUE(eventually([&] { return !handler.isWorkerRunning(); }));
        EXPECT_TRUE(host.statusCalls().empty()) << result;
        EXPECT_TRUE(host.queuedItems().empty()) << result;
        EXPECT_TRUE(log_.hasMessage(result == 2 ? "Nothing to be done for the domain[3]"
                                                : "Sync failed for domain[3]"));
    }
}

TEST_F(BaseSyncHandlerTest, ConcurrentRequestsNeverRunTwoWorkersNorStrandARequestThreaded) {
    RecordingHost host;
    ScriptedHandler handler(&host, 5, 2);  // no domain lock: collections could overlap
    std::atomic<int> accepted{0};
    std::vector<std::thread> senders;
    for (int t = 0; t < 4; ++t) {
        senders.emplace_back([&, t] {
            for (int i = 0; i < 200; ++i) {
                if (handler.requestSync((i + t) % 7 == 0 ? 99 : 98) == 0)
                    ++accepted;
                if (i % 16 == 0)
                    std::this_thread::yield();
            }
        });
    }
    for (auto& s : senders)
        s.join();
    ASSERT_TRUE(eventually([&] { return !handler.isWorkerRunning(); }));
    EXPECT_EQ(handler.maxConcurrent(), 1);
    // Whatever was queued last has been taken by a worker.
    EXPECT_EQ(handler.queueLength(), 0);
    EXPECT_GE(accepted.load(), 1);
}

TEST_F(BaseSyncHandlerTest, StopWorkerJoinsAfterTheCurrentRequestAndKeepsTheQueuedOneThreaded) {
    RecordingHost host;
    ScriptedHandler handler(&host, 3, 2);
    std::unique_lock<std::mutex> domain(host.domainLock);
    handler.requestSync(98);
    ASSERT_TRUE(eventually([&] { return handler.queueLength() == 0; }));
    handler.requestSync(98);  // waits in the queue
    ASSERT_FALSE(handler.interrupted());

    std::thread stopper([&] { handler.stopWorker(); });
    ASSERT_TRUE(eventually([&] { return handler.interrupted(); }));  // the stop is asked
    domain.unlock();
    stopper.join();

    EXPECT_FALSE(handler.isWorkerRunning());
    EXPECT_FALSE(handler.interrupted());
    EXPECT_EQ(handler.types(), std::vector<int>{98});
    EXPECT_EQ(handler.queueLength(), 1);

    // The next request starts a fresh worker; the forced one replaces the waiting request.
    EXPECT_EQ(handler.requestSync(99), 0);
    ASSERT_TRUE(eventually([&] { return !handler.isWorkerRunning(); }));
    EXPECT_EQ(handler.types(), (std::vector<int>{98, 99}));
}

TEST_F(BaseSyncHandlerTest, DestroyingAHandlerWithABusyWorkerStopsItCooperativelyThreaded) {
    RecordingHost host;
    std::mutex ranMutex;
    std::vector<int> ran;
    std::atomic<bool> entered{false};
    auto handler = std::make_unique<ScriptedHandler>(&host, 3, 2);
    ScriptedHandler* raw = handler.get();
    handler->hook = [&](int type) {
        {
            std::lock_guard<std::mutex> guard(ranMutex);
            ran.push_back(type);
        }
        entered = true;
        // A long collection that polls for interruption, as the collectors do.
        while (!raw->interrupted())
            std::this_thread::yield();
    };
    handler->requestSync(98);
    ASSERT_TRUE(eventually([&] { return entered.load(); }));
    handler->requestSync(98);  // queued behind the running one
    handler.reset();           // asks the worker to stop, joins it; the queued request is dropped
    std::lock_guard<std::mutex> guard(ranMutex);
    EXPECT_EQ(ran, std::vector<int>{98});
    EXPECT_TRUE(log_.hasMessage("worker stopped"));
}
