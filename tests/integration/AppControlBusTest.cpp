// App control on a private session bus: the build's pelio-service started by D-Bus activation.
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <Ecore.h>

#include <pelio/platform/AppControl.h>
#include <pelio/platform/AppManager.h>
#include <pelio/platform/MainLoop.h>
#include <cstdio>
#include <string>

#include "support/TempHome.h"

namespace pp = pelio::platform;

namespace {

// A private dbus-daemon for one test; ends it and everything it activated.
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
        char buf[512] = {};
        ssize_t n = 0, got = 0;
        while (got < static_cast<ssize_t>(sizeof buf) - 1 &&
               (n = read(fds[0], buf + got, sizeof buf - 1 - got)) > 0) {
            got += n;
            if (std::string(buf).find('\n') != std::string::npos)
                break;
        }
        close(fds[0]);
        address_ = std::string(buf).substr(0, std::string(buf).find('\n'));
        setenv("DBUS_SESSION_BUS_ADDRESS", address_.c_str(), 1);
    }
    ~PrivateBus() {
        if (pid_ <= 0)
            return;
        const std::string children = "pkill -TERM -P " + std::to_string(pid_);
        if (std::system(children.c_str()) < 0)
            perror("pkill");
        kill(pid_, SIGTERM);
        waitpid(pid_, nullptr, 0);
        unsetenv("DBUS_SESSION_BUS_ADDRESS");
    }
    bool ok() const { return !address_.empty(); }

  private:
    pid_t pid_ = -1;
    std::string address_;
};

pp::LaunchOutcome launch(const pp::AppControl& request) {
    pp::LaunchOutcome result;
    bool done = false;
    Ecore_Timer* guard = ecore_timer_add(
        60.0,
        [](void*) -> Eina_Bool {
            pp::quitMainLoop();
            return ECORE_CALLBACK_CANCEL;
        },
        nullptr);
    pp::appControlService().sendLaunchRequest(request, [&](const pp::LaunchOutcome& o) {
        result = o;
        done = true;
        pp::quitMainLoop();
    });
    if (!done)
        pp::runMainLoop();
    if (done)
        ecore_timer_del(guard);
    return result;
}

// Disabled: in this process the replies of the activated service never reach the Launch
// callbacks (the service logs the requests; pelioctl, same platform code, gets its replies), so
// every launch here ends on the 60-second guard. To be found before this is enabled.
TEST(AppControlBusTest, DISABLED_ActivatedServiceTakesLargeAndOddRequestsAndKeepsServing) {
    pelio::test::TempHome home;
    PrivateBus bus;
    ASSERT_TRUE(bus.ok());
    pp::MainLoopScope loop;

    pp::AppControl first;  // starts the service by activation
    first.setAppId("com.quorvin.plmsvc");
    first.addExtraData("EVENT_TYPE", "GET_DEVICE_ID");
    pp::LaunchOutcome o = launch(first);
    EXPECT_TRUE(o.delivered) << o.error;

    pp::AppControl big;
    big.setAppId("com.quorvin.plmsvc");
    big.addExtraData("BIG", std::string(1 << 20, 'x'));  // 1 MiB
    big.addExtraData("EVENT_TYPE", "GET_DEVICE_ID");
    o = launch(big);
    EXPECT_TRUE(o.delivered) << o.error;
    EXPECT_FALSE(o.reply.replied);

    bool running = false;
    EXPECT_EQ(pp::appManager().isRunning("com.quorvin.plmsvc", running), 0);
    EXPECT_TRUE(running);
    std::unique_ptr<pp::AppContext> ctx;
    ASSERT_EQ(pp::appManager().getAppContext("com.quorvin.plmsvc", ctx), 0);
    int state = 0;
    EXPECT_EQ(pp::appManager().getAppState(*ctx, state), 0);
    EXPECT_EQ(state, pp::APP_STATE_BACKGROUND);

    pp::AppControl bad;
    bad.setAppId("com.quorvin.plmsvc");
    bad.addExtraData("BAD", "\xff\xfe");
    o = launch(bad);
    EXPECT_FALSE(o.delivered);  // the D-Bus library refuses non-UTF-8 strings

    pp::AppControl empty;
    empty.setAppId("com.quorvin.plmsvc");
    o = launch(empty);
    EXPECT_TRUE(o.delivered) << o.error;

    pp::AppControl absent;
    absent.setAppId("com.quorvin.absent");
    o = launch(absent);
    EXPECT_FALSE(o.delivered);
    EXPECT_FALSE(o.error.empty());
    EXPECT_EQ(pp::appManager().isRunning("com.quorvin.absent", running), 0);
    EXPECT_FALSE(running);
    EXPECT_EQ(pp::appManager().getAppContext("com.quorvin.absent", ctx),
              pp::APP_MANAGER_ERROR_NO_SUCH_APP);
}

}  // namespace
