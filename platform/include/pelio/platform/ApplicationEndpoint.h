// An application's presence on the session bus (Linux): owns the bus name equal to the
// application id and exports com.quorvin.platform.Application at applicationObjectPath(id).
//
// Each Launch call becomes an incoming AppControl handed to the launch handler; when the handler
// returns, the caller gets (true, result, extras) if the handler replied with
// replyToLaunchRequest, otherwise (false, -1, {}). State is read-only for callers.
// Main loop thread only (inside a MainLoopScope). Used by the service application and by tools
// that play another application.
#pragma once

#include <functional>
#include <memory>
#include <string>

#include "pelio/platform/AppControl.h"

namespace pelio::platform {

class ApplicationEndpoint {
  public:
    using LaunchHandler = std::function<void(const AppControl& request)>;
    // Called once with true when the name is ours, false when it is not (owned elsewhere, no bus).
    using NameHandler = std::function<void(bool owned)>;

    ApplicationEndpoint(std::string appId, int state, LaunchHandler onLaunch);
    ~ApplicationEndpoint();
    ApplicationEndpoint(const ApplicationEndpoint&) = delete;
    ApplicationEndpoint& operator=(const ApplicationEndpoint&) = delete;

    // Exports the object and asks for the name; false when there is no session bus.
    bool start(NameHandler onName);
    // Gives the bus name up at once (the object stays exported until destruction), so that the
    // next request to the application starts a new instance instead of reaching one that ends.
    void releaseName();
    void setState(int state);
    int state() const;

  private:
    struct Impl;
    std::unique_ptr<Impl> impl_;
};

}  // namespace pelio::platform
