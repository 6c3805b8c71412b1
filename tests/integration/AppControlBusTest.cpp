// App control on a private session bus: the build's pelio-service started by D-Bus activation,
// steered by launch requests from this process (the platform's Linux app control on Eldbus).
#include <gio/gio.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <Ecore.h>

#include <pelio/platform/AppControl.h>
#include <pelio/platform/AppManager.h>
#include <pelio/platform/MainLoop.h>
#include <chrono>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "support/TempHome.h"

namespace pp = pelio::platform;

namespace {

constexpr const char* kService = "com.quorvin.plmsvc";

// Children of pid, from /proc.
std::vector<pid_t> childrenOf(pid_t parent) {
    std::vector<pid_t> out;
    std::error_code ec;
    for (const auto& entry : std::filesystem::directory_iterator("/proc", ec)) {
        const std::string name = entry.path().filename().string();
        if (name.find_first_not_of("0123456789") != std::string::npos)
            continue;
        std::ifstream stat(entry.path() / "stat");
        std::string line;
        if (!std::getline(stat, line))
            continue;
        // "pid (comm) state ppid ...": comm may hold blanks, so read after the last ')'.
        const auto close = line.rfind(')');
        if (close == std::string::npos)
            continue;
        char state = 0;
        int ppid = 0;
        if (std::sscanf(line.c_str() + close + 1, " %c %d", &state, &ppid) == 2 && ppid == parent)
            out.push_back(std::stoi(name));
    }
    return out;
}

// A private dbus-daemon for one test; ends what it activated, then itself.
class PrivateBus {
  public:
    PrivateBus() {
        int fds[2];
        if (pipe(fds) != 0)
            return;
        pid_ = fork();
        if (pid_ == 0) {
            dup2(fds[1], 3);
            const std::string conf =
                std::string(PELIO_BINARY_DIR) + "/share/dbus-1/session-private.conf";
            execlp("dbus-daemon", "dbus-daemon", "--nofork", ("--config-file=" + conf).c_str(),
                   "--print-address=3", static_cast<char*>(nullptr));
            _exit(127);
        }
        close(fds[1]);
        std::string text;
        char buf[256];
        ssize_t n = 0;
        while (text.find('\n') == std::string::npos && (n = read(fds[0], buf, sizeof buf)) > 0)
            text.append(buf, static_cast<std::size_t>(n));
        close(fds[0]);
        address_ = text.substr(0, text.find('\n'));
        if (!address_.empty())
            setenv("DBUS_SESSION_BUS_ADDRESS", address_.c_str(), 1);
    }
    ~PrivateBus() {
        if (pid_ <= 0)
            return;
        for (pid_t child : childrenOf(pid_))
            kill(child, SIGTERM);
        for (int i = 0; i < 100 && !childrenOf(pid_).empty(); ++i)
            std::this_thread::sleep_for(std::chrono::milliseconds(50));
        for (pid_t child : childrenOf(pid_))
            kill(child, SIGKILL);
        kill(pid_, SIGTERM);
        waitpid(pid_, nullptr, 0);
        unsetenv("DBUS_SESSION_BUS_ADDRESS");
    }
    PrivateBus(const PrivateBus&) = delete;
    PrivateBus& operator=(const PrivateBus&) = delete;

    bool ok() const { return !address_.empty(); }
    const std::string& address() const { return address_; }

  private:
    pid_t pid_ = -1;
    std::string address_;
};

struct TimerDel {
    void operator()(Ecore_Timer* t) const { ecore_timer_del(t); }
};

// Sends request and runs the main loop until its outcome arrives or guardSeconds pass (then
// error is "no outcome"). The outcome lives on the heap: a reply after the guard finds it.
pp::LaunchOutcome launch(const pp::AppControl& request, double guardSeconds = 30.0) {
    struct State {
        bool done = false;
        pp::LaunchOutcome outcome;
    };
    auto state = std::make_shared<State>();
    state->outcome.error = "no outcome";
    const int rc =
        pp::appControlService().sendLaunchRequest(request, [state](const pp::LaunchOutcome& o) {
            state->outcome = o;
            state->done = true;
            pp::quitMainLoop();
        });
    if (rc != pp::APP_CONTROL_ERROR_NONE) {
        state->outcome.error = "not sent: " + std::to_string(rc);
        return state->outcome;
    }
    if (!state->done) {
        bool expired = false;
        std::unique_ptr<Ecore_Timer, TimerDel> guard(ecore_timer_add(
            guardSeconds,
            [](void* data) -> Eina_Bool {
                *static_cast<bool*>(data) = true;
                pp::quitMainLoop();
                return ECORE_CALLBACK_RENEW;  // deleted by its holder
            },
            &expired));
        while (!state->done && !expired)
            pp::runMainLoop();
    }
    return state->outcome;
}

pp::AppControl serviceRequest(const pp::Extras& extras) {
    pp::AppControl request;
    request.setAppId(kService);
    for (const auto& [k, v] : extras)
        request.addExtraData(k, v);
    return request;
}

struct ConnectionUnref {
    void operator()(GDBusConnection* c) const { g_object_unref(c); }
};
using GConnectionPtr = std::unique_ptr<GDBusConnection, ConnectionUnref>;

GConnectionPtr connect(const std::string& address) {
    GError* error = nullptr;
    GDBusConnection* c = g_dbus_connection_new_for_address_sync(
        address.c_str(),
        static_cast<GDBusConnectionFlags>(G_DBUS_CONNECTION_FLAGS_AUTHENTICATION_CLIENT |
                                          G_DBUS_CONNECTION_FLAGS_MESSAGE_BUS_CONNECTION),
        nullptr, nullptr, &error);
    if (error) {
        ADD_FAILURE() << error->message;
        g_error_free(error);
    }
    return GConnectionPtr(c);
}

// The process id owning the service's name, 0 when none.
unsigned servicePid(GDBusConnection* bus) {
    GVariant* r = g_dbus_connection_call_sync(bus, "org.freedesktop.DBus", "/org/freedesktop/DBus",
                                              "org.freedesktop.DBus", "GetConnectionUnixProcessID",
                                              g_variant_new("(s)", kService), G_VARIANT_TYPE("(u)"),
                                              G_DBUS_CALL_FLAGS_NONE, 5000, nullptr, nullptr);
    if (!r)
        return 0;
    unsigned pid = 0;
    g_variant_get(r, "(u)", &pid);
    g_variant_unref(r);
    return pid;
}

// A caller that sends a Launch expecting a reply and goes away before it comes. (A status
// request would end the service by design: an operation it does not know keeps it running.)
void launchAndDisconnect(const std::string& address, const std::string& payload) {
    GConnectionPtr caller = connect(address);
    ASSERT_TRUE(caller);
    GVariantBuilder extras;
    g_variant_builder_init(&extras, G_VARIANT_TYPE("a{ss}"));
    g_variant_builder_add(&extras, "{ss}", "EVENT_TYPE", "NOT_AN_OPERATION");
    g_variant_builder_add(&extras, "{ss}", "BIG", payload.c_str());
    GDBusMessage* msg = g_dbus_message_new_method_call(kService, "/com/quorvin/plmsvc",
                                                       pp::kApplicationInterface, "Launch");
    g_dbus_message_set_body(msg, g_variant_new("(a{ss})", &extras));
    GError* error = nullptr;
    EXPECT_TRUE(g_dbus_connection_send_message(caller.get(), msg, G_DBUS_SEND_MESSAGE_FLAGS_NONE,
                                               nullptr, &error));
    g_object_unref(msg);
    EXPECT_TRUE(g_dbus_connection_flush_sync(caller.get(), nullptr, &error));
    EXPECT_TRUE(g_dbus_connection_close_sync(caller.get(), nullptr, &error));
    if (error) {
        ADD_FAILURE() << error->message;
        g_error_free(error);
    }
}

TEST(AppControlBusTest, ActivatedServiceTakesLargeAndOddRequestsAndKeepsServing) {
    pelio::test::TempHome home;
    PrivateBus bus;
    ASSERT_TRUE(bus.ok());
    GConnectionPtr observer = connect(bus.address());
    ASSERT_TRUE(observer);
    EXPECT_EQ(servicePid(observer.get()), 0u);  // nothing runs before the first request
    pp::MainLoopScope loop;

    // Activation by the first request; the service runs in the idle class and may start slowly.
    pp::LaunchOutcome o = launch(serviceRequest({{"EVENT_TYPE", "GET_DEVICE_ID"}}), 120.0);
    ASSERT_TRUE(o.delivered) << o.error;
    EXPECT_FALSE(o.reply.replied);
    const unsigned pid = servicePid(observer.get());
    ASSERT_NE(pid, 0u);

    // 1 MiB in one extra: far more than the socket takes in one write.
    const std::string mib(1 << 20, 'x');
    o = launch(serviceRequest({{"BIG", mib}, {"EVENT_TYPE", "GET_DEVICE_ID"}}));
    EXPECT_TRUE(o.delivered) << o.error;
    EXPECT_FALSE(o.reply.replied);
    // Two large requests back to back, and a small one queued behind them.
    o = launch(serviceRequest({{"BIG", mib + "y"}}));
    EXPECT_TRUE(o.delivered) << o.error;
    o = launch(serviceRequest({{"BIG", std::string(300000, 'z')}, {"SET_IP", ""}}));
    EXPECT_TRUE(o.delivered) << o.error;

    bool running = false;
    EXPECT_EQ(pp::appManager().isRunning(kService, running), 0);
    EXPECT_TRUE(running);
    std::unique_ptr<pp::AppContext> ctx;
    ASSERT_EQ(pp::appManager().getAppContext(kService, ctx), 0);
    int state = 0;
    EXPECT_EQ(pp::appManager().getAppState(*ctx, state), 0);
    EXPECT_EQ(state, pp::APP_STATE_BACKGROUND);

    // Odd requests: no extras, unknown keys and operation, empty values.
    o = launch(serviceRequest({}));
    EXPECT_TRUE(o.delivered) << o.error;
    o = launch(serviceRequest({{"NO_SUCH_KEY", "1"}, {"EVENT_TYPE", "NOT_AN_OPERATION"}}));
    EXPECT_TRUE(o.delivered) << o.error;
    o = launch(serviceRequest({{"EVENT_TYPE", ""}, {"SET_IP", ""}, {"SET_PORT", ""}}));
    EXPECT_TRUE(o.delivered) << o.error;

    // Not valid D-Bus strings: refused here, before the D-Bus library would abort the process.
    o = launch(serviceRequest({{"BAD", "\xff\xfe"}}));
    EXPECT_FALSE(o.delivered);
    EXPECT_NE(o.error.find("UTF-8"), std::string::npos) << o.error;
    o = launch(serviceRequest({{"NUL", std::string("a\0b", 3)}}));
    EXPECT_FALSE(o.delivered);

    // Callers that go away before the reply, one with a large request.
    launchAndDisconnect(bus.address(), "small");
    launchAndDisconnect(bus.address(), mib);

    // Still the same process, still serving.
    o = launch(serviceRequest({{"EVENT_TYPE", "GET_DEVICE_ID"}}));
    EXPECT_TRUE(o.delivered) << o.error;
    EXPECT_EQ(servicePid(observer.get()), pid);

    pp::AppControl absent;
    absent.setAppId("com.quorvin.absent");
    absent.addExtraData("K", "V");
    o = launch(absent);
    EXPECT_FALSE(o.delivered);
    EXPECT_NE(o.error, "no outcome");
    EXPECT_FALSE(o.error.empty());
    EXPECT_EQ(pp::appManager().isRunning("com.quorvin.absent", running), 0);
    EXPECT_FALSE(running);
    EXPECT_EQ(pp::appManager().getAppContext("com.quorvin.absent", ctx),
              pp::APP_MANAGER_ERROR_NO_SUCH_APP);
}

}  // namespace
