#include "LinuxMediaContentService.h"

#include "ContactsFolderWatcher.h"
#include "MediaIndex.h"

#include <pelio/platform/Log.h>
#include <pelio/platform/MainLoop.h>
#include <pelio/platform/Slot.h>

#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <optional>
#include <system_error>

namespace pelio::platform {
namespace {

constexpr const char* kTag = "PelioPlatform";

std::string homeDir() {
    const char* home = std::getenv("HOME");
    return home ? home : "";
}

std::string xdgDir(const char* variable, const char* fallback) {
    const char* value = std::getenv(variable);
    if (value != nullptr && value[0] == '/')
        return value;
    return homeDir() + fallback;
}

Slot<MediaContentService>& slot() {
    static Slot<MediaContentService> s([] { return std::make_unique<LinuxMediaContentService>(); });
    return s;
}

}  // namespace

MediaContentService& mediaContentService() {
    return slot().get();
}

void installMediaContentService(std::unique_ptr<MediaContentService> impl) {
    slot().install(std::move(impl));
}

LinuxMediaContentService::LinuxMediaContentService(std::string musicRoot, std::string dbPath)
    : root_(std::move(musicRoot)), dbPath_(std::move(dbPath)) {}

LinuxMediaContentService::~LinuxMediaContentService() = default;

std::string LinuxMediaContentService::musicDirectory() {
    const std::string home = homeDir();
    std::ifstream dirs(xdgDir("XDG_CONFIG_HOME", "/.config") + "/user-dirs.dirs");
    std::string line;
    while (std::getline(dirs, line)) {
        const std::string key = "XDG_MUSIC_DIR=";
        if (line.rfind(key, 0) != 0)
            continue;
        std::string value = line.substr(key.size());
        if (value.size() >= 2 && value.front() == '"' && value.back() == '"')
            value = value.substr(1, value.size() - 2);
        if (value.rfind("$HOME", 0) == 0)
            value = home + value.substr(5);
        if (!value.empty() && value[0] == '/')
            return std::filesystem::path(value).lexically_normal().string();
    }
    return home + "/Music";
}

bool LinuxMediaContentService::selectsMusic(const std::string& condition) {
    std::string compact;
    for (char c : condition) {
        if (!std::isspace(static_cast<unsigned char>(c)))
            compact += c;
    }
    return compact.empty() || compact == "MEDIA_TYPE=3";
}

std::shared_ptr<MediaIndex> LinuxMediaContentService::index() {
    std::lock_guard<std::mutex> guard(mutex_);
    return connections_ > 0 ? index_ : nullptr;
}

bool LinuxMediaContentService::watchMark(WatchMark& mark) {
    std::lock_guard<std::mutex> guard(mutex_);
    if (!watcher_)
        return false;
    mark = {watchers_, watcher_->seen()};
    return true;
}

bool LinuxMediaContentService::quietSince(const WatchMark& mark) {
    std::lock_guard<std::mutex> guard(mutex_);
    return watcher_ && mark.watcher == watchers_ && watcher_->quietSince(mark.seen);
}

int LinuxMediaContentService::rescan(int& changed) {
    changed = 0;
    std::shared_ptr<MediaIndex> current = index();
    if (!current)
        return MEDIA_CONTENT_ERROR_NOT_CONNECTED;
    std::lock_guard<std::mutex> one(rescanMutex_);
    if (inStep_ && quietSince(inStepMark_)) {
        dlog_print(DLOG_DEBUG, kTag, "media: %s unchanged since the last rescan; not rescanned",
                   root_.c_str());
        return MEDIA_CONTENT_ERROR_NONE;
    }
    // Noted before the walk: whatever the watcher sees from here on may have been missed by it.
    WatchMark mark;
    const bool watched = watchMark(mark);
    bool linked = false;
    const auto started = std::chrono::steady_clock::now();
    const int rc = current->rescan(root_, changed, linked);
    inStep_ = watched && !linked && rc == MEDIA_CONTENT_ERROR_NONE;
    inStepMark_ = mark;
    const long long ms = std::chrono::duration_cast<std::chrono::milliseconds>(
                             std::chrono::steady_clock::now() - started)
                             .count();
    dlog_print(DLOG_DEBUG, kTag, "media: rescan of %s: %d changed [%d], %lld ms", root_.c_str(),
               changed, rc, ms);
    return rc;
}

int LinuxMediaContentService::connect() {
    bool watch = false;
    {
        std::lock_guard<std::mutex> guard(mutex_);
        if (!index_) {
            if (root_.empty())
                root_ = musicDirectory();
            if (dbPath_.empty())
                dbPath_ = xdgDir("XDG_DATA_HOME", "/.local/share") + "/pelio-platform/media.db";
            std::error_code ec;
            std::filesystem::create_directories(std::filesystem::path(dbPath_).parent_path(), ec);
            auto opened = std::make_shared<MediaIndex>(dbPath_);
            if (!opened->ok())
                return MEDIA_CONTENT_ERROR_DB_FAILED;
            index_ = std::move(opened);
        }
        ++connections_;
        // The first connection on the main loop starts the watch before it rescans, so that
        // rescan already counts for the connects that follow.
        watch = !watcher_ && !watchTried_ && onMainLoopThread();
    }
    if (watch)
        startWatching();
    int changed = 0;
    rescan(changed);  // a missing folder is logged; what is indexed stays readable
    return MEDIA_CONTENT_ERROR_NONE;
}

int LinuxMediaContentService::disconnect() {
    std::lock_guard<std::mutex> guard(mutex_);
    if (connections_ == 0)
        return MEDIA_CONTENT_ERROR_NOT_CONNECTED;
    --connections_;
    return MEDIA_CONTENT_ERROR_NONE;
}

int LinuxMediaContentService::getMediaList(const std::string& condition,
                                           std::vector<MediaInfoRecord>& out) {
    auto current = index();
    if (!current)
        return MEDIA_CONTENT_ERROR_NOT_CONNECTED;
    return selectsMusic(condition) ? current->songs(out) : MEDIA_CONTENT_ERROR_NONE;
}

int LinuxMediaContentService::getAlbumList(const std::string& condition,
                                           std::vector<MediaAlbumRecord>& out) {
    auto current = index();
    if (!current)
        return MEDIA_CONTENT_ERROR_NOT_CONNECTED;
    return selectsMusic(condition) ? current->albums(out) : MEDIA_CONTENT_ERROR_NONE;
}

int LinuxMediaContentService::getArtistList(const std::string& condition,
                                            std::vector<MediaArtistRecord>& out) {
    auto current = index();
    if (!current)
        return MEDIA_CONTENT_ERROR_NOT_CONNECTED;
    return selectsMusic(condition) ? current->artists(out) : MEDIA_CONTENT_ERROR_NONE;
}

int LinuxMediaContentService::getPlaylistList(std::vector<MediaPlaylistRecord>& out) {
    auto current = index();
    if (!current)
        return MEDIA_CONTENT_ERROR_NOT_CONNECTED;
    return current->playlists(out);
}

namespace {

// A media id's number: its hexadecimal digits, dashes left out; none when it is not one.
std::optional<long long> parseMediaId(const std::string& mediaId) {
    std::string digits;
    for (char c : mediaId) {
        if (c != '-')
            digits += c;
    }
    if (digits.empty() || digits.size() > 32 ||
        !std::all_of(digits.begin(), digits.end(),
                     [](unsigned char c) { return std::isxdigit(c) != 0; })) {
        return std::nullopt;
    }
    return static_cast<long long>(std::strtoull(digits.c_str(), nullptr, 16));
}

}  // namespace

int LinuxMediaContentService::getMediaFromDb(const std::string& mediaId, MediaInfoRecord& out) {
    std::vector<MediaInfoRecord> found;
    std::vector<int> results;
    getMediaByIds({mediaId}, found, results);
    if (results.front() == MEDIA_CONTENT_ERROR_NONE)
        out = std::move(found.front());
    return results.front();
}

void LinuxMediaContentService::getMediaByIds(const std::vector<std::string>& mediaIds,
                                             std::vector<MediaInfoRecord>& out,
                                             std::vector<int>& results) {
    out.assign(mediaIds.size(), MediaInfoRecord{});
    results.assign(mediaIds.size(), MEDIA_CONTENT_ERROR_INVALID_PARAMETER);
    std::vector<std::optional<long long>> ids(mediaIds.size());
    std::transform(mediaIds.begin(), mediaIds.end(), ids.begin(), parseMediaId);
    auto current = index();
    if (!current) {
        for (std::size_t i = 0; i < ids.size(); ++i) {
            if (ids[i])
                results[i] = MEDIA_CONTENT_ERROR_NOT_CONNECTED;
        }
        return;
    }
    current->songsByIds(ids, out, results);
}

int LinuxMediaContentService::setDbUpdatedCallback(MediaDbUpdatedCallback cb, void* userData) {
    if (cb == nullptr)
        return MEDIA_CONTENT_ERROR_INVALID_PARAMETER;
    {
        std::lock_guard<std::mutex> guard(mutex_);
        if (connections_ == 0)
            return MEDIA_CONTENT_ERROR_NOT_CONNECTED;
        callback_ = cb;
        userData_ = userData;
    }
    startWatching();
    return MEDIA_CONTENT_ERROR_NONE;
}

void LinuxMediaContentService::startWatching() {
    std::string root;
    {
        std::lock_guard<std::mutex> guard(mutex_);
        if (watcher_)
            return;
        watchTried_ = true;
        root = root_;
    }
    auto watcher = std::make_unique<ContactsFolderWatcher>(
        root, [this]() { onFolderChanged(); }, 0.2, "media");
    // What changed before the watch was in place is found by the next rescan: none so far began
    // under this watcher.
    if (!watcher->start()) {
        dlog_print(DLOG_WARN, kTag, "media: changes of %s will not be seen until the next connect",
                   root.c_str());
    }
    std::lock_guard<std::mutex> guard(mutex_);
    watcher_ = std::move(watcher);
    ++watchers_;
}

int LinuxMediaContentService::unsetDbUpdatedCallback() {
    std::unique_ptr<ContactsFolderWatcher> watcher;  // ends outside the lock
    std::lock_guard<std::mutex> guard(mutex_);
    if (callback_ == nullptr)
        return MEDIA_CONTENT_ERROR_INVALID_PARAMETER;
    callback_ = nullptr;
    userData_ = nullptr;
    watcher = std::move(watcher_);
    return MEDIA_CONTENT_ERROR_NONE;
}

void LinuxMediaContentService::onFolderChanged() {
    int changed = 0;
    if (rescan(changed) != MEDIA_CONTENT_ERROR_NONE || changed == 0)
        return;
    MediaDbUpdatedCallback cb;
    void* userData;
    std::string root;
    {
        std::lock_guard<std::mutex> guard(mutex_);
        cb = callback_;
        userData = userData_;
        root = root_;
    }
    if (cb != nullptr) {
        cb(MEDIA_CONTENT_ERROR_NONE, static_cast<int>(getpid()), MEDIA_ITEM_DIRECTORY,
           MEDIA_CONTENT_UPDATE, MEDIA_CONTENT_TYPE_MUSIC, "", root.c_str(), "", userData);
    }
}

}  // namespace pelio::platform
