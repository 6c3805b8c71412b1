// Application paths (XDG mapping):
//   data            $XDG_DATA_HOME/<appid>/data/
//   shared data     $XDG_DATA_HOME/<appid>/shared/data/
//   shared trusted  $XDG_DATA_HOME/<appid>/shared/trusted/
//   resources       <prefix>/share/<appid>/      shared resources  <prefix>/share/<appid>/shared/
// Every directory ends with "/". $XDG_DATA_HOME defaults to $HOME/.local/share. The data
// directories are created on first query; an empty string means the directory is not available.
// The Linux implementation reads the environment on every call (tests move HOME between cases).
#pragma once

#include <memory>
#include <string>

namespace pelio::platform {

// The application id of this process (default "com.quorvin.plmsvc"). Set it before other threads
// start (process entry); the returned reference is not re-read under a lock.
const std::string& currentAppId();
void setCurrentAppId(const std::string& appId);

class AppPaths {
  public:
    virtual ~AppPaths() = default;
    virtual std::string dataPath() = 0;
    virtual std::string sharedDataPath() = 0;
    virtual std::string sharedTrustedPath() = 0;
    virtual std::string resourcePath() = 0;
    virtual std::string sharedResourcePath() = 0;
};

AppPaths& appPaths();
void installAppPaths(std::unique_ptr<AppPaths> impl);

// The Linux paths of any application (pelioctl reads the service's stores through these).
std::string xdgDataHome();
std::string xdgConfigHome();
std::string appDataPath(const std::string& appId);
std::string appSharedTrustedPath(const std::string& appId);

}  // namespace pelio::platform
