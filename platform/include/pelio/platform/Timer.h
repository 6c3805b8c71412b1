// Repeating main-loop timers.
//
// A timer's tick returns TimerAction::Renew to keep it running or TimerAction::Cancel to end it.
// The Timer object is the handle: destroying it deletes a timer that is still running; a timer
// that cancelled itself stays a valid (inactive) handle. Timers are created, ticked and destroyed
// on the main loop thread. Linux: Ecore timers. Tests install a manual double that ticks on demand.
#pragma once

#include <functional>
#include <memory>

namespace pelio::platform {

enum class TimerAction { Renew, Cancel };

class Timer {
  public:
    virtual ~Timer() = default;
    // False once the timer cancelled itself.
    virtual bool active() const = 0;
};

class TimerFactory {
  public:
    virtual ~TimerFactory() = default;
    // A repeating timer with the given period in seconds; nullptr when it cannot be created.
    virtual std::unique_ptr<Timer> addRepeating(double seconds,
                                                std::function<TimerAction()> tick) = 0;
};

TimerFactory& timers();
void installTimers(std::unique_ptr<TimerFactory> impl);

}  // namespace pelio::platform
