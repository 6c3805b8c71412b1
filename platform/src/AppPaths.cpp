#include "pelio/platform/AppPaths.h"

#include <pwd.h>
#include <sys/stat.h>
#include <unistd.h>

#include <pelio/platform/Log.h>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <mutex>

#include "pelio/platform/Slot.h"

namespace pelio::platform {
namespace {

constexpr const char* kTag = "PelioPlatform";

std::mutex& appIdMutex() {
    static std::mutex m;
    return m;
}

std::string& appIdStorage() {
    static std::string id = "com.quorvin.plmsvc";
    return id;
}

std::string homeDir() {
    const char* home = std::getenv("HOME");
    if (home != nullptr && home[0] == '/')
        return home;
    struct passwd pw;
    struct passwd* result = nullptr;
    char buf[4096];
    if (getpwuid_r(getuid(), &pw, buf, sizeof buf, &result) == 0 && result != nullptr &&
        result->pw_dir != nullptr)
        return result->pw_dir;
    return "";
}

// An absolute $name, else home + fallback; "" when neither is known.
std::string xdgDir(const char* name, const char* fallback) {
    const char* value = std::getenv(name);
    if (value != nullptr && value[0] == '/')
        return value;
    const std::string home = homeDir();
    return home.empty() ? std::string() : home + fallback;
}

// Creates dir (ending in "/") and its parents; returns dir, or "" when it cannot be made.
std::string ensureDir(const std::string& dir) {
    if (dir.empty())
        return dir;
    for (size_t pos = 1; pos < dir.size(); ++pos) {
        if (dir[pos] != '/')
            continue;
        const std::string part = dir.substr(0, pos);
        if (::mkdir(part.c_str(), 0700) != 0 && errno != EEXIST) {
            dlog_print(DLOG_ERROR, kTag, "app paths: cannot create %s (%s)", part.c_str(),
                       std::strerror(errno));
            return "";
        }
    }
    return dir;
}

std::string appRoot(const std::string& appId) {
    const std::string base = xdgDataHome();
    if (base.empty() || appId.empty())
        return "";
    return base + "/" + appId + "/";
}

std::string resourceRoot(const std::string& appId) {
    const std::string installed = std::string(PELIO_INSTALL_SHARE_DIR) + "/" + appId + "/";
    struct stat st;
    if (::stat(installed.c_str(), &st) == 0)
        return installed;
    const std::string build = std::string(PELIO_BUILD_SHARE_DIR) + "/" + appId + "/";
    if (::stat(build.c_str(), &st) == 0)
        return build;
    return installed;
}

class LinuxAppPaths : public AppPaths {
  public:
    std::string dataPath() override { return appDataPath(currentAppId()); }
    std::string sharedDataPath() override {
        const std::string root = appRoot(currentAppId());
        return root.empty() ? root : ensureDir(root + "shared/data/");
    }
    std::string sharedTrustedPath() override { return appSharedTrustedPath(currentAppId()); }
    std::string resourcePath() override { return resourceRoot(currentAppId()); }
    std::string sharedResourcePath() override { return resourceRoot(currentAppId()) + "shared/"; }
};

Slot<AppPaths>& slot() {
    static Slot<AppPaths> s([] { return std::make_unique<LinuxAppPaths>(); });
    return s;
}

}  // namespace

const std::string& currentAppId() {
    std::lock_guard<std::mutex> guard(appIdMutex());
    return appIdStorage();
}

void setCurrentAppId(const std::string& appId) {
    std::lock_guard<std::mutex> guard(appIdMutex());
    appIdStorage() = appId;
}

AppPaths& appPaths() {
    return slot().get();
}
void installAppPaths(std::unique_ptr<AppPaths> impl) {
    slot().install(std::move(impl));
}

std::string xdgDataHome() {
    return xdgDir("XDG_DATA_HOME", "/.local/share");
}
std::string xdgConfigHome() {
    return xdgDir("XDG_CONFIG_HOME", "/.config");
}

std::string appDataPath(const std::string& appId) {
    const std::string root = appRoot(appId);
    return root.empty() ? root : ensureDir(root + "data/");
}

std::string appSharedTrustedPath(const std::string& appId) {
    const std::string root = appRoot(appId);
    return root.empty() ? root : ensureDir(root + "shared/trusted/");
}

}  // namespace pelio::platform
