// In-memory doubles of the application-side platform modules: service application, timers,
// application manager, app-control sending and system settings. Single-threaded test use, except
// FakeAppControlService and FakeAppManager, which lock.
#pragma once

#include <pelio/platform/AppControl.h>
#include <pelio/platform/AppManager.h>
#include <pelio/platform/ServiceApp.h>
#include <pelio/platform/SystemSettings.h>
#include <pelio/platform/Timer.h>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

namespace pelio::test {

// Counts exit requests; the service main loop and its event handlers are not run in unit tests.
class FakeServiceApp : public pelio::platform::ServiceApp {
  public:
    int main(int, char**, const pelio::platform::ServiceAppLifecycleCallbacks&, void*) override {
        return pelio::platform::APP_ERROR_NONE;
    }
    int addEventHandler(pelio::platform::AppEventType, pelio::platform::AppEventCallback, void*,
                        pelio::platform::AppEventHandlerId&) override {
        return pelio::platform::APP_ERROR_NONE;
    }
    int removeEventHandler(pelio::platform::AppEventHandlerId) override {
        return pelio::platform::APP_ERROR_NONE;
    }
    void exit() override { ++exitCount; }
    int exitCount = 0;
};

// Timers that tick only when the test says so.
class ManualTimers : public pelio::platform::TimerFactory {
  public:
    struct State {
        double seconds = 0;
        std::function<pelio::platform::TimerAction()> tick;
        bool active = true;
        bool deleted = false;
    };
    std::unique_ptr<pelio::platform::Timer> addRepeating(
        double seconds, std::function<pelio::platform::TimerAction()> tick) override {
        created.push_back(std::make_shared<State>(State{seconds, std::move(tick)}));
        return std::make_unique<Handle>(created.back());
    }

    // Ticks the newest timer once; false when it is not active.
    bool tickLatest() {
        if (created.empty() || !created.back()->active || created.back()->deleted)
            return false;
        auto state = created.back();
        if (state->tick() == pelio::platform::TimerAction::Cancel)
            state->active = false;
        return true;
    }
    std::vector<std::shared_ptr<State>> created;

  private:
    class Handle : public pelio::platform::Timer {
      public:
        explicit Handle(std::shared_ptr<State> s) : state_(std::move(s)) {}
        ~Handle() override { state_->deleted = true; }
        bool active() const override { return state_->active; }

      private:
        std::shared_ptr<State> state_;
    };
};

// Applications with a set running flag and state; counts how often each call failed.
class FakeAppManager : public pelio::platform::AppManager {
  public:
    int isRunning(const std::string& appId, bool& running) override {
        std::lock_guard<std::mutex> guard(mutex_);
        if (failIsRunning)
            return failIsRunning;
        running = apps_.count(appId) && apps_[appId].first;
        return pelio::platform::APP_MANAGER_ERROR_NONE;
    }
    int getAppContext(const std::string& appId,
                      std::unique_ptr<pelio::platform::AppContext>& context) override {
        std::lock_guard<std::mutex> guard(mutex_);
        if (!apps_.count(appId) || !apps_[appId].first)
            return pelio::platform::APP_MANAGER_ERROR_NO_SUCH_APP;
        context = std::make_unique<pelio::platform::AppContext>(pelio::platform::AppContext{appId});
        return pelio::platform::APP_MANAGER_ERROR_NONE;
    }
    int getAppState(const pelio::platform::AppContext& context, int& state) override {
        std::lock_guard<std::mutex> guard(mutex_);
        if (!apps_.count(context.appId) || !apps_[context.appId].first)
            return pelio::platform::APP_MANAGER_ERROR_NO_SUCH_APP;
        state = apps_[context.appId].second;
        return pelio::platform::APP_MANAGER_ERROR_NONE;
    }

    void setApp(const std::string& appId, bool running, int state) {
        std::lock_guard<std::mutex> guard(mutex_);
        apps_[appId] = {running, state};
    }
    int failIsRunning = 0;  // error code returned by isRunning when non-zero

  private:
    std::mutex mutex_;
    std::map<std::string, std::pair<bool, int>> apps_;
};

// Records every launch request sent.
class FakeAppControlService : public pelio::platform::AppControlService {
  public:
    int sendLaunchRequest(const pelio::platform::AppControl& request,
                          pelio::platform::LaunchReplyCallback onReply) override {
        if (request.appId().empty())
            return pelio::platform::APP_CONTROL_ERROR_INVALID_PARAMETER;
        {
            std::lock_guard<std::mutex> guard(mutex_);
            sent_.push_back(request);
        }
        if (onReply)
            onReply(pelio::platform::LaunchOutcome{true, "", {}});
        return pelio::platform::APP_CONTROL_ERROR_NONE;
    }
    std::vector<pelio::platform::AppControl> sent() const {
        std::lock_guard<std::mutex> guard(mutex_);
        return sent_;
    }

  private:
    mutable std::mutex mutex_;
    std::vector<pelio::platform::AppControl> sent_;
};

}  // namespace pelio::test
