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
        double seconds, std::function<pelio::platform::TimerAction()> tick) override;

    // Ticks the newest timer once; false when it is not active.
    bool tickLatest();
    std::vector<std::shared_ptr<State>> created;
};

// Applications with a set running flag and state; counts how often each call failed.
class FakeAppManager : public pelio::platform::AppManager {
  public:
    int isRunning(const std::string& appId, bool& running) override;
    int getAppContext(const std::string& appId,
                      std::unique_ptr<pelio::platform::AppContext>& context) override;
    int getAppState(const pelio::platform::AppContext& context, int& state) override;

    void setApp(const std::string& appId, bool running, int state);
    int failIsRunning = 0;  // error code returned by isRunning when non-zero

  private:
    std::mutex mutex_;
    std::map<std::string, std::pair<bool, int>> apps_;
};

// Records every launch request sent.
class FakeAppControlService : public pelio::platform::AppControlService {
  public:
    int sendLaunchRequest(const pelio::platform::AppControl& request,
                          pelio::platform::LaunchReplyCallback onReply) override;
    std::vector<pelio::platform::AppControl> sent() const;

  private:
    mutable std::mutex mutex_;
    std::vector<pelio::platform::AppControl> sent_;
};

}  // namespace pelio::test
