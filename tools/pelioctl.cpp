// pelioctl: steers and inspects the service on the session bus and in its data folders.
// `pelioctl --help` lists the commands, `pelioctl help COMMAND` explains one (kCommands below).
//
// Exit status: 0 done, 1 failed (no bus, not delivered, not found, a domain not in step after
// `sync --wait`), 2 bad usage, 130 stopped waiting (Ctrl-C).
#include <gio/gio.h>
#include <poll.h>

#include <pelio/CHandles.h>
#include <pelio/platform/AppControl.h>
#include <pelio/platform/ApplicationEndpoint.h>
#include <pelio/platform/MainLoop.h>
#include <pelio/platform/Preferences.h>
#include <pelio/platform/SessionBus.h>
#include <pelio/platform/SystemSettings.h>
#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "ServicePreferences.h"
#include "ShadowDatabase.h"
#include "StatusReport.h"

namespace pp = pelio::platform;

namespace {

constexpr const char* kServiceId = "com.quorvin.plmsvc";
constexpr const char* kVoiceAppId = "com.quorvin.orvane-k12";

struct Command {
    const char* name;
    const char* synopsis;  // after "pelioctl "
    const char* help;      // what `pelioctl help NAME` adds to the synopsis
};

const std::vector<Command> kCommands = {
    {"status", "status [--json]",
     "Shows, per domain (contacts, applications, media), whether it is in step with the server,\n"
     "has changes waiting or failed its last sync; the rows waiting to be added, changed and\n"
     "deleted; the PLM id; whether the service is running now; and the server address and\n"
     "certificate the service will use. --json prints the same as one JSON object.\n"},
    {"sync", "sync [--force] [--server HOST:PORT] [--cert FILE] [--locale LOCALE] [--wait]",
     "Asks the service for a sync: differential, or a full one with --force. --server, --cert\n"
     "and --locale set the server, its CA certificate and the locale first (kept for later\n"
     "syncs). --wait prints a progress line per domain (rows the server confirmed of all rows)\n"
     "until the service has ended, then the status summary; Ctrl-C stops the waiting, not the\n"
     "sync. With --wait the exit status is 1 when, at the end, a domain's last sync failed or\n"
     "changes are still waiting.\n"},
    {"launch", "launch [--app ID] KEY=VALUE ...",
     "Sends a launch request with these extras (default: to the service) and prints the reply's\n"
     "extras as KEY=VALUE, sorted, then result=CODE, or result=none without a reply.\n"},
    {"voice-app", "voice-app [--state foreground|background]",
     "Plays the voice app: owns its bus name and prints one line per launch it receives, its\n"
     "extras as KEY=VALUE separated by blanks, sorted. Ends on Ctrl-C.\n"},
    {"event", "event low-memory|low-battery", "Emits the platform event on the session bus.\n"},
    {"setting", "setting get KEY | setting set KEY VALUE",
     "Reads or writes a system setting (for example memory/dnet/status).\n"},
    {"prefs", "prefs", "Lists the service's preferences as key=value (read-only).\n"},
    {"db", "db",
     "Shadow database row counts per table and dirty value, and the status keys (read-only).\n"},
    {"help", "help [COMMAND]", "Explains one command, or lists them all.\n"},
};

const Command* findCommand(const std::string& name) {
    for (const Command& c : kCommands) {
        if (name == c.name)
            return &c;
    }
    return nullptr;
}

// The command list; detailed (for --help and the manual page) explains each command under it.
void printUsage(FILE* out, bool detailed) {
    std::fputs(
        "Usage: pelioctl COMMAND [ARGUMENTS]\n"
        "Steers and inspects the Pelio service on the session bus and in its data folders.\n"
        "\nCommands:\n",
        out);
    for (const Command& c : kCommands) {
        std::fprintf(out, "  pelioctl %s\n", c.synopsis);
        if (!detailed)
            continue;
        const std::string help = c.help;
        for (size_t at = 0, end; at < help.size(); at = end + 1) {
            end = help.find('\n', at);
            if (end == std::string::npos)
                end = help.size();
            std::fprintf(out, "      %s\n", help.substr(at, end - at).c_str());
        }
    }
    std::fputs(
        "\nOptions:\n"
        "  -h, --help     show this help and exit\n"
        "      --version  show the version and exit\n"
        "\n`pelioctl help COMMAND` explains one command. Exit status: 0 done, 1 failed,\n"
        "2 bad usage, 130 stopped waiting (Ctrl-C). Commands that talk to the service need\n"
        "a session bus; setting, prefs, db and help work without one.\n",
        out);
}

// A usage error: the usage to standard error, exit status 2.
int usage() {
    printUsage(stderr, false);
    return 2;
}

int usageOf(const char* name) {
    const Command* c = findCommand(name);
    std::fprintf(stderr, "usage: pelioctl %s\n", c ? c->synopsis : name);
    return 2;
}

int cmdHelp(int argc, char** argv) {
    if (argc == 0) {
        printUsage(stdout, true);
        return 0;
    }
    const Command* c = argc == 1 ? findCommand(argv[0]) : nullptr;
    if (!c) {
        if (argc == 1)
            std::fprintf(stderr, "pelioctl: no command %s\n", argv[0]);
        return usage();
    }
    std::printf("Usage: pelioctl %s\n%s", c->synopsis, c->help);
    return 0;
}

// Commands that talk to the service call this once their arguments are checked: without a
// session bus they say so in one line and end with status 1.
bool noSessionBus() {
    const std::string problem = pp::sessionBusProblem();
    if (problem.empty())
        return false;
    std::fprintf(stderr, "pelioctl: %s\n", problem.c_str());
    return true;
}

std::string joinSorted(pp::Extras extras, const char* separator) {
    std::sort(extras.begin(), extras.end());
    std::string out;
    for (const auto& [k, v] : extras) {
        if (!out.empty())
            out += separator;
        out += k + "=" + v;
    }
    return out;
}

// Sends request to app on the session bus and waits for the outcome. 0 when delivered (the
// reply is printed when printReply is set), 1 when not.
int deliverLaunch(const std::string& app, pp::AppControl& request, bool printReply) {
    if (request.setAppId(app) != pp::APP_CONTROL_ERROR_NONE) {
        std::fprintf(stderr, "pelioctl: not an application id: %s\n", app.c_str());
        return 2;
    }
    pp::MainLoopScope loop;
    int status = 1;
    bool done = false;
    const int rc =
        pp::appControlService().sendLaunchRequest(request, [&](const pp::LaunchOutcome& o) {
            if (!o.delivered) {
                std::fprintf(stderr, "pelioctl: launch of %s failed: %s\n", app.c_str(),
                             o.error.c_str());
            } else {
                if (printReply) {
                    pp::Extras extras = o.reply.extras;
                    std::sort(extras.begin(), extras.end());
                    for (const auto& [k, v] : extras)
                        std::printf("%s=%s\n", k.c_str(), v.c_str());
                    if (o.reply.replied)
                        std::printf("result=%d\n", o.reply.result);
                    else
                        std::printf("result=none\n");
                }
                status = 0;
            }
            done = true;
            pp::quitMainLoop();
        });
    if (rc != pp::APP_CONTROL_ERROR_NONE) {
        std::fprintf(stderr, "pelioctl: cannot send (%d)\n", rc);
        return 1;
    }
    if (!done)
        pp::runMainLoop();  // a send that failed at once has answered already
    std::fflush(stdout);
    return status;
}

int cmdLaunch(int argc, char** argv) {
    std::string app = kServiceId;
    pp::AppControl request;
    int extras = 0;
    for (int i = 0; i < argc; ++i) {
        const std::string arg = argv[i];
        if (arg == "--app" && i + 1 < argc) {
            app = argv[++i];
            continue;
        }
        const auto eq = arg.find('=');
        if (eq == std::string::npos || eq == 0) {
            std::fprintf(stderr, "pelioctl: not KEY=VALUE: %s\n", arg.c_str());
            return usageOf("launch");
        }
        request.addExtraData(arg.substr(0, eq), arg.substr(eq + 1));
        ++extras;
    }
    if (extras == 0)
        return usageOf("launch");
    if (noSessionBus())
        return 1;
    return deliverLaunch(app, request, true);
}

int cmdVoiceApp(int argc, char** argv) {
    int state = 1;
    for (int i = 0; i < argc; ++i) {
        const std::string arg = argv[i];
        if (arg == "--state" && i + 1 < argc) {
            const std::string s = argv[++i];
            if (s == "foreground")
                state = 1;
            else if (s == "background")
                state = 2;
            else
                return usageOf("voice-app");
        } else {
            return usageOf("voice-app");
        }
    }
    if (noSessionBus())
        return 1;
    pp::MainLoopScope loop;
    pp::quitMainLoopOnSignals();
    int status = 0;
    pp::ApplicationEndpoint endpoint(kVoiceAppId, state, [](const pp::AppControl& request) {
        std::printf("%s\n", joinSorted(request.extras(), " ").c_str());
        std::fflush(stdout);
    });
    if (!endpoint.start([&](bool owned) {
            if (owned) {
                std::fprintf(stderr, "pelioctl: playing %s (state %d)\n", kVoiceAppId, state);
            } else {
                std::fprintf(stderr, "pelioctl: %s is taken\n", kVoiceAppId);
                status = 1;
                pp::quitMainLoop();
            }
        })) {
        std::fprintf(stderr, "pelioctl: no session bus\n");
        return 1;
    }
    pp::runMainLoop();
    return status;
}

int cmdEvent(int argc, char** argv) {
    if (argc != 1)
        return usageOf("event");
    const std::string which = argv[0];
    const char* member = which == "low-memory"    ? "LowMemory"
                         : which == "low-battery" ? "LowBattery"
                                                  : nullptr;
    if (!member)
        return usageOf("event");
    if (noSessionBus())
        return 1;
    GError* error = nullptr;
    GDBusConnection* bus = g_bus_get_sync(G_BUS_TYPE_SESSION, nullptr, &error);
    if (!bus) {
        std::fprintf(stderr, "pelioctl: %s\n", error ? error->message : "no session bus");
        if (error)
            g_error_free(error);
        return 1;
    }
    pelio::GObjectPtr<GDBusConnection> hold(bus);
    g_dbus_connection_set_exit_on_close(bus, FALSE);
    const bool ok = g_dbus_connection_emit_signal(bus, nullptr, pp::kSystemObjectPath,
                                                  pp::kSystemInterface, member, nullptr, &error) &&
                    g_dbus_connection_flush_sync(bus, nullptr, &error);
    if (!ok) {
        std::fprintf(stderr, "pelioctl: %s\n", error ? error->message : "emit failed");
        if (error)
            g_error_free(error);
        return 1;
    }
    return 0;
}

int cmdSetting(int argc, char** argv) {
    if (argc == 2 && std::strcmp(argv[0], "get") == 0) {
        std::string value;
        const int rc = pp::systemSettings().getString(argv[1], value);
        if (rc != pp::SETTINGS_ERROR_NONE) {
            std::fprintf(stderr, "pelioctl: %s is not set\n", argv[1]);
            return 1;
        }
        std::printf("%s\n", value.c_str());
        return 0;
    }
    if (argc == 3 && std::strcmp(argv[0], "set") == 0) {
        const int rc = pp::systemSettings().setString(argv[1], argv[2]);
        if (rc != pp::SETTINGS_ERROR_NONE) {
            std::fprintf(stderr, "pelioctl: cannot set %s (%d)\n", argv[1], rc);
            return 1;
        }
        return 0;
    }
    return usageOf("setting");
}

int cmdPrefs() {
    std::unique_ptr<pp::Preferences> store = openServicePreferences();
    if (!store) {
        std::printf("no preferences yet\n");
        return 0;
    }
    for (const pp::PreferenceItem& item : store->items())
        std::printf("%s=%s\n", item.key.c_str(), item.value.c_str());
    return 0;
}

int cmdDb() {
    ShadowDatabase db;
    if (!db.open()) {
        if (db.error() == "no database yet") {
            std::printf("no database yet\n");
            return 0;
        }
        std::fprintf(stderr, "pelioctl: %s\n", db.error().c_str());
        return 1;
    }
    for (const char* table : {"contacts", "application", "audio", "audio_playlist"}) {
        std::map<int, long> counts;
        if (!db.countByDirty(table, counts)) {
            std::printf("%s: no table\n", table);
            continue;
        }
        long total = 0;
        std::string perDirty;
        for (const auto& [dirty, n] : counts) {
            total += n;
            perDirty += " dirty[" + (dirty < 0 ? std::string("NULL") : std::to_string(dirty)) +
                        "]=" + std::to_string(n);
        }
        std::printf("%s: rows=%ld%s\n", table, total, perDirty.c_str());
    }
    std::map<std::string, std::string> master;
    if (!db.masterRows("%_SYNC_STATUS_P", "PLM_SYNC_DEVICE_ID", master)) {
        std::printf("master: no table\n");
        return 0;
    }
    for (const auto& [k, v] : master)
        std::printf("%s=%s\n", k.c_str(), v.c_str());
    return 0;
}

// The session bus connection of the status commands (GIO's shared one); null when unreachable.
using BusPtr = pelio::GObjectPtr<GDBusConnection>;

BusPtr sessionBus() {
    BusPtr bus(g_bus_get_sync(G_BUS_TYPE_SESSION, nullptr, nullptr));
    if (bus)
        g_dbus_connection_set_exit_on_close(bus.get(), FALSE);
    return bus;
}

// The process id of the service's bus name owner; 0 when nobody owns it (asking never starts
// the service).
pid_t serviceProcess(GDBusConnection* bus) {
    if (!bus)
        return 0;
    GVariant* reply = g_dbus_connection_call_sync(
        bus, "org.freedesktop.DBus", "/org/freedesktop/DBus", "org.freedesktop.DBus",
        "GetConnectionUnixProcessID", g_variant_new("(s)", kServiceId), G_VARIANT_TYPE("(u)"),
        G_DBUS_CALL_FLAGS_NONE, 2000, nullptr, nullptr);
    if (!reply)
        return 0;
    guint32 pid = 0;
    g_variant_get(reply, "(u)", &pid);
    g_variant_unref(reply);
    return static_cast<pid_t>(pid);
}

bool serviceRunning(GDBusConnection* bus) {
    return serviceProcess(bus) != 0;
}

// The service gives up its name as soon as it decides to end and then still applies the
// server's answers: it has ended when its process is gone.
bool processAlive(pid_t pid) {
    return pid > 0 && (::kill(pid, 0) == 0 || errno == EPERM);
}

int cmdStatus(int argc, char** argv) {
    bool json = false;
    for (int i = 0; i < argc; ++i) {
        if (std::strcmp(argv[i], "--json") != 0)
            return usageOf("status");
        json = true;
    }
    if (noSessionBus())
        return 1;
    BusPtr bus = sessionBus();
    StatusReport report;
    report.read(serviceRunning(bus.get()));
    std::fputs(json ? report.json().c_str() : report.text().c_str(), stdout);
    return 0;
}

volatile std::sig_atomic_t g_stopWaiting = 0;

void onStopSignal(int) {
    g_stopWaiting = 1;
}

// Sleeps ms milliseconds, or less when a stop signal arrives.
void pauseFor(int ms) {
    for (int slept = 0; slept < ms && !g_stopWaiting; slept += 100)
        ::poll(nullptr, 0, 100);
}

// Follows the sync until the service has ended: a domain's progress line whenever it changed,
// all of them again after 10 s without a change. Then the status summary.
int waitForSync(GDBusConnection* bus) {
    constexpr int kPollMs = 500;
    constexpr int kQuietPolls = 20;  // 10 s
    struct sigaction action {};
    action.sa_handler = onStopSignal;
    sigemptyset(&action.sa_mask);
    sigaction(SIGINT, &action, nullptr);
    sigaction(SIGTERM, &action, nullptr);

    StatusReport report;
    std::map<std::string, std::string> shown;  // the last line printed per domain
    int quiet = 0;
    bool running = true;
    pid_t pid = serviceProcess(bus);
    while (running && !g_stopWaiting) {
        const pid_t owner = serviceProcess(bus);
        pid = owner != 0 ? owner : pid;
        running = owner != 0 || processAlive(pid);
        const bool complete = report.read(running);
        const bool remind = ++quiet >= kQuietPolls;
        for (const DomainStatus& d : report.domains()) {
            const std::string line =
                d.progressLine() + ", " + DomainStatus::stateWords(d.state(running));
            if (complete && (remind || shown[d.name()] != line)) {
                std::printf("%s\n", line.c_str());
                shown[d.name()] = line;
                quiet = 0;
            }
        }
        std::fflush(stdout);
        if (running)
            pauseFor(kPollMs);
    }
    if (g_stopWaiting) {
        std::fprintf(stderr,
                     "pelioctl: stopped waiting; the sync goes on in the service "
                     "(`pelioctl status` shows how far it got)\n");
        return 130;
    }
    std::printf("\n%s", report.text().c_str());
    return report.allInStep() ? 0 : 1;
}

// Splits HOST:PORT (the last colon; a port of 1 to 65535). False when it is not of that form.
bool splitServer(const std::string& server, std::string& host, std::string& port) {
    const auto colon = server.rfind(':');
    if (colon == std::string::npos || colon == 0 || colon + 1 == server.size())
        return false;
    host = server.substr(0, colon);
    port = server.substr(colon + 1);
    if (port.size() > 5 || port.find_first_not_of("0123456789") != std::string::npos)
        return false;
    const long n = std::strtol(port.c_str(), nullptr, 10);
    return n >= 1 && n <= 65535;
}

int cmdSync(int argc, char** argv) {
    bool force = false;
    bool wait = false;
    pp::AppControl request;
    for (int i = 0; i < argc; ++i) {
        const std::string arg = argv[i];
        const bool hasValue = i + 1 < argc;
        if (arg == "--force") {
            force = true;
        } else if (arg == "--wait") {
            wait = true;
        } else if (arg == "--server" && hasValue) {
            std::string host, port;
            if (!splitServer(argv[++i], host, port)) {
                std::fprintf(stderr, "pelioctl: --server wants HOST:PORT, not %s\n", argv[i]);
                return usageOf("sync");
            }
            request.addExtraData("SET_IP", host);
            request.addExtraData("SET_PORT", port);
        } else if (arg == "--cert" && hasValue) {
            // The service runs in a directory of its own: hand it an absolute path.
            std::error_code ec;
            const std::filesystem::path cert = std::filesystem::absolute(argv[++i], ec);
            if (ec || !std::filesystem::is_regular_file(cert, ec)) {
                std::fprintf(stderr, "pelioctl: no certificate file %s\n", argv[i]);
                return 2;
            }
            request.addExtraData("SET_CERT_PATH", cert.string());
        } else if (arg == "--locale" && hasValue && argv[i + 1][0] != '\0') {
            request.addExtraData("SET_LOCALE", argv[++i]);
        } else {
            return usageOf("sync");
        }
    }
    if (noSessionBus())
        return 1;
    // Without --force the service decides: a full sync when it never completed one.
    request.addExtraData("SET_IS_FORCE", force ? "true" : "false");
    request.addExtraData("EVENT_TYPE", "TRIGGER_FORCE_SYNC");
    const int rc = deliverLaunch(kServiceId, request, false);
    if (rc != 0)
        return rc;
    std::printf("%s sync requested\n", force ? "full" : "differential");
    std::fflush(stdout);
    if (!wait)
        return 0;
    BusPtr bus = sessionBus();
    return waitForSync(bus.get());
}

}  // namespace

int main(int argc, char** argv) {
    if (argc < 2)
        return usage();
    const std::string cmd = argv[1];
    if (cmd == "--version") {
        std::printf("pelioctl %s\n", PELIO_VERSION);
        return 0;
    }
    if (cmd == "--help" || cmd == "-h") {
        printUsage(stdout, true);
        return 0;
    }
    const Command* command = findCommand(cmd);
    if (!command) {
        std::fprintf(stderr, "pelioctl: no command %s\n", cmd.c_str());
        return usage();
    }
    const int n = argc - 2;
    char** args = argv + 2;
    if (cmd == "status")
        return cmdStatus(n, args);
    if (cmd == "sync")
        return cmdSync(n, args);
    if (cmd == "launch")
        return cmdLaunch(n, args);
    if (cmd == "voice-app")
        return cmdVoiceApp(n, args);
    if (cmd == "event")
        return cmdEvent(n, args);
    if (cmd == "setting")
        return cmdSetting(n, args);
    if (cmd == "help")
        return cmdHelp(n, args);
    if (n != 0)
        return usageOf(cmd.c_str());
    return cmd == "prefs" ? cmdPrefs() : cmdDb();
}
