// Linux package manager: XDG desktop entries read by DesktopEntryLoader (see PackageManager.h).
//
// Threads: the listing reads the folders on the calling thread (a long one reads half of its
// entries on a helper thread that ends before it returns); the event watch (one inotify
// watcher per applications folder, created by setEventCallback) and the snapshot it compares
// against belong to the main loop thread. Ownership: the watchers are owned here and end with
// unsetEventCallback() or the destructor.
#pragma once

#include <map>
#include <memory>
#include <string>
#include <vector>

#include "pelio/platform/PackageManager.h"

namespace pelio::platform {

class ContactsFolderWatcher;

class LinuxPackageManager : public PackageManager {
  public:
    LinuxPackageManager();
    ~LinuxPackageManager() override;

    int listApplications(AppDisplayFilter filter, const std::string& locale,
                         std::vector<AppInfo>& apps) override;
    int getApplication(const std::string& packageName, const std::string& locale,
                       AppInfo& app) override;
    int setEventCallback(PackageEventCallback cb, void* userData) override;
    int unsetEventCallback() override;

    // The applications folders, user first: $XDG_DATA_HOME/applications, then every
    // $XDG_DATA_DIRS/applications (defaults as the XDG base directory rules say).
    static std::vector<std::string> applicationFolders();

  private:
    // Package name -> fingerprint of the entry that wins for it (path, size, modification time).
    using Snapshot = std::map<std::string, std::string>;
    static Snapshot takeSnapshot();
    void onFoldersChanged();

    PackageEventCallback cb_ = nullptr;
    void* userData_ = nullptr;
    Snapshot snapshot_;
    std::vector<std::unique_ptr<ContactsFolderWatcher>> watchers_;
};

}  // namespace pelio::platform
