// Application manager: whether an application runs, and its state.
//
// Linux: an application is running when its bus name (its id) has an owner on the session bus;
// its state is the State property of its application object. Blocking calls, safe from any
// thread (they use their own bus connection).
#pragma once

#include <memory>
#include <string>

namespace pelio::platform {

enum AppManagerError {
    APP_MANAGER_ERROR_NONE = 0,
    APP_MANAGER_ERROR_INVALID_PARAMETER = -22,
    APP_MANAGER_ERROR_NO_SUCH_APP = -0x01110000 | 0x01,
    APP_MANAGER_ERROR_IO_ERROR = -5,
};

enum AppState {
    APP_STATE_UNDEFINED = 0,
    APP_STATE_FOREGROUND = 1,
    APP_STATE_BACKGROUND = 2,
};

// The running instance of an application.
struct AppContext {
    std::string appId;
};

class AppManager {
  public:
    virtual ~AppManager() = default;
    virtual int isRunning(const std::string& appId, bool& running) = 0;
    // APP_MANAGER_ERROR_NO_SUCH_APP when the application does not run.
    virtual int getAppContext(const std::string& appId, std::unique_ptr<AppContext>& context) = 0;
    // One of AppState.
    virtual int getAppState(const AppContext& context, int& state) = 0;
};

AppManager& appManager();
void installAppManager(std::unique_ptr<AppManager> impl);

}  // namespace pelio::platform
