// One SQLite connection to the music library index ($XDG_DATA_HOME/pelio-platform/media.db).
//
// Tables: songs (one row per audio file, keyed by path, with its size and modification time so a
// rescan re-reads only changed files), albums (name + album artist), artists, genres (each an
// AUTOINCREMENT id kept for ever, so ids are never reused), playlists and their entries, and
// ignored (files that are not audio, with size and time, so they are logged once, not on every
// rescan).
//
// Threads: any thread; the connection is opened in SQLite's serialised mode, and rescans are
// serialised by a process-wide mutex and BEGIN IMMEDIATE. Errors: MediaContentError codes and
// log lines (tag "PelioPlatform").
#pragma once

#include "StatementCache.h"
#include "pelio/platform/SqliteStatement.h"

#include <pelio/platform/MediaContent.h>

#include <map>
#include <mutex>
#include <optional>
#include <string>
#include <system_error>
#include <vector>

namespace pelio::platform {

class MediaIndex {
  public:
    explicit MediaIndex(const std::string& dbPath);

    bool ok() const { return db_ != nullptr; }

    // Brings the index in step with the folder; changed receives the number of songs and
    // playlists that were added, changed or removed, linked whether the folder is or holds a
    // symbolic link (what a link points to can change with no sign in the folder). A missing
    // folder changes nothing and gives MEDIA_CONTENT_ERROR_NO_DATA.
    int rescan(const std::string& root, int& changed, bool& linked);

    int songs(std::vector<MediaInfoRecord>& out);
    // The songs with these ids, in one read transaction: out[i] and results[i] for ids[i]
    // (MEDIA_CONTENT_ERROR_NO_DATA when there is none; a missing id is left as results[i] was).
    void songsByIds(const std::vector<std::optional<long long>>& ids,
                    std::vector<MediaInfoRecord>& out, std::vector<int>& results);
    int albums(std::vector<MediaAlbumRecord>& out);
    int artists(std::vector<MediaArtistRecord>& out);
    int playlists(std::vector<MediaPlaylistRecord>& out);

    // "00000000-0000-0000-0000-00000000002a" for 42.
    static std::string mediaIdOf(long long id);

  private:
    struct FileStamp {
        long long id = 0;
        long long size = -1;
        long long mtime = -1;
    };
    using StampMap = std::map<std::string, FileStamp>;  // by path

    // The steps of rescan. listFiles walks the folder (an error means the walk was cut short);
    // the others run inside rescan's transaction and return how many items they changed.
    static std::error_code listFiles(const std::string& root, StampMap& files, bool& linked);
    StampMap loadStamps(const char* sql);
    // Writes new and changed files; what it finds is erased from the known maps.
    int updateFiles(const StampMap& files, StampMap& songs, StampMap& lists, StampMap& ignored);
    int removeVanished(const StampMap& songs, const StampMap& lists, const StampMap& ignored);
    bool exec(const char* sql);
    long long nameId(const char* table, const std::string& name);
    long long albumId(const std::string& name, const std::string& artist);
    bool writeSong(const std::string& path, const FileStamp& stamp, long long existingId);
    bool writePlaylist(const std::string& path, const FileStamp& stamp, long long existingId);
    // Reads the songs `st` selects (with `id` bound first unless 0).
    int songsWhere(SqliteStatement& st, long long id, std::vector<MediaInfoRecord>& out);

    SqliteDb db_;
    std::mutex lookupMutex_;  // guards lookups_, used by songsByIds() from any thread
    StatementCache lookups_;
};

}  // namespace pelio::platform
