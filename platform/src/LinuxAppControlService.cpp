// Linux launch requests: a Launch call on the target's application object over the session bus.
#include <glib.h>

#include "EldbusHandles.h"
#include "pelio/platform/AppControl.h"
#include "pelio/platform/MainLoop.h"
#include "pelio/platform/Slot.h"

namespace pelio::platform {
namespace {

using namespace detail;

// The target may have to be started first, and services may run in the idle scheduling class:
// wait longer than the bus's default 25 seconds.
constexpr double kLaunchTimeoutMs = 120000;

bool validDbusString(const std::string& s) {
    return s.find('\0') == std::string::npos && g_utf8_validate(s.data(), s.size(), nullptr);
}

struct PendingLaunch {
    LaunchReplyCallback onReply;
};

void onLaunchReply(void* data, const Eldbus_Message* msg, Eldbus_Pending*) {
    std::unique_ptr<PendingLaunch> pending(static_cast<PendingLaunch*>(data));
    if (!pending->onReply)
        return;
    LaunchOutcome outcome;
    const char* errName = nullptr;
    const char* errText = nullptr;
    Eina_Bool replied = EINA_FALSE;
    int result = 0;
    Eldbus_Message_Iter* array = nullptr;
    if (eldbus_message_error_get(msg, &errName, &errText)) {
        outcome.error = std::string(errName ? errName : "error") + ": " + (errText ? errText : "");
    } else if (!eldbus_message_arguments_get(msg, "bia{ss}", &replied, &result, &array)) {
        outcome.error = "unexpected reply signature";
    } else {
        outcome.delivered = true;
        outcome.reply.replied = replied;
        outcome.reply.result = result;
        outcome.reply.extras = readExtras(array);
    }
    pending->onReply(outcome);
}

void sendNow(const AppControl& request, LaunchReplyCallback onReply) {
    auto fail = [&](const char* why) {
        if (onReply)
            onReply(LaunchOutcome{false, why, {}});
    };
    for (const auto& [key, value] : request.extras()) {
        // libdbus aborts the process on invalid strings: refuse them here.
        if (!validDbusString(key) || !validDbusString(value))
            return fail("extras are not valid D-Bus strings (UTF-8 without NUL)");
    }
    Eldbus_Connection* bus = sessionBus();
    if (!bus)
        return fail("no session bus");
    MessagePtr msg(eldbus_message_method_call_new(request.appId().c_str(),
                                                  applicationObjectPath(request.appId()).c_str(),
                                                  kApplicationInterface, "Launch"));
    if (!msg)
        return fail("invalid application id");
    if (!appendExtras(eldbus_message_iter_get(msg.get()), request.extras())) {
        return fail("extras are not valid D-Bus strings (UTF-8 without NUL)");
    }
    auto pending = std::make_unique<PendingLaunch>(PendingLaunch{std::move(onReply)});
    // eldbus_connection_send takes the message reference; the callback owns pending from here.
    if (eldbus_connection_send(bus, msg.release(), &onLaunchReply, pending.get(),
                               kLaunchTimeoutMs)) {
        pending.release();
    } else if (pending->onReply) {
        pending->onReply(LaunchOutcome{false, "send failed", {}});
    }
}

class LinuxAppControlService : public AppControlService {
  public:
    int sendLaunchRequest(const AppControl& request, LaunchReplyCallback onReply) override {
        if (request.appId().empty())
            return APP_CONTROL_ERROR_INVALID_PARAMETER;
        const bool queued = runOnMainLoop([request, onReply = std::move(onReply)]() mutable {
            sendNow(request, std::move(onReply));
        });
        return queued ? APP_CONTROL_ERROR_NONE : APP_CONTROL_ERROR_LAUNCH_FAILED;
    }
};

Slot<AppControlService>& slot() {
    static Slot<AppControlService> s([] { return std::make_unique<LinuxAppControlService>(); });
    return s;
}

}  // namespace

AppControlService& appControlService() {
    return slot().get();
}
void installAppControlService(std::unique_ptr<AppControlService> impl) {
    slot().install(std::move(impl));
}

}  // namespace pelio::platform
