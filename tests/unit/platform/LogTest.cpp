#include <gtest/gtest.h>

#include <unistd.h>

#include <cstdio>
#include <fstream>
#include <string>
#include <thread>
#include <vector>

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

// Standard error receives every line once, each thread's lines in their order, and a warning is
// out, with all lines before it, when its call returns.
TEST(Log, ThreadedStderrLinesLeaveInOrderAndWarningsAtOnce) {
    char path[] = "/tmp/pelio-log-XXXXXX";
    const int file = mkstemp(path);
    ASSERT_GE(file, 0);
    const int saved = dup(STDERR_FILENO);
    dup2(file, STDERR_FILENO);
    auto readBack = [&path] {
        std::ifstream in(path);
        std::vector<std::string> lines;
        for (std::string line; std::getline(in, line);)
            lines.push_back(line);
        return lines;
    };
    dlog_print(pelio::platform::DLOG_DEBUG, "T", "before the warning");
    dlog_print(pelio::platform::DLOG_WARN, "T", "the warning");
    const auto atWarning = readBack();
    std::vector<std::thread> threads;
    for (int t = 0; t < 3; ++t)
        threads.emplace_back([t] {
            for (int i = 0; i < 300; ++i)
                dlog_print(pelio::platform::DLOG_DEBUG, "T", "writer %d line %d", t, i);
        });
    for (auto& th : threads)
        th.join();
    pelio::platform::flushLog();
    const auto all = readBack();
    dup2(saved, STDERR_FILENO);
    close(saved);
    close(file);
    unlink(path);

    ASSERT_EQ(atWarning.size(), 2u);
    EXPECT_NE(atWarning[0].find("D/T("), std::string::npos);
    EXPECT_NE(atWarning[0].find("): before the warning"), std::string::npos);
    EXPECT_NE(atWarning[1].find("W/T("), std::string::npos);
    ASSERT_EQ(all.size(), 2u + 900u);
    int next[3] = {0, 0, 0};
    for (size_t i = 2; i < all.size(); ++i) {
        int t = -1, n = -1;
        const size_t at = all[i].find("writer ");
        ASSERT_NE(at, std::string::npos) << all[i];
        ASSERT_EQ(std::sscanf(all[i].c_str() + at, "writer %d line %d", &t, &n), 2) << all[i];
        ASSERT_TRUE(t >= 0 && t < 3);
        EXPECT_EQ(n, next[t]++) << all[i];
    }
}
