// The media content service on Linux: the music folder indexed into
// $XDG_DATA_HOME/pelio-platform/media.db (see MediaContent.h for the model).
//
// connect() (any thread, counted) opens the index on the first call and rescans the folder on
// every call, so a collection never reads a stale index. setDbUpdatedCallback() (main loop)
// starts watching the folder; a change seen there is rescanned on the main loop and, when the
// rescan found changes, the callback runs there once. Rescans from connect() do not call it (the
// caller is about to read the library anyway).
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
    int rescan(int& changed);
    void onFolderChanged();

    std::mutex mutex_;        // guards everything below
    std::mutex rescanMutex_;  // one rescan at a time
    std::string root_;
    std::string dbPath_;
    std::shared_ptr<MediaIndex> index_;
    int connections_ = 0;
    MediaDbUpdatedCallback callback_ = nullptr;
    void* userData_ = nullptr;
    std::unique_ptr<ContactsFolderWatcher> watcher_;
};

}  // namespace pelio::platform
