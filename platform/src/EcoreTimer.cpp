// Linux timers: repeating Ecore timers on the main loop.
#include <Ecore.h>

#include "pelio/platform/Slot.h"
#include "pelio/platform/Timer.h"

namespace pelio::platform {
namespace {

class EcoreTimer : public Timer {
  public:
    explicit EcoreTimer(std::function<TimerAction()> tick) : tick_(std::move(tick)) {}
    ~EcoreTimer() override {
        if (handle_)
            ecore_timer_del(handle_);
    }
    bool start(double seconds) {
        handle_ = ecore_timer_add(seconds, &EcoreTimer::onTick, this);
        return handle_ != nullptr;
    }
    bool active() const override { return handle_ != nullptr; }

  private:
    static Eina_Bool onTick(void* data) {
        auto* self = static_cast<EcoreTimer*>(data);
        if (self->tick_() == TimerAction::Renew)
            return ECORE_CALLBACK_RENEW;
        self->handle_ = nullptr;  // Ecore frees a cancelled timer itself
        return ECORE_CALLBACK_CANCEL;
    }
    std::function<TimerAction()> tick_;
    Ecore_Timer* handle_ = nullptr;
};

class EcoreTimerFactory : public TimerFactory {
  public:
    std::unique_ptr<Timer> addRepeating(double seconds,
                                        std::function<TimerAction()> tick) override {
        auto timer = std::make_unique<EcoreTimer>(std::move(tick));
        if (!timer->start(seconds))
            return nullptr;
        return timer;
    }
};

Slot<TimerFactory>& slot() {
    static Slot<TimerFactory> s([] { return std::make_unique<EcoreTimerFactory>(); });
    return s;
}

}  // namespace

TimerFactory& timers() {
    return slot().get();
}
void installTimers(std::unique_ptr<TimerFactory> impl) {
    slot().install(std::move(impl));
}

}  // namespace pelio::platform
