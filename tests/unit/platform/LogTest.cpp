#include <gtest/gtest.h>

#include <thread>

#include "PelioLog.h"
#include "support/LogCapture.h"

using pelio::test::LogCapture;

TEST(Log, ServiceMacrosWriteTheFixedPrefixAndPriorityAndATagIsNeeded) {
    LogCapture capture;
    const int line = __LINE__ + 1;
    LOGW("value[%d]", 7);
    LOGE("plain\n");  // the trailing newline is dropped
    auto lines = capture.lines();
    ASSERT_EQ(lines.size(), 2u);
    EXPECT_EQ(lines[0].priority, pelio::platform::DLOG_WARN);
    EXPECT_EQ(lines[0].tag, "PelioService");
    EXPECT_EQ(lines[0].message, "LogTest.cpp: TestBody(" + std::to_string(line) + ") > value[7]");
    EXPECT_TRUE(capture.hasMessage(pelio::platform::DLOG_ERROR, "plain"));
    EXPECT_FALSE(capture.hasMessage(pelio::platform::DLOG_INFO, "plain"));
    EXPECT_EQ(dlog_print(pelio::platform::DLOG_INFO, nullptr, "x"), -1);
}

TEST(Log, ThreadedWritersNeverLoseLines) {
    LogCapture capture;
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t)
        threads.emplace_back([] {
            for (int i = 0; i < 200; ++i)
                LOGD("tick");
        });
    for (auto& th : threads)
        th.join();
    EXPECT_EQ(capture.count("tick"), 800);
}
