#include "TerminatingTimer.h"

#include <pelio/platform/ServiceApp.h>

#include "LifecycleHooks.h"
#include "PelioLog.h"
#include "utils/MainLoopOnly.h"

using pelio::platform::TimerAction;

namespace {

TimerAction __app_terminating_timer_end_cb(TerminatingTimer& self, int& refreshCount,
                                           const std::function<bool()>& syncInProgress,
                                           const std::function<void()>& terminatePath) {
    (void)self;
    LOGD("__app_terminating_timer_end_cb");
    if (syncInProgress()) {
        if (refreshCount <= TerminatingTimer::kMaxRefreshes) {
            ++refreshCount;
            LOGI("It still on syncing. timer has been refreshed for [%d] times and renewing",
                 refreshCount);
            return TimerAction::Renew;
        }
        LOGI(
            "It still on syncing. but it reaches for 50 times try to wait for sync done but it's "
            "not. I'm killin it");
    }
    terminatePath();
    pelio::platform::serviceApp().exit();
    return TimerAction::Cancel;
}

}  // namespace

TerminatingTimer& TerminatingTimer::getInstance() {
    static TerminatingTimer instance;
    return instance;
}

TerminatingTimer::TerminatingTimer() {
    setHooks(nullptr, nullptr);
}

void TerminatingTimer::setHooks(std::function<bool()> syncInProgress,
                                std::function<void()> terminatePath) {
    syncInProgress_ =
        syncInProgress ? std::move(syncInProgress) : [] { return isSyncManagerSyncing(); };
    terminatePath_ = terminatePath ? std::move(terminatePath) : [] { destroySyncManager(); };
}

void TerminatingTimer::start() {
    expectMainLoop("TerminatingTimer::start");
    timer_.reset();
    refreshCount_ = 0;
    timer_ = pelio::platform::timers().addRepeating(kPeriodSeconds, [this] { return tick(); });
    if (!timer_)
        LOGE("terminating timer could not be created");
}

void TerminatingTimer::deleteTimer() {
    expectMainLoop("TerminatingTimer::deleteTimer");
    timer_.reset();
}

TimerAction TerminatingTimer::tick() {
    return __app_terminating_timer_end_cb(*this, refreshCount_, syncInProgress_, terminatePath_);
}

void startTerminatingTimer() {
    TerminatingTimer::getInstance().start();
}

void deleteTerminatingTimer() {
    TerminatingTimer::getInstance().deleteTimer();
}
