#include <gtest/gtest.h>

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
using namespace pelio::test;

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

    static constexpr const char* kKillLine =
        "It still on syncing. but it reaches for 50 times try to wait for sync done but it's not. "
        "I'm killin it";

    Installed<FakeServiceApp, &pp::installServiceApp> app_;
    Installed<ManualTimers, &pp::installTimers> timers_;
    bool syncing_ = true;
    int terminated_ = 0;
};

TEST_F(TerminatingTimerTest, RestartCountsFromZeroAndASyncThatNeverEndsIsKilledAtTick52) {
    LogCapture log;
    startTerminatingTimer();
    for (int i = 0; i < 30; ++i)
        ASSERT_TRUE(timers_->tickLatest());
    EXPECT_EQ(TerminatingTimer::getInstance().refreshCount(), 30);

    startTerminatingTimer();  // a second APPLICATION_TERMINATING
    ASSERT_EQ(timers_->created.size(), 2u);
    EXPECT_TRUE(timers_->created[0]->deleted);
    EXPECT_DOUBLE_EQ(timers_->created[1]->seconds, 10.0);
    EXPECT_EQ(TerminatingTimer::getInstance().refreshCount(), 0);
    for (int tick = 1; tick <= 51; ++tick) {
        ASSERT_TRUE(timers_->tickLatest());
        EXPECT_TRUE(timers_->created[1]->active) << "tick " << tick;
        EXPECT_EQ(TerminatingTimer::getInstance().refreshCount(), tick);
    }
    EXPECT_EQ(app_->exitCount + terminated_, 0);
    EXPECT_FALSE(log.hasMessage(kKillLine));

    ASSERT_TRUE(timers_->tickLatest());  // the 52nd tick gives up
    EXPECT_TRUE(log.hasMessage(pp::DLOG_INFO, kKillLine));
    EXPECT_FALSE(timers_->created[1]->active);
    EXPECT_EQ(std::pair(app_->exitCount, terminated_), std::pair(1, 1));
    // The handle stays stored after the timer cancelled itself; only deleteTimer clears it.
    EXPECT_TRUE(TerminatingTimer::getInstance().hasTimer());
    EXPECT_FALSE(TerminatingTimer::getInstance().running());
    TerminatingTimer::getInstance().deleteTimer();
    EXPECT_FALSE(TerminatingTimer::getInstance().hasTimer());
}

TEST_F(TerminatingTimerTest, SyncEndExitsAtTheNextTickWithoutTheKillLine) {
    LogCapture log;
    startTerminatingTimer();
    ASSERT_TRUE(timers_->tickLatest());
    syncing_ = false;
    ASSERT_TRUE(timers_->tickLatest());
    EXPECT_FALSE(log.hasMessage(kKillLine));
    EXPECT_EQ(std::pair(app_->exitCount, terminated_), std::pair(1, 1));
    EXPECT_FALSE(timers_->created[0]->active);
    EXPECT_FALSE(timers_->tickLatest());  // cancelled: no further ticks
}

TEST_F(TerminatingTimerTest, DefaultHooksFindNoSyncAndExitOnFirstTick) {
    // The default terminate path obtains the sync manager (creating it) before destroying it:
    // keep that in a throw-away home, with the contacts service replaced by its double.
    pelio::test::TempHome home;
    Installed<FakeContactsService, &pp::installContactsService> contacts;
    Installed<FakePackageManager, &pp::installPackageManager> packages;
    Installed<FakeSystemSettings, &pp::installSystemSettings> settings;
    TerminatingTimer::getInstance().setHooks(nullptr, nullptr);
    startTerminatingTimer();
    ASSERT_TRUE(timers_->tickLatest());
    EXPECT_EQ(app_->exitCount, 1);
    deleteTerminatingTimer();
    EXPECT_TRUE(timers_->created[0]->deleted);
    DbManager::resetInstanceForTesting();
}

}  // namespace
