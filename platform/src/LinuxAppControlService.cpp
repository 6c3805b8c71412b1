// Linux launch requests: a Launch call on the target's application object over the session bus.
#include <glib.h>

#include "EldbusHandles.h"
#include "pelio/platform/AppControl.h"
#include "pelio/platform/Log.h"
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

// Eldbus never watches libdbus's write watch when that watch was added while disabled (it is, on
// a fresh connection), so a message larger than the socket's send buffer (about 200 KiB) is
// written only as far as one non-blocking write takes it; the rest moves only when the next
// message is sent on the connection. Until a large request has its reply, a timer sends a Ping to
// the bus now and then, which makes libdbus write on.
constexpr std::size_t kLargeRequestBytes = 64 * 1024;
constexpr double kNudgeIntervalS = 0.02;

std::size_t extrasSize(const Extras& extras) {
    std::size_t n = 0;
    for (const auto& [key, value] : extras)
        n += key.size() + value.size() + 16;
    return n;
}

Eina_Bool nudgeWriter(void* data) {
    auto* bus = static_cast<Eldbus_Connection*>(data);
    Eldbus_Message* ping = eldbus_message_method_call_new(
        "org.freedesktop.DBus", "/org/freedesktop/DBus", "org.freedesktop.DBus.Peer", "Ping");
    if (ping)
        eldbus_connection_send(bus, ping, nullptr, nullptr, -1);  // takes the message
    return ECORE_CALLBACK_RENEW;
}

// One request in flight; owned by the reply callback. The nudge timer, when there is one, ends
// with it.
struct PendingLaunch {
    LaunchReplyCallback onReply;
    TimerPtr nudge;
};

void onLaunchReply(void* data, const Eldbus_Message* msg, Eldbus_Pending*) {
    std::unique_ptr<PendingLaunch> pending(static_cast<PendingLaunch*>(data));
    pending->nudge.reset();  // the request is through (or failed): no more writing to push
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
    auto pending = std::make_unique<PendingLaunch>(PendingLaunch{std::move(onReply), nullptr});
    flushLog();  // what led to the request is out before the application sees it
    // eldbus_connection_send takes the message reference; the callback owns pending from here.
    if (eldbus_connection_send(bus, msg.release(), &onLaunchReply, pending.get(),
                               kLaunchTimeoutMs)) {
        if (extrasSize(request.extras()) >= kLargeRequestBytes)
            pending->nudge.reset(ecore_timer_add(kNudgeIntervalS, &nudgeWriter, bus));
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
