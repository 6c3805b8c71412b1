#include <gtest/gtest.h>
#include <unistd.h>

#include <thread>

#include "PelioLog.h"
#include "support/LogCapture.h"

using pelio::test::LogCapture;

TEST(Log, ServiceMacrosWriteTheFixedPrefixAndPriority) {
    LogCapture capture;
    const int line = __LINE__ + 1;
    LOGW("value[%d]", 7);
    LOGE("plain");
    auto lines = capture.lines();
    ASSERT_EQ(lines.size(), 2u);
    EXPECT_EQ(lines[0].priority, pelio::platform::DLOG_WARN);
    EXPECT_EQ(lines[0].tag, "PelioService");
    EXPECT_EQ(lines[0].message, "LogTest.cpp: TestBody(" + std::to_string(line) + ") > value[7]");
    EXPECT_TRUE(capture.hasMessage(pelio::platform::DLOG_ERROR, "plain"));
    EXPECT_FALSE(capture.hasMessage(pelio::platform::DLOG_INFO, "plain"));
}

TEST(Log, StderrLineFormatAndBadArguments) {
    // The stderr copy is "<letter>/<tag>(<pid>): <message>".
    int fds[2];
    ASSERT_EQ(pipe(fds), 0);
    const int saved = dup(2);
    dup2(fds[1], 2);
    dlog_print(pelio::platform::DLOG_INFO, "PelioService", "x: f(1) > hello %s\n", "there");
    fflush(stderr);
    dup2(saved, 2);
    close(saved);
    close(fds[1]);
    char buf[256] = {};
    const ssize_t n = read(fds[0], buf, sizeof(buf) - 1);
    close(fds[0]);
    ASSERT_GT(n, 0);
    EXPECT_EQ(std::string(buf),
              "I/PelioService(" + std::to_string(getpid()) + "): x: f(1) > hello there\n");
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
