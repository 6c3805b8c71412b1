// The terminating timer: after an APPLICATION_TERMINATING request that found a sync in progress,
// waits for the sync to end, ticking every 10 seconds, and forces the service down when it does
// not end.
//
// Each tick logs "__app_terminating_timer_end_cb". While a sync is in progress the timer renews
// itself as long as its refresh counter was at most 50 before the tick (so 51 renewals), logging
// the incremented count; the 52nd such tick gives up. A tick that finds no sync in progress, or
// gives up, runs the terminate path (destroySyncManager), requests the service's exit and cancels
// the timer. The handle stays stored after that cancellation; only deleteTimer() clears it.
//
// One process-wide instance, main loop thread only. Timers come from pelio::platform::timers(),
// the exit request goes to pelio::platform::serviceApp().
#pragma once

#include <pelio/platform/Timer.h>
#include <functional>
#include <memory>

class TerminatingTimer {
  public:
    static constexpr double kPeriodSeconds = 10.0;
    static constexpr int kMaxRefreshes = 50;  // compared before the increment: 51 renewals

    static TerminatingTimer& getInstance();

    // Deletes a running timer, resets the counter to 0 and starts a new 10-second timer.
    void start();
    // Deletes the timer if one exists and clears the handle ("Can be killed now").
    void deleteTimer();

    bool hasTimer() const { return timer_ != nullptr; }
    bool running() const { return timer_ && timer_->active(); }
    int refreshCount() const { return refreshCount_; }

    // Tests replace the sync query and the terminate path; empty functions restore the
    // defaults (isSyncManagerSyncing, destroySyncManager).
    void setHooks(std::function<bool()> syncInProgress, std::function<void()> terminatePath);

    // One tick (the timer's callback).
    pelio::platform::TimerAction tick();

  private:
    TerminatingTimer();
    std::unique_ptr<pelio::platform::Timer> timer_;
    int refreshCount_ = 0;
    std::function<bool()> syncInProgress_;
    std::function<void()> terminatePath_;
};

// Entry points for the control-request handler.
void startTerminatingTimer();
void deleteTerminatingTimer();
