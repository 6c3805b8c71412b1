
#include <atomic>
#include <stdexcept>
#include <thread>

#include "SyncHandlers/BaseSyncHandler.h"
#include "SyncHandlers/ContactGroupsSyncHandler.h"
#include "SyncHandlers/MyplaceSyncHandler.h"
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

TEST(FixedWidthIdTest, FormatsPadsOverwritesPrefixRefusesTooLongIdsAndDecodes) {
    EXPECT_EQ(BaseSyncHandler::formatFixedWidthId("con_", "57", 12), "con_00000057");
    EXPECT_EQ(BaseSyncHandler::formatFixedWidthId("con_", "12345678", 12), "con_12345678");
    // Longer than the digits behind the prefix: the id eats into the prefix.
    EXPECT_EQ(BaseSyncHandler::formatFixedWidthId("con_", "1234567890", 12), "co1234567890");
    EXPECT_EQ(BaseSyncHandler::formatFixedWidthId("apl_", "7", 8), "apl_0007");
    EXPECT_THROW(BaseSyncHandler::formatFixedWidthId("con_", "1234567890123", 12),
                 std::logic_error);
    // Decoding inverts the formatter for ids of up to eight digits.
    for (const char* id : {"1", "7", "10", "57", "100", "1000001", "10000000", "99999999"}) {
        const std::string doc = BaseSyncHandler::formatFixedWidthId("con_", id, 12);
        EXPECT_EQ(BaseSyncHandler::decodeDocumentId(doc), id) << doc;
    }
    EXPECT_EQ(BaseSyncHandler::decodeDocumentId("aud_0000203"), "203");
    for (const char* empty : {"con_00000000", "con_", ""})
        EXPECT_EQ(BaseSyncHandler::decodeDocumentId(empty), "") << empty;
}

TEST_F(BaseSyncHandlerTest, QueueHoldsOneRequestAndForcedReplacesDifferenceThreaded) {
    RecordingHost host;
    ScriptedHandler handler(&host, 3, 2);
    // Types below one are refused without queueing or starting a worker.
    EXPECT_EQ(handler.requestSync(0), -1);
    EXPECT_EQ(handler.requestSync(-5), -1);
    EXPECT_EQ(log_.count("Unknown sync type"), 2);
    EXPECT_FALSE(handler.isWorkerRunning());

    std::unique_lock<std::mutex> domain(host.domainLock);  // the worker will wait for it
    EXPECT_EQ(handler.requestSync(98), 0);  // starts the worker, which takes this request
    ASSERT_TRUE(eventually([&] { return handler.queueLength() == 0; }));
    for (int i = 0; i < 3; ++i)
        EXPECT_EQ(handler.requestSync(98), -1);
    EXPECT_EQ(handler.queueLength(), 1);
    EXPECT_FALSE(handler.isForcedPending());
    EXPECT_EQ(handler.requestSync(99), -1);
    EXPECT_EQ(handler.queueLength(), 1);
    EXPECT_TRUE(handler.isForcedPending());
    // A difference request does not displace a pending forced one.
    EXPECT_EQ(handler.requestSync(98), -1);
    EXPECT_TRUE(handler.isForcedPending());

    domain.unlock();
    ASSERT_TRUE(eventually([&] { return !handler.isWorkerRunning(); }));
    EXPECT_EQ(handler.types(), (std::vector<int>{98, 99}));
    EXPECT_EQ(handler.queueLength(), 0);
}

TEST_F(BaseSyncHandlerTest, ResultsDecideStatusAndUploadThreaded) {
    struct Case {
        int domain;
        int result;
        const char* key;  // the status set to "0", null: none
        bool queued;
    };
    for (const Case& c :
         {Case{3, 0, "CONTACTS_SYNC_STATUS_P", true}, Case{1, 0, "APP_SYNC_STATUS_P", true},
          Case{2, 0, "MEDIA_SYNC_STATUS_P", true},
          Case{11, 0, nullptr, true},  // no status key: still uploaded
          Case{3, 2, nullptr, false}, Case{3, 1, nullptr, false}, Case{3, -1, nullptr, false}}) {
        SCOPED_TRACE(std::to_string(c.domain) + "/" + std::to_string(c.result));
        log_.clear();
        RecordingHost host;
        ScriptedHandler handler(&host, c.domain, c.result);
        EXPECT_EQ(handler.requestSync(c.domain == 3 ? 98 : 99), 0);
        ASSERT_TRUE(eventually([&] { return !handler.isWorkerRunning(); }));
        using Calls = std::vector<std::pair<std::string, std::string>>;
        EXPECT_EQ(host.statusCalls(), (c.key ? Calls{{c.key, "0"}} : Calls{}));
        EXPECT_EQ(host.queuedItems(), (c.queued ? std::vector<int>{c.domain} : std::vector<int>{}));
        EXPECT_EQ(log_.hasMessage("Sync failed for domain[3]"), c.result == 1 || c.result == -1);
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
    std::atomic<int> runs{0};
    auto handler = std::make_unique<ScriptedHandler>(&host, 3, 2);
    ScriptedHandler* raw = handler.get();
    handler->hook = [&](int) {
        ++runs;
        // A long collection that polls for interruption, as the collectors do.
        while (!raw->interrupted())
            std::this_thread::yield();
    };
    handler->requestSync(98);
    ASSERT_TRUE(eventually([&] { return runs.load() == 1; }));
    handler->requestSync(98);  // queued behind the running one
    handler.reset();           // asks the worker to stop, joins it; the queued request is dropped
    EXPECT_EQ(runs.load(), 1);
}

TEST_F(BaseSyncHandlerTest, MinorHandlersSucceedWithoutCollecting) {
    RecordingHost host;
    ContactGroupsSyncHandler groups(&host);
    EXPECT_EQ(groups.syncData(98), 0);
    MyplaceSyncHandler places;
    EXPECT_EQ(places.syncData(), 0);
    EXPECT_TRUE(query("SELECT * FROM contacts").empty());
    EXPECT_TRUE(host.queuedItems().empty());
}
