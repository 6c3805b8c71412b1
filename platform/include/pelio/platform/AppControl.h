// App control: launch requests with string extras between applications, and their replies.
//
// An AppControl is a plain value: target application id, an operation text and ordered string
// extras. A request that arrived from another application also carries the slot its reply goes
// into (replyToLaunchRequest); the platform sends that reply once the app-control callback has
// returned, or tells the caller that there was no reply.
//
// Linux: D-Bus on the session bus. An application owns the bus name equal to its id and exports
// interface com.quorvin.platform.Application at applicationObjectPath(id) with
//   Launch(a{ss} extras) -> (b replied, i result, a{ss} reply_extras)   and property State (i).
// Sending works from any thread (it is queued to the main loop); the reply callback runs on the
// main loop thread.
#pragma once

#include <functional>
#include <memory>
#include <string>
#include <utility>
#include <vector>

namespace pelio::platform {

enum AppControlError {
    APP_CONTROL_ERROR_NONE = 0,
    APP_CONTROL_ERROR_INVALID_PARAMETER = -22,
    APP_CONTROL_ERROR_KEY_NOT_FOUND = -126,
    APP_CONTROL_ERROR_APP_NOT_FOUND = -0x01100000 | 0x21,
    APP_CONTROL_ERROR_LAUNCH_REJECTED = -0x01100000 | 0x22,
    APP_CONTROL_ERROR_LAUNCH_FAILED = -0x01100000 | 0x23,
};

enum AppControlResult {
    APP_CONTROL_RESULT_SUCCEEDED = 0,
    APP_CONTROL_RESULT_FAILED = -1,
};

inline constexpr const char* kApplicationInterface = "com.quorvin.platform.Application";
inline constexpr const char* kSystemObjectPath = "/com/quorvin/platform";
inline constexpr const char* kSystemInterface = "com.quorvin.platform.System";

// "/" + id with '.' -> '/' and '-' -> '_'  ("com.quorvin.plmsvc" -> "/com/quorvin/plmsvc").
std::string applicationObjectPath(const std::string& appId);

using Extras = std::vector<std::pair<std::string, std::string>>;

// What a reply carries; replied is false when the application sent none.
struct LaunchReply {
    bool replied = false;
    int result = APP_CONTROL_RESULT_FAILED;
    Extras extras;
};

class AppControl {
  public:
    AppControl() = default;

    int setAppId(const std::string& appId);
    const std::string& appId() const { return appId_; }
    void setOperation(const std::string& op) { operation_ = op; }
    const std::string& operation() const { return operation_; }

    // An empty key is an invalid parameter; adding a key again replaces its value.
    int addExtraData(const std::string& key, const std::string& value);
    // APP_CONTROL_ERROR_KEY_NOT_FOUND when absent.
    int getExtraData(const std::string& key, std::string& value) const;
    const Extras& extras() const { return extras_; }

    // Requests that arrived from another application: where the reply goes.
    static AppControl incoming(Extras extras);
    bool isLaunchRequest() const { return replySlot_ != nullptr; }
    const LaunchReply* reply() const { return replySlot_.get(); }

  private:
    friend int replyToLaunchRequest(const AppControl&, const AppControl&, int);
    std::string appId_;
    std::string operation_;
    Extras extras_;
    std::shared_ptr<LaunchReply> replySlot_;
};

// Replies to an incoming launch request with result (APP_CONTROL_RESULT_*) and reply's extras.
// Invalid parameter when request did not come from another application or was answered already.
int replyToLaunchRequest(const AppControl& reply, const AppControl& request, int result);

// Outcome of a launch request sent with a reply callback: delivered is false when the target
// could not be reached (error holds the reason); otherwise reply says what it answered.
struct LaunchOutcome {
    bool delivered = false;
    std::string error;
    LaunchReply reply;
};
using LaunchReplyCallback = std::function<void(const LaunchOutcome&)>;

class AppControlService {
  public:
    virtual ~AppControlService() = default;
    // Sends request to request.appId(); onReply (may be empty) runs on the main loop thread.
    // Returns an error for a request without application id or when no main loop exists.
    virtual int sendLaunchRequest(const AppControl& request, LaunchReplyCallback onReply) = 0;
};

AppControlService& appControlService();
void installAppControlService(std::unique_ptr<AppControlService> impl);

}  // namespace pelio::platform
