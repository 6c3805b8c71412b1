// Media content service: the device's music library.
//
// Linux: audio files under the user's music directory (XDG_MUSIC_DIR of
// $XDG_CONFIG_HOME/user-dirs.dirs, else ~/Music), tags read with TagLib (MP3 with ID3v1/ID3v2,
// FLAC and Ogg Vorbis with Xiph comments, MP4/M4A), playlists from the .m3u / .m3u8 files there,
// indexed into $XDG_DATA_HOME/pelio-platform/media.db.
//
// Ids: songs, albums, artists, genres and playlists each have their own stable positive integer
// ids (AUTOINCREMENT, never reused). A song keeps its id while its file stays at its path; an album
// (name + album artist), an artist or a genre keeps its id for ever, and lists show only those with
// songs in the library. A song's media id is that integer as hexadecimal text in the
// "00000000-0000-0000-0000-00000000002a" form; look-ups accept any hexadecimal text of the id
// ("-" separators are ignored).
//
// Rescans: connect() rescans the folder, reading again only the files whose size or
// modification time changed. While a db-updated callback is set, inotify on the folder triggers a
// rescan on the main loop and, when it found changes, one callback call (media type music).
// An unreadable file never drops an indexed song; a folder that is missing leaves the index as it
// is (both logged).
//
// Threads: connect()/disconnect() and the list / look-up calls from any thread (the index is one
// serialised SQLite connection); set/unsetDbUpdatedCallback() and the callback on the main loop.
// Errors are MediaContentError codes and log lines (tag "PelioPlatform").
#pragma once

#include <memory>
#include <string>
#include <vector>

namespace pelio::platform {

enum MediaContentError {
    MEDIA_CONTENT_ERROR_NONE = 0,
    MEDIA_CONTENT_ERROR_INVALID_PARAMETER = -22,
    MEDIA_CONTENT_ERROR_NO_DATA = -61,
    MEDIA_CONTENT_ERROR_DB_FAILED = -5,
    MEDIA_CONTENT_ERROR_NOT_CONNECTED = -107,
};

// Media types; a filter condition "MEDIA_TYPE=3" selects music.
enum MediaContentType {
    MEDIA_CONTENT_TYPE_IMAGE = 0,
    MEDIA_CONTENT_TYPE_VIDEO = 1,
    MEDIA_CONTENT_TYPE_SOUND = 2,
    MEDIA_CONTENT_TYPE_MUSIC = 3,
    MEDIA_CONTENT_TYPE_OTHERS = 4,
};

// What a db-updated notification is about.
enum MediaContentDbUpdateItem { MEDIA_ITEM_FILE = 0, MEDIA_ITEM_DIRECTORY = 1 };
enum MediaContentDbUpdateType {
    MEDIA_CONTENT_INSERT = 0,
    MEDIA_CONTENT_DELETE = 1,
    MEDIA_CONTENT_UPDATE = 2
};

// One song.
struct MediaInfoRecord {
    std::string mediaId;      // hexadecimal text of the song id
    long long id = 0;         // the song id
    std::string displayName;  // file name
    std::string filePath;
    std::string mimeType;
    long long addedTime = 0;  // seconds since the epoch when it was first indexed
    int mediaType = MEDIA_CONTENT_TYPE_MUSIC;
    std::string title;  // tag title, else the file name without its extension
    std::string album, artist, genre;
    long long albumId = 0, artistId = 0, genreId = 0;  // 0: no such tag
};

struct MediaAlbumRecord {
    long long albumId = 0;
    std::string name;
    std::string artist;  // album artist, else the artist of its songs
    long long artistId = 0;
};

struct MediaArtistRecord {
    long long artistId = 0;
    std::string name;
};

struct MediaPlaylistRecord {
    long long playlistId = 0;
    std::string name;   // file name without extension
    int songCount = 0;  // entries that name songs of the library
};

using MediaDbUpdatedCallback = void (*)(int error, int pid, int updateItem, int updateType,
                                        int mediaType, const char* uuid, const char* path,
                                        const char* mimeType, void* userData);

class MediaContentService {
  public:
    virtual ~MediaContentService() = default;

    virtual int connect() = 0;
    virtual int disconnect() = 0;

    // Songs matching the filter condition ("MEDIA_TYPE=3"; empty: all), by id.
    virtual int getMediaList(const std::string& condition, std::vector<MediaInfoRecord>& out) = 0;
    // Albums and artists that have songs matching the condition, by id.
    virtual int getAlbumList(const std::string& condition, std::vector<MediaAlbumRecord>& out) = 0;
    virtual int getArtistList(const std::string& condition,
                              std::vector<MediaArtistRecord>& out) = 0;
    virtual int getPlaylistList(std::vector<MediaPlaylistRecord>& out) = 0;
    // One song by media id; MEDIA_CONTENT_ERROR_NO_DATA when it is not in the library.
    virtual int getMediaFromDb(const std::string& mediaId, MediaInfoRecord& out) = 0;
    // Several of those at once: results[i] and out[i] are what getMediaFromDb(mediaIds[i])
    // gives. The default asks one by one; a service with an index reads them all in one go.
    virtual void getMediaByIds(const std::vector<std::string>& mediaIds,
                               std::vector<MediaInfoRecord>& out, std::vector<int>& results) {
        out.assign(mediaIds.size(), MediaInfoRecord{});
        results.assign(mediaIds.size(), MEDIA_CONTENT_ERROR_NONE);
        for (std::size_t i = 0; i < mediaIds.size(); ++i)
            results[i] = getMediaFromDb(mediaIds[i], out[i]);
    }

    // One callback at a time; setting starts watching the folder.
    virtual int setDbUpdatedCallback(MediaDbUpdatedCallback cb, void* userData) = 0;
    virtual int unsetDbUpdatedCallback() = 0;
};

MediaContentService& mediaContentService();
void installMediaContentService(std::unique_ptr<MediaContentService> impl);

}  // namespace pelio::platform
