#include "doubles/FakePlatformApp.h"

namespace pelio::test {

namespace pp = pelio::platform;

namespace {
class ManualTimer : public pp::Timer {
  public:
    explicit ManualTimer(std::shared_ptr<ManualTimers::State> s) : state_(std::move(s)) {}
    ~ManualTimer() override { state_->deleted = true; }
    bool active() const override { return state_->active; }

  private:
    std::shared_ptr<ManualTimers::State> state_;
};
}  // namespace

std::unique_ptr<pp::Timer> ManualTimers::addRepeating(double seconds,
                                                      std::function<pp::TimerAction()> tick) {
    auto state = std::make_shared<State>();
    state->seconds = seconds;
    state->tick = std::move(tick);
    created.push_back(state);
    return std::make_unique<ManualTimer>(state);
}

bool ManualTimers::tickLatest() {
    if (created.empty())
        return false;
    auto state = created.back();
    if (!state->active || state->deleted)
        return false;
    if (state->tick() == pp::TimerAction::Cancel)
        state->active = false;
    return true;
}

int FakeAppManager::isRunning(const std::string& appId, bool& running) {
    std::lock_guard<std::mutex> guard(mutex_);
    if (failIsRunning)
        return failIsRunning;
    auto it = apps_.find(appId);
    running = it != apps_.end() && it->second.first;
    return pp::APP_MANAGER_ERROR_NONE;
}

int FakeAppManager::getAppContext(const std::string& appId,
                                  std::unique_ptr<pp::AppContext>& context) {
    std::lock_guard<std::mutex> guard(mutex_);
    auto it = apps_.find(appId);
    if (it == apps_.end() || !it->second.first)
        return pp::APP_MANAGER_ERROR_NO_SUCH_APP;
    context = std::make_unique<pp::AppContext>(pp::AppContext{appId});
    return pp::APP_MANAGER_ERROR_NONE;
}

int FakeAppManager::getAppState(const pp::AppContext& context, int& state) {
    std::lock_guard<std::mutex> guard(mutex_);
    auto it = apps_.find(context.appId);
    if (it == apps_.end() || !it->second.first)
        return pp::APP_MANAGER_ERROR_NO_SUCH_APP;
    state = it->second.second;
    return pp::APP_MANAGER_ERROR_NONE;
}

void FakeAppManager::setApp(const std::string& appId, bool running, int state) {
    std::lock_guard<std::mutex> guard(mutex_);
    apps_[appId] = {running, state};
}

int FakeAppControlService::sendLaunchRequest(const pp::AppControl& request,
                                             pp::LaunchReplyCallback onReply) {
    if (request.appId().empty())
        return pp::APP_CONTROL_ERROR_INVALID_PARAMETER;
    {
        std::lock_guard<std::mutex> guard(mutex_);
        sent_.push_back(request);
    }
    if (onReply)
        onReply(pp::LaunchOutcome{true, "", {}});
    return pp::APP_CONTROL_ERROR_NONE;
}

std::vector<pp::AppControl> FakeAppControlService::sent() const {
    std::lock_guard<std::mutex> guard(mutex_);
    return sent_;
}

}  // namespace pelio::test
