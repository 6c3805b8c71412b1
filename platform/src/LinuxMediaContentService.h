// The media content service on Linux: the music folder indexed into
// $XDG_DATA_HOME/pelio-platform/media.db (see MediaContent.h for the model).
//
// connect() (any thread, counted) opens the index on the first call and brings it in step with
// the folder before it returns, so a collection never reads a stale index: a change made before
// connect() was called is in the index when it returns. The first connect() on the main loop,
// or else setDbUpdatedCallback() (main loop), starts watching the folder, until
// unsetDbUpdatedCallback(); a change seen there is rescanned on the main loop and, when the
// rescan found changes and a callback is set, the callback runs there once. Rescans from connect()
// do not call it (the caller is about to read the library anyway).
//
// A rescan walks the whole folder, so connect() skips it when nothing can have changed: the
// watcher has been live over the whole tree since the last complete rescan began, has read no
// event since, has none waiting in the kernel's queue, no debounced rescan pending and no
// sub-folder it could not watch, and the folder holds no symbolic link. Otherwise (no callback
// set, an overflow, a failed rescan, any doubt) it rescans. Changes inotify does not report are
// not seen until a later change or a connect without a watcher: a file written through a hard
// link from outside the folder, or through a shared memory mapping, or by another machine on a
// network file system.
//
// The folders are read from the environment at the first connection (HOME, XDG_CONFIG_HOME's
// user-dirs.dirs, XDG_DATA_HOME), or given to the constructor.
#pragma once

#include <pelio/platform/MediaContent.h>

#include <memory>
#include <mutex>
#include <string>

namespace pelio::platform {

class MediaIndex;
class ContactsFolderWatcher;

class LinuxMediaContentService : public MediaContentService {
  public:
    // Empty paths: the user's music folder and $XDG_DATA_HOME/pelio-platform/media.db.
    explicit LinuxMediaContentService(std::string musicRoot = {}, std::string dbPath = {});
    ~LinuxMediaContentService() override;

    int connect() override;
    int disconnect() override;
    int getMediaList(const std::string& condition, std::vector<MediaInfoRecord>& out) override;
    int getAlbumList(const std::string& condition, std::vector<MediaAlbumRecord>& out) override;
    int getArtistList(const std::string& condition, std::vector<MediaArtistRecord>& out) override;
    int getPlaylistList(std::vector<MediaPlaylistRecord>& out) override;
    int getMediaFromDb(const std::string& mediaId, MediaInfoRecord& out) override;
    void getMediaByIds(const std::vector<std::string>& mediaIds, std::vector<MediaInfoRecord>& out,
                       std::vector<int>& results) override;
    int setDbUpdatedCallback(MediaDbUpdatedCallback cb, void* userData) override;
    int unsetDbUpdatedCallback() override;

    // The music folder: XDG_MUSIC_DIR of $XDG_CONFIG_HOME/user-dirs.dirs ("$HOME/..." or an
    // absolute path), else $HOME/Music.
    static std::string musicDirectory();
    // Whether a filter condition selects music ("", "MEDIA_TYPE=3", blanks allowed); false for
    // any other media type.
    static bool selectsMusic(const std::string& condition);

  private:
    std::shared_ptr<MediaIndex> index();
    // Brings the index in step with the folder, or leaves it when the watcher vouches that
    // nothing changed since the last complete rescan began (changed is then 0).
    int rescan(int& changed);
    // Which watcher, and its count of what it had seen (ContactsFolderWatcher::seen()).
    struct WatchMark {
        unsigned long long watcher = 0;
        unsigned long long seen = 0;
    };
    bool watchMark(WatchMark& mark);  // false without a watcher
    bool quietSince(const WatchMark& mark);
    void onFolderChanged();
    // Starts the folder watch unless one runs (main loop).
    void startWatching();

    std::mutex rescanMutex_;  // one rescan at a time; guards the two below (taken before mutex_)
    bool inStep_ = false;     // the last rescan was complete, and began at inStepMark_
    WatchMark inStepMark_;

    std::mutex mutex_;  // guards everything below
    std::string root_;
    std::string dbPath_;
    std::shared_ptr<MediaIndex> index_;
    int connections_ = 0;
    MediaDbUpdatedCallback callback_ = nullptr;
    void* userData_ = nullptr;
    std::unique_ptr<ContactsFolderWatcher> watcher_;
    unsigned long long watchers_ = 0;  // watchers made so far: tells the current one's marks
    bool watchTried_ = false;          // a watch was started (connect starts one only then)
};

}  // namespace pelio::platform
