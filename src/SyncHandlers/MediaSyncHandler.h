// MediaSyncHandler: the music library collector (sync item 2). Its syncData() mirrors the media
// content service's songs, albums, artists and playlists into the local tables "audio" (songs
// type 1, albums 3, artists 4, keyed by "audio_id" + "type") and "audio_playlist" (keyed by
// "playlist_id"), with the dirty flags the media composer turns into documents:
//   - an item not in the table is inserted (dirty 1);
//   - an item in the table is updated (dirty 3, or still 1 when it was never uploaded) when what
//     its document shows changed: a song's title, album, artist or genre, an album's name or
//     artist, an artist's name (kept as a content stamp in the row's otherwise unused
//     "device_mode"), a playlist's name or song count; otherwise it is left alone (a row at 4
//     stays 4);
//   - a row whose item is gone from the library becomes dirty 2, or is removed at once when it
//     was never uploaded (no revision).
// A forced request (99) empties the tables first. Tables are read in keyset pages.
//
// Threads: syncData() runs on this handler's worker thread under the sync manager's media lock,
// with its own media-content connection. Ownership: a process-wide singleton (getInstance /
// deleteInstance). Errors: syncData() returns 0 (collected: the composer decides whether there is
// anything to send), 2 (interrupted by a forced request or a stop: the writes are rolled back) or
// 1 (the library or the tables could not be read: nothing is written, status "1").
#pragma once

#include <glib.h>

#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "SyncHandlers/BaseSyncHandler.h"

// One platform item or stored row.
struct MediaInfo {
    std::string name;      // display name (song), playlist name
    std::string media_id;  // decimal id: song / album / artist id or playlist id
    std::string artist_name;
    std::string album_name;
    int type = 1;   // 1 song, 2 playlist, 3 album, 4 artist
    int count = 0;  // playlist song count
    long date_added = 0;
    int action = 0;  // the "dirty" value to write: 1 insert, otherwise update
    // Row state (stored rows) and the song's tag stamp.
    std::string rev_id;
    int dirty = 0;
    long long stamp = 0;
    bool seen = false;   // found in the library during this run
    bool write = false;  // to be written back
    bool isNew = false;  // written as an INSERT
};

// Value-free function of the maps ("mediaInfo[%p]").
void free_media_info(gpointer info);

class MediaSyncHandler : public BaseSyncHandler {
  public:
    static MediaSyncHandler* getInstance();
    static void deleteInstance();

    explicit MediaSyncHandler(SyncHandlerHost* host);
    ~MediaSyncHandler() override;

    int syncData(int syncType) override;

    // The content stamp of an "audio" row: a hash of a song's title, album, artist and genre
    // (albums: name and artist; artists: name; the others empty). Never 0.
    static long long tagStamp(const std::string& title, const std::string& album,
                              const std::string& artist, const std::string& genre);
    // Map key of an "audio" row or item: "<type>:<id>".
    static std::string audioKey(int type, const std::string& id);

    // Rows per SELECT page of the two tables.
    static constexpr int kAudioPageRows = 400;
    static constexpr int kPlaylistPageRows = 600;

  private:
    using InfoMap = pelio::GHashTablePtr;

    bool prepareMapfromData();
    bool _prepareAudioPlaylistMap();
    bool _collect(std::vector<std::unique_ptr<MediaInfo>>& queue);
    void _decide(std::vector<std::unique_ptr<MediaInfo>>& queue);
    void _markGone();
    // Writes the rows to write and removes the removed ones, in one transaction; 2 (rolled back)
    // when a forced sync is pending.
    int _writeBack();

    InfoMap mAudioMap;
    InfoMap mPlaylistMap;
    // Rows removed locally (entries of the maps), and whether each is a playlist's.
    std::vector<std::pair<const MediaInfo*, bool>> mRemovals;
};
