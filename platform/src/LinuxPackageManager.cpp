#include "LinuxPackageManager.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <optional>
#include <system_error>
#include <thread>

#include "ContactsFolderWatcher.h"
#include "DesktopEntryLoader.h"
#include "pelio/platform/Log.h"

namespace pelio::platform {
namespace {

constexpr const char* kTag = "PelioPlatform";
constexpr const char* kSuffix = ".desktop";
// Listings of at least this many entries are read by two threads.
constexpr size_t kSplitListing = 64;

// The desktop entry that wins for one package name.
struct EntryFile {
    std::string path;
    bool preloaded = false;
};

std::string envOr(const char* name, const std::string& fallback) {
    const char* value = std::getenv(name);
    return value != nullptr && *value != '\0' ? std::string(value) : fallback;
}

// Package name -> winning entry, over every applications folder in precedence order.
std::map<std::string, EntryFile> findEntries() {
    namespace fs = std::filesystem;
    std::map<std::string, EntryFile> entries;
    const auto folders = LinuxPackageManager::applicationFolders();
    for (size_t i = 0; i < folders.size(); ++i) {
        const std::string& folder = folders[i];
        std::error_code ec;
        if (!fs::is_directory(folder, ec)) {
            dlog_print(DLOG_DEBUG, kTag, "applications folder %s is not there", folder.c_str());
            continue;
        }
        if (access(folder.c_str(), R_OK | X_OK) != 0) {
            dlog_print(DLOG_WARN, kTag, "applications folder %s cannot be read", folder.c_str());
            continue;
        }
        fs::recursive_directory_iterator it(folder, fs::directory_options::skip_permission_denied,
                                            ec);
        for (; !ec && it != fs::recursive_directory_iterator(); it.increment(ec)) {
            const fs::path& path = it->path();
            std::error_code fileEc;
            if (path.extension() != kSuffix || !it->is_regular_file(fileEc))
                continue;
            // A file in a sub-folder has the folder names, joined by "-", in its id. The walk
            // gives paths below `folder` as written, so the relative path is a matter of text.
            std::string id = path.lexically_relative(folder).string();
            if (id.empty() || id.compare(0, 2, "..") == 0)
                continue;
            id.resize(id.size() - std::char_traits<char>::length(kSuffix));
            for (char& c : id)
                if (c == '/')
                    c = '-';
            entries.emplace(id, EntryFile{path.string(), i > 0});  // the first folder wins
        }
        if (ec) {
            dlog_print(DLOG_WARN, kTag, "reading applications folder %s stopped: %s",
                       folder.c_str(), ec.message().c_str());
        }
    }
    return entries;
}

bool passes(const AppInfo& app, AppDisplayFilter filter) {
    switch (filter) {
        case AppDisplayFilter::VisibleOnly:
            return !app.noDisplay;
        case AppDisplayFilter::HiddenOnly:
            return app.noDisplay;
        case AppDisplayFilter::Any:
            break;
    }
    return true;
}

}  // namespace

LinuxPackageManager::LinuxPackageManager() = default;

LinuxPackageManager::~LinuxPackageManager() {
    watchers_.clear();
}

std::vector<std::string> LinuxPackageManager::applicationFolders() {
    const std::string home = envOr("HOME", "");
    std::vector<std::string> folders;
    folders.push_back(envOr("XDG_DATA_HOME", home + "/.local/share") + "/applications");
    const std::string dirs = envOr("XDG_DATA_DIRS", "/usr/local/share/:/usr/share/");
    size_t start = 0;
    while (start <= dirs.size()) {
        const size_t end = std::min(dirs.find(':', start), dirs.size());
        std::string dir = dirs.substr(start, end - start);
        while (dir.size() > 1 && dir.back() == '/')
            dir.pop_back();
        if (!dir.empty())
            folders.push_back(dir + "/applications");
        start = end + 1;
    }
    return folders;
}

int LinuxPackageManager::listApplications(AppDisplayFilter filter, const std::string& locale,
                                          std::vector<AppInfo>& apps) {
    apps.clear();
    const std::map<std::string, EntryFile> found = findEntries();
    std::vector<const std::pair<const std::string, EntryFile>*> entries;
    entries.reserve(found.size());
    for (const auto& entry : found)
        entries.push_back(&entry);
    std::vector<std::optional<AppInfo>> loaded(entries.size());
    const auto loadRange = [&](size_t from, size_t to) {
        DesktopEntryLoader loader(locale);  // a loader serves one thread
        for (size_t i = from; i < to; ++i) {
            AppInfo app;
            const auto& [id, file] = *entries[i];
            if (loader.load(id, file.path, file.preloaded, app) && passes(app, filter))
                loaded[i] = std::move(app);
        }
    };
    // An entry costs a file read and a key-file parse, some microseconds: a long listing reads
    // its second half on a helper thread meanwhile (on this one when no thread can be started).
    const size_t half = entries.size() >= kSplitListing ? entries.size() / 2 : entries.size();
    std::thread helper;
    if (half < entries.size()) {
        try {
            helper = std::thread(loadRange, half, entries.size());
        } catch (const std::system_error&) {
            loadRange(half, entries.size());
        }
    }
    loadRange(0, half);
    if (helper.joinable())
        helper.join();
    for (std::optional<AppInfo>& app : loaded)
        if (app)
            apps.push_back(std::move(*app));
    return PACKAGE_MANAGER_ERROR_NONE;
}

int LinuxPackageManager::getApplication(const std::string& packageName, const std::string& locale,
                                        AppInfo& app) {
    if (packageName.empty())
        return PACKAGE_MANAGER_ERROR_INVALID_PARAMETER;
    const auto entries = findEntries();
    const auto it = entries.find(packageName);
    if (it == entries.end() ||
        !DesktopEntryLoader(locale).load(it->first, it->second.path, it->second.preloaded, app))
        return PACKAGE_MANAGER_ERROR_NO_SUCH_PACKAGE;
    return PACKAGE_MANAGER_ERROR_NONE;
}

LinuxPackageManager::Snapshot LinuxPackageManager::takeSnapshot() {
    Snapshot snapshot;
    for (const auto& [id, file] : findEntries()) {
        struct stat st {};
        std::string print = file.path;
        if (stat(file.path.c_str(), &st) == 0) {
            print += ":" + std::to_string(st.st_size) + ":" + std::to_string(st.st_mtim.tv_sec) +
                     "." + std::to_string(st.st_mtim.tv_nsec);
        }
        snapshot.emplace(id, std::move(print));
    }
    return snapshot;
}

int LinuxPackageManager::setEventCallback(PackageEventCallback cb, void* userData) {
    if (cb == nullptr)
        return PACKAGE_MANAGER_ERROR_INVALID_PARAMETER;
    cb_ = cb;
    userData_ = userData;
    if (!watchers_.empty())
        return PACKAGE_MANAGER_ERROR_NONE;
    snapshot_ = takeSnapshot();
    for (const std::string& folder : applicationFolders()) {
        std::error_code ec;
        if (!std::filesystem::is_directory(folder, ec))
            continue;  // already logged by the snapshot
        auto watcher =
            std::make_unique<ContactsFolderWatcher>(folder, [this] { onFoldersChanged(); });
        if (watcher->start()) {
            watchers_.push_back(std::move(watcher));
        } else {
            dlog_print(DLOG_WARN, kTag, "cannot watch applications folder %s", folder.c_str());
        }
    }
    return PACKAGE_MANAGER_ERROR_NONE;
}

int LinuxPackageManager::unsetEventCallback() {
    cb_ = nullptr;
    userData_ = nullptr;
    watchers_.clear();
    snapshot_.clear();
    return PACKAGE_MANAGER_ERROR_NONE;
}

void LinuxPackageManager::onFoldersChanged() {
    Snapshot now = takeSnapshot();
    std::vector<std::pair<std::string, PackageEventType>> events;
    for (const auto& [id, print] : now) {
        const auto before = snapshot_.find(id);
        if (before == snapshot_.end())
            events.emplace_back(id, PACKAGE_MANAGER_EVENT_TYPE_INSTALL);
        else if (before->second != print)
            events.emplace_back(id, PACKAGE_MANAGER_EVENT_TYPE_UPDATE);
    }
    for (const auto& [id, print] : snapshot_) {
        if (now.find(id) == now.end())
            events.emplace_back(id, PACKAGE_MANAGER_EVENT_TYPE_UNINSTALL);
    }
    snapshot_ = std::move(now);
    for (const auto& [id, type] : events) {
        // Read again for every event: the callback may unset itself.
        PackageEventCallback cb = cb_;
        if (cb == nullptr)
            return;
        dlog_print(DLOG_DEBUG, kTag, "package event %d for %s", static_cast<int>(type), id.c_str());
        cb("desktop", id.c_str(), type, PACKAGE_MANAGER_EVENT_STATE_COMPLETED, 100, 0, userData_);
    }
}

}  // namespace pelio::platform
