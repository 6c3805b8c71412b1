// pelioctl: steers and inspects the service on the session bus and in its data folders.
//
//   pelioctl launch [--app ID] KEY=VALUE ...      send a launch request, print the reply
//   pelioctl voice-app [--state foreground|background]
//                                                 play the voice app, print each launch received
//   pelioctl event low-memory|low-battery          emit a platform event
//   pelioctl setting get KEY | set KEY VALUE       read or write a system setting
//   pelioctl prefs                                 the service's preferences (read-only)
//   pelioctl db                                    shadow database row counts and status keys
//
// Exit status: 0 done, 1 failed (not delivered, not found), 2 bad usage.
#include <gio/gio.h>
#include <sqlite3.h>

#include <pelio/platform/AppControl.h>
#include <pelio/platform/ApplicationEndpoint.h>
#include <pelio/platform/MainLoop.h>
#include <pelio/platform/Preferences.h>
#include <pelio/platform/SystemSettings.h>
#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <memory>
#include <string>
#include <vector>

namespace pp = pelio::platform;

namespace {

constexpr const char* kServiceId = "com.quorvin.plmsvc";
constexpr const char* kVoiceAppId = "com.quorvin.orvane-k12";

int usage() {
    std::fputs(
        "usage: pelioctl launch [--app ID] KEY=VALUE ...\n"
        "       pelioctl voice-app [--state foreground|background]\n"
        "       pelioctl event low-memory|low-battery\n"
        "       pelioctl setting get KEY | pelioctl setting set KEY VALUE\n"
        "       pelioctl prefs\n"
        "       pelioctl db\n",
        stderr);
    return 2;
}

std::string dataHome() {
    const char* xdg = std::getenv("XDG_DATA_HOME");
    if (xdg && *xdg)
        return xdg;
    const char* home = std::getenv("HOME");
    return std::string(home ? home : "") + "/.local/share";
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

int cmdLaunch(int argc, char** argv) {
    std::string app = kServiceId;
    pp::AppControl request;
    for (int i = 0; i < argc; ++i) {
        const std::string arg = argv[i];
        if (arg == "--app" && i + 1 < argc) {
            app = argv[++i];
            continue;
        }
        const auto eq = arg.find('=');
        if (eq == std::string::npos || eq == 0) {
            std::fprintf(stderr, "pelioctl: not KEY=VALUE: %s\n", arg.c_str());
            return 2;
        }
        request.addExtraData(arg.substr(0, eq), arg.substr(eq + 1));
    }
    if (request.setAppId(app) != pp::APP_CONTROL_ERROR_NONE)
        return usage();

    pp::MainLoopScope loop;
    int status = 1;
    bool done = false;
    const int rc =
        pp::appControlService().sendLaunchRequest(request, [&](const pp::LaunchOutcome& o) {
            if (!o.delivered) {
                std::fprintf(stderr, "pelioctl: launch of %s failed: %s\n", app.c_str(),
                             o.error.c_str());
            } else {
                pp::Extras extras = o.reply.extras;
                std::sort(extras.begin(), extras.end());
                for (const auto& [k, v] : extras)
                    std::printf("%s=%s\n", k.c_str(), v.c_str());
                if (o.reply.replied)
                    std::printf("result=%d\n", o.reply.result);
                else
                    std::printf("result=none\n");
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
                return usage();
        } else {
            return usage();
        }
    }
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
        return usage();
    const std::string which = argv[0];
    const char* member = which == "low-memory"    ? "LowMemory"
                         : which == "low-battery" ? "LowBattery"
                                                  : nullptr;
    if (!member)
        return usage();
    GError* error = nullptr;
    GDBusConnection* bus = g_bus_get_sync(G_BUS_TYPE_SESSION, nullptr, &error);
    if (!bus) {
        std::fprintf(stderr, "pelioctl: %s\n", error ? error->message : "no session bus");
        if (error)
            g_error_free(error);
        return 1;
    }
    std::unique_ptr<GDBusConnection, decltype(&g_object_unref)> hold(bus, g_object_unref);
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
    return usage();
}

int cmdPrefs() {
    // The service's store, read through the platform's preferences module (read-only: never
    // created or changed here). Sorted by key; booleans as true / false.
    const std::string path = pp::preferencesFilePath(kServiceId);
    std::error_code ec;
    if (path.empty() || !std::filesystem::exists(path, ec)) {
        std::printf("no preferences yet\n");
        return 0;
    }
    std::unique_ptr<pp::Preferences> store = pp::openPreferencesFile(path, true);
    for (const pp::PreferenceItem& item : store->items())
        std::printf("%s=%s\n", item.key.c_str(), item.value.c_str());
    return 0;
}

struct DbClose {
    void operator()(sqlite3* db) const { sqlite3_close(db); }
};
struct StmtFinalize {
    void operator()(sqlite3_stmt* s) const { sqlite3_finalize(s); }
};

int cmdDb() {
    const std::string path = dataHome() + "/" + kServiceId + "/shared/trusted/databases/.orvane.db";
    if (!std::filesystem::exists(path)) {
        std::printf("no database yet\n");
        return 0;
    }
    sqlite3* raw = nullptr;
    const int rc = sqlite3_open_v2(path.c_str(), &raw, SQLITE_OPEN_READONLY, nullptr);
    std::unique_ptr<sqlite3, DbClose> db(raw);
    if (rc != SQLITE_OK) {
        std::fprintf(stderr, "pelioctl: cannot open %s: %s\n", path.c_str(),
                     raw ? sqlite3_errmsg(raw) : "out of memory");
        return 1;
    }
    sqlite3_busy_timeout(db.get(), 2000);
    auto query = [&](const std::string& sql) {
        sqlite3_stmt* s = nullptr;
        sqlite3_prepare_v2(db.get(), sql.c_str(), -1, &s, nullptr);
        return std::unique_ptr<sqlite3_stmt, StmtFinalize>(s);
    };
    for (const char* table : {"contacts", "application", "audio", "audio_playlist"}) {
        auto stmt = query(std::string("SELECT dirty, COUNT(*) FROM ") + table +
                          " GROUP BY dirty ORDER BY dirty");
        if (!stmt) {
            std::printf("%s: no table\n", table);
            continue;
        }
        long total = 0;
        std::string perDirty;
        while (sqlite3_step(stmt.get()) == SQLITE_ROW) {
            const long n = sqlite3_column_int64(stmt.get(), 1);
            total += n;
            const unsigned char* dirty = sqlite3_column_text(stmt.get(), 0);
            perDirty += std::string(" dirty[") +
                        (dirty ? reinterpret_cast<const char*>(dirty) : "NULL") +
                        "]=" + std::to_string(n);
        }
        std::printf("%s: rows=%ld%s\n", table, total, perDirty.c_str());
    }
    auto master = query(
        "SELECT key, value FROM master WHERE key LIKE '%_SYNC_STATUS_P' OR key = "
        "'PLM_SYNC_DEVICE_ID' ORDER BY key");
    if (!master) {
        std::printf("master: no table\n");
        return 0;
    }
    while (sqlite3_step(master.get()) == SQLITE_ROW) {
        const unsigned char* k = sqlite3_column_text(master.get(), 0);
        const unsigned char* v = sqlite3_column_text(master.get(), 1);
        std::printf("%s=%s\n", k ? reinterpret_cast<const char*>(k) : "",
                    v ? reinterpret_cast<const char*>(v) : "");
    }
    return 0;
}

}  // namespace

int main(int argc, char** argv) {
    if (argc < 2)
        return usage();
    const std::string cmd = argv[1];
    if (cmd == "launch")
        return cmdLaunch(argc - 2, argv + 2);
    if (cmd == "voice-app")
        return cmdVoiceApp(argc - 2, argv + 2);
    if (cmd == "event")
        return cmdEvent(argc - 2, argv + 2);
    if (cmd == "setting")
        return cmdSetting(argc - 2, argv + 2);
    if (cmd == "prefs" && argc == 2)
        return cmdPrefs();
    if (cmd == "db" && argc == 2)
        return cmdDb();
    return usage();
}
