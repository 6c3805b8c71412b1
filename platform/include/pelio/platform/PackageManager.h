// Package manager and application information.
//
// Linux: the applications are the XDG desktop entries found through $XDG_DATA_HOME/applications
// and every $XDG_DATA_DIRS/applications (in that order; the first entry of a desktop file id
// wins, as in every desktop environment). Entries are read with GLib's key-file reader and
// accepted as GIO's GDesktopAppInfo accepts them (first group "Desktop Entry", Type Application,
// TryExec and Exec programs installed). Package name = desktop file id without ".desktop";
// preloaded = found under a system data directory rather than the user's; no-display =
// NoDisplay=true or Hidden=true; version = the entry's "X-AppVersion" key (empty when it has none).
// Install, update and removal are seen by watching the applications folders (inotify, main loop)
// and comparing the entries; each is delivered as one completed event (state 2, progress 100).
//
// Threads: listApplications() and getApplication() may run on any thread (they read the folders
// on every call). setEventCallback() / unsetEventCallback() and the callback belong to the main
// loop thread. Errors: a folder that is missing or unreadable, an entry that is not valid or has
// no name: one log line, the rest is still read.
#pragma once

#include <memory>
#include <string>
#include <vector>

namespace pelio::platform {

enum PackageManagerError {
    PACKAGE_MANAGER_ERROR_NONE = 0,
    PACKAGE_MANAGER_ERROR_INVALID_PARAMETER = -22,
    PACKAGE_MANAGER_ERROR_NO_SUCH_PACKAGE = -2,
    PACKAGE_MANAGER_ERROR_IO_ERROR = -5,
    PACKAGE_MANAGER_ERROR_SYSTEM = -1,
};

enum PackageEventType {
    PACKAGE_MANAGER_EVENT_TYPE_INSTALL = 0,
    PACKAGE_MANAGER_EVENT_TYPE_UNINSTALL = 1,
    PACKAGE_MANAGER_EVENT_TYPE_UPDATE = 2,
};

enum PackageEventState {
    PACKAGE_MANAGER_EVENT_STATE_STARTED = 0,
    PACKAGE_MANAGER_EVENT_STATE_PROCESSING = 1,
    PACKAGE_MANAGER_EVENT_STATE_COMPLETED = 2,
    PACKAGE_MANAGER_EVENT_STATE_FAILED = 3,
};

// Filter on the no-display property of listApplications().
enum class AppDisplayFilter { Any, VisibleOnly, HiddenOnly };

// One installed application.
struct AppInfo {
    std::string appId;        // package name: the desktop file id without ".desktop"
    std::string packageName;  // the same text
    std::string label;        // display name for the asked locale
    std::string version;      // "" when the system knows none
    bool preloaded = false;   // found under a system data directory
    bool noDisplay = false;   // NoDisplay=true or Hidden=true
};

// type: "desktop"; package: the package name. Runs on the main loop thread.
using PackageEventCallback = void (*)(const char* type, const char* package,
                                      PackageEventType eventType, PackageEventState eventState,
                                      int progress, int error, void* userData);

class PackageManager {
  public:
    virtual ~PackageManager() = default;

    // Every installed application passing filter, in package-name order; locale as "de_DE" or
    // "de-DE" (an encoding suffix such as ".UTF-8" is ignored).
    virtual int listApplications(AppDisplayFilter filter, const std::string& locale,
                                 std::vector<AppInfo>& apps) = 0;
    // One application by package name; PACKAGE_MANAGER_ERROR_NO_SUCH_PACKAGE when absent.
    virtual int getApplication(const std::string& packageName, const std::string& locale,
                               AppInfo& app) = 0;

    // One callback at a time; a second set replaces the first.
    virtual int setEventCallback(PackageEventCallback cb, void* userData) = 0;
    virtual int unsetEventCallback() = 0;
};

PackageManager& packageManager();
void installPackageManager(std::unique_ptr<PackageManager> impl);

}  // namespace pelio::platform
