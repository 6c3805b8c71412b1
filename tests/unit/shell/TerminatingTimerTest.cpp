#include <gtest/gtest.h>

#include <string>

#include <pelio/platform/Contacts.h>

#include "TerminatingTimer.h"
#include "database/DbManager.h"
#include "doubles/FakeContactsService.h"
#include "doubles/FakePackageManager.h"
#include "doubles/FakePlatformApp.h"
#include "doubles/FakeSystemSettings.h"
#include "support/Installed.h"
#include "support/LogCapture.h"
#include "support/TempHome.h"

namespace pp = pelio::platform;
using pelio::test::FakeServiceApp;
using pelio::test::LogCapture;
using pelio::test::ManualTimers;

namespace {

class TerminatingTimerTest : public ::testing::Test {
  protected:
    void SetUp() override {
        TerminatingTimer::getInstance().setHooks([this] { return syncing_; },
                                                 [this] { ++terminated_; });
    }
    void TearDown() override {
        TerminatingTimer::getInstance().deleteTimer();
        TerminatingTimer::getInstance().setHooks(nullptr, nullptr);
    }

    static std::string renewLine(int n) {
        return "It still on syncing. timer has been refreshed for [" + std::to_string(n) +
               "] times and renewing";
    }
    static constexpr const char* kKillLine =
        "It still on syncing. but it reaches for 50 times try to wait for sync done but it's not. "
        "I'm killin it";

    pelio::test::Installed<FakeServiceApp, &pp::installServiceApp> app_;
    pelio::test::Installed<ManualTimers, &pp::installTimers> timers_;
    bool syncing_ = true;
    int terminated_ = 0;
};

TEST_F(TerminatingTimerTest, SyncThatNeverEndsRenewsFiftyOneTimesThenForcesExit) {
    LogCapture log;
    startTerminatingTimer();
    ASSERT_EQ(timers_->created.size(), 1u);
    EXPECT_DOUBLE_EQ(timers_->created[0]->seconds, 10.0);

    for (int tick = 1; tick <= 51; ++tick) {
        ASSERT_TRUE(timers_->tickLatest());
        EXPECT_TRUE(timers_->created[0]->active) << "tick " << tick;
        EXPECT_EQ(TerminatingTimer::getInstance().refreshCount(), tick);
    }
    for (int n = 1; n <= 51; ++n)
        EXPECT_EQ(log.count(renewLine(n)), 1) << n;
    EXPECT_EQ(log.count(renewLine(52)), 0);
    EXPECT_EQ(app_->exitCount, 0);
    EXPECT_EQ(terminated_, 0);
    EXPECT_FALSE(log.hasMessage(kKillLine));

    ASSERT_TRUE(timers_->tickLatest());  // the 52nd tick gives up
    EXPECT_TRUE(log.hasMessage(pp::DLOG_INFO, kKillLine));
    EXPECT_FALSE(timers_->created[0]->active);
    EXPECT_EQ(app_->exitCount, 1);
    EXPECT_EQ(terminated_, 1);
    EXPECT_EQ(log.count("__app_terminating_timer_end_cb"), 52);
    // The handle stays stored after the timer cancelled itself; only deleteTimer clears it.
    EXPECT_TRUE(TerminatingTimer::getInstance().hasTimer());
    EXPECT_FALSE(TerminatingTimer::getInstance().running());
    TerminatingTimer::getInstance().deleteTimer();
    EXPECT_FALSE(TerminatingTimer::getInstance().hasTimer());
}

TEST_F(TerminatingTimerTest, RestartDeletesOldTimerAndCountsFromZeroAndSyncEndExitsAtOnce) {
    LogCapture log;
    startTerminatingTimer();
    for (int i = 0; i < 30; ++i)
        ASSERT_TRUE(timers_->tickLatest());
    EXPECT_EQ(TerminatingTimer::getInstance().refreshCount(), 30);

    startTerminatingTimer();  // a second APPLICATION_TERMINATING
    ASSERT_EQ(timers_->created.size(), 2u);
    EXPECT_TRUE(timers_->created[0]->deleted);
    EXPECT_EQ(TerminatingTimer::getInstance().refreshCount(), 0);
    log.clear();
    for (int i = 0; i < 51; ++i)
        ASSERT_TRUE(timers_->tickLatest());
    EXPECT_EQ(log.count(renewLine(51)), 1);
    EXPECT_EQ(app_->exitCount, 0);

    // The sync ends: the next tick runs the terminate path and exits without the kill line.
    syncing_ = false;
    ASSERT_TRUE(timers_->tickLatest());
    EXPECT_FALSE(log.hasMessage(kKillLine));
    EXPECT_EQ(terminated_, 1);
    EXPECT_EQ(app_->exitCount, 1);
    EXPECT_FALSE(timers_->created[1]->active);
    EXPECT_FALSE(timers_->tickLatest());  // cancelled: no further ticks
}

TEST_F(TerminatingTimerTest, DefaultHooksFindNoSyncAndExitOnFirstTick) {
    // The default terminate path obtains the sync manager (creating it) before destroying it:
    // keep that in a throw-away home, with the contacts service replaced by its double.
    pelio::test::TempHome home;
    pelio::platform::installContactsService(std::make_unique<pelio::test::FakeContactsService>());
    pelio::platform::installPackageManager(std::make_unique<pelio::test::FakePackageManager>());
    pelio::platform::installSystemSettings(std::make_unique<pelio::test::FakeSystemSettings>());
    TerminatingTimer::getInstance().setHooks(nullptr, nullptr);
    LogCapture log;
    startTerminatingTimer();
    ASSERT_TRUE(timers_->tickLatest());
    EXPECT_EQ(app_->exitCount, 1);
    EXPECT_EQ(log.count("__app_terminating_timer_end_cb"), 1);
    deleteTerminatingTimer();
    EXPECT_TRUE(timers_->created[0]->deleted);
    pelio::platform::installSystemSettings(nullptr);
    pelio::platform::installPackageManager(nullptr);
    pelio::platform::installContactsService(nullptr);
    DbManager::resetInstanceForTesting();
}

}  // namespace
