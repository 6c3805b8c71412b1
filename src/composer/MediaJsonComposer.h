// MediaJsonComposer: turns the media shadow tables into upload documents (sync item 2): one
// "audio" document per song row, "audio album" per album, "audio artist" per artist and
// "audio playlist" per playlist, all in one body (media documents are not cut into batches).
// Rows are those with dirty != 4, read in keyset pages; a song's texts come from the media
// content service. Ids: the kind's prefix ("aud_", "aab_", "aat_", "apl_", "agr_") in the
// 12-wide fixed form around the row's decimal "audio_id" / "playlist_id"; a song's audio_id is
// its platform media id converted by getHexToLongId. Every composed id is recorded in the
// result's sentRows with the row's key, its dirty value and its content stamp.
//
// Threads: one composer object on one thread (the sync manager's worker, under its media lock);
// it connects to the media content service for the call. The document counter is process-wide.
// Ownership: made and destroyed by JSONComposer::makeSyncData(2); makeUploadJSON()'s record
// belongs to the caller.
// Errors: failed queries or look-ups only reduce what is written (a live song that is no longer
// in the library is left out and stays dirty); the result is always a record of item 2, with
// counts -1 and no body when there is nothing to send.
#pragma once

#include <string>
#include <vector>

#include <pelio/platform/MediaContent.h>

#include "composer/JSONComposer.h"
#include "composer/JsonTextWriter.h"

// One row to compose, completed from the media content service for songs.
struct MediaComposeRecord {
    int type = 0;    // 1 song, 2 playlist, 3 album, 4 artist, 5 genre
    std::string id;  // decimal audio_id / playlist_id
    std::string revision;
    int dirty = 0;
    std::string stamp;  // "device_mode" of an audio row
    std::string displayName, title, album, albumId, artist, artistId, genre, genreId;
    int songsCount = 0;
    bool found = true;  // a song still in the library
};

class MediaJsonComposer : public JSONComposer {
  public:
    static constexpr size_t kIdWidth = 12;
    static constexpr int kSelectPageRows = 400;
    static constexpr size_t kLookupRows = 64;  // rows whose songs are looked up together
    // Documents per body when a sink takes the bodies: a multiple of both part sizes, so the
    // server receives the same parts as from one body holding everything.
    static constexpr guint kStreamBodyDocs = 1000;

    MediaJsonComposer();
    ~MediaJsonComposer() override;

    std::unique_ptr<SyncData> makeUploadJSON();

    // Row -> record; a song is completed from the media content service.
    MediaComposeRecord getSongInfoObject(const std::string& id, const std::string& rev, int dirty);
    MediaComposeRecord getAlbumInfoObject(const std::string& id, const std::string& rev, int dirty,
                                          const std::string& album, const std::string& artist);
    MediaComposeRecord getArtistInfoObject(const std::string& id, const std::string& rev, int dirty,
                                           const std::string& artist);
    MediaComposeRecord getPlaylistInfoObject(const std::string& id, const std::string& rev,
                                             int dirty, const std::string& name, int count);

    // Record -> document appended to the array (deletion document at dirty 2).
    void makeSongItemJson(const MediaComposeRecord& record);
    void makeAlbumItemJson(const MediaComposeRecord& record);
    void makeArtistItemJson(const MediaComposeRecord& record);
    void makeGenreItemJson(const MediaComposeRecord& record);
    void makePlaylistItemJson(const MediaComposeRecord& record);

    // A media id in hexadecimal text as a number: every character that is not a hexadecimal
    // digit ("-", ":", blanks, braces) is removed first; 0 when no digit is left or the number
    // does not fit.
    static unsigned long getHexToLongId(const std::string& mediaId);

  private:
    // The media id of a song row's decimal audio_id.
    static std::string _mediaIdOf(const std::string& id);
    // Completes a song's record from what the look-up gave (ret its result).
    static void _fillSong(MediaComposeRecord& record, int ret,
                          const pelio::platform::MediaInfoRecord& media);
    void _readAudioRows();
    void _readPlaylistRows();
    // Writes the record's document into the body (as JSON text: a JSON-GLib tree of each
    // document would cost several times more to build, serialise and free); `meta` writes the
    // members of its "meta_data".
    using WriteMeta = void (*)(JsonTextWriter&, const MediaComposeRecord&);
    void _append(const MediaComposeRecord& record, const char* prefix, const char* type,
                 WriteMeta meta);
    // Hands the documents so far to the sink once a streamed body is full.
    void _emitFullBody();
    // Closes the body being written and returns its text.
    std::string _takeBody();
    // Every record of list through make, until the sink stops the upload.
    void _composeAll(const std::vector<MediaComposeRecord>& list,
                     void (MediaJsonComposer::*make)(const MediaComposeRecord&));
    // Looks the selected songs up and makes their documents, until the sink stops the upload;
    // empties the list.
    void _composeSongs();

    // A selected song row, kept until its document is made (at most kLookupRows of them); the
    // song itself is looked up then.
    struct SongRow {
        std::string id;
        std::string revision;
        std::string stamp;  // "device_mode"
        int dirty = 0;
    };

    JsonTextWriter mBody;  // {"docs":[ and the documents so far, once the first is written
    guint mBodyDocs = 0;
    std::vector<SongRow> mSongs;
    std::vector<MediaComposeRecord> mAlbums, mArtists, mPlaylists;
    int mInserted = 0, mUpdated = 0, mDeleted = 0;
    std::shared_ptr<SentRows> mSentRows;
    SyncData* mRecord = nullptr;  // the record makeUploadJSON fills
    bool mStopped = false;        // the sink asked to stop
};
