#include "MediaIndex.h"

#include "AudioTagReader.h"
#include "M3uPlaylistReader.h"

#include <pelio/platform/Log.h>

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cinttypes>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <filesystem>
#include <map>
#include <memory>
#include <mutex>
#include <set>
#include <system_error>

namespace pelio::platform {
namespace {

constexpr const char* kTag = "PelioPlatform";

std::mutex& writerMutex() {
    static std::mutex m;
    return m;
}

bool isPlaylist(const std::filesystem::path& path) {
    std::string ext = path.extension().string();
    std::transform(ext.begin(), ext.end(), ext.begin(),
                   [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
    return ext == ".m3u" || ext == ".m3u8";
}

constexpr const char* kSongColumns =
    "SELECT s.id, s.path, s.mime, s.added, s.title, s.album_id, s.artist_id, s.genre_id, "
    "COALESCE(al.name, ''), COALESCE(ar.name, ''), COALESCE(g.name, '') FROM songs s "
    "LEFT JOIN albums al ON al.id = s.album_id LEFT JOIN artists ar ON ar.id = s.artist_id "
    "LEFT JOIN genres g ON g.id = s.genre_id ";
const std::string kSongById = std::string(kSongColumns) + "WHERE s.id = ?";

}  // namespace

MediaIndex::MediaIndex(const std::string& dbPath) {
    db_ = openIndexDatabase(dbPath, "media");
    if (!db_)
        return;
    std::lock_guard<std::mutex> guard(writerMutex());
    const bool created =
        exec("BEGIN IMMEDIATE") &&
        exec(
            "CREATE TABLE IF NOT EXISTS songs(id INTEGER PRIMARY KEY AUTOINCREMENT, "
            "path TEXT UNIQUE NOT NULL, size INTEGER NOT NULL, mtime INTEGER NOT NULL, "
            "added INTEGER NOT NULL, mime TEXT NOT NULL, title TEXT NOT NULL, "
            "album_id INTEGER NOT NULL, artist_id INTEGER NOT NULL, genre_id INTEGER NOT NULL)") &&
        exec(
            "CREATE TABLE IF NOT EXISTS albums(id INTEGER PRIMARY KEY AUTOINCREMENT, "
            "name TEXT NOT NULL, artist TEXT NOT NULL, artist_id INTEGER NOT NULL, "
            "UNIQUE(name, artist))") &&
        exec(
            "CREATE TABLE IF NOT EXISTS artists(id INTEGER PRIMARY KEY AUTOINCREMENT, "
            "name TEXT UNIQUE NOT NULL)") &&
        exec(
            "CREATE TABLE IF NOT EXISTS genres(id INTEGER PRIMARY KEY AUTOINCREMENT, "
            "name TEXT UNIQUE NOT NULL)") &&
        exec(
            "CREATE TABLE IF NOT EXISTS playlists(id INTEGER PRIMARY KEY AUTOINCREMENT, "
            "path TEXT UNIQUE NOT NULL, name TEXT NOT NULL, size INTEGER NOT NULL, "
            "mtime INTEGER NOT NULL)") &&
        exec(
            "CREATE TABLE IF NOT EXISTS playlist_entries(playlist_id INTEGER NOT NULL, "
            "position INTEGER NOT NULL, path TEXT NOT NULL, PRIMARY KEY(playlist_id, position))") &&
        exec(
            "CREATE TABLE IF NOT EXISTS ignored(path TEXT PRIMARY KEY, size INTEGER NOT NULL, "
            "mtime INTEGER NOT NULL)") &&
        // The album and artist lists ask, per album and per artist, whether a song has it: by
        // index, not a scan of every song per row.
        exec("CREATE INDEX IF NOT EXISTS songs_album ON songs(album_id)") &&
        exec("CREATE INDEX IF NOT EXISTS songs_artist ON songs(artist_id)") &&
        exec("CREATE INDEX IF NOT EXISTS albums_artist ON albums(artist_id)") && exec("COMMIT");
    if (!created) {
        exec("ROLLBACK");
        db_.reset();
    }
}

bool MediaIndex::exec(const char* sql) {
    char* error = nullptr;
    if (sqlite3_exec(db_.get(), sql, nullptr, nullptr, &error) != SQLITE_OK) {
        dlog_print(DLOG_ERROR, kTag, "media: SQL failed (%s): %s", sql,
                   error ? error : sqlite3_errmsg(db_.get()));
        sqlite3_free(error);
        return false;
    }
    return true;
}

std::string MediaIndex::mediaIdOf(long long id) {
    char text[40];
    std::snprintf(text, sizeof text, "00000000-0000-0000-0000-%012llx", id);
    return text;
}

long long MediaIndex::nameId(const char* table, const std::string& name) {
    if (name.empty())
        return 0;
    const std::string ins = std::string("INSERT OR IGNORE INTO ") + table + "(name) VALUES(?)";
    const std::string sel = std::string("SELECT id FROM ") + table + " WHERE name = ?";
    SqliteStatement insert(db_.get(), ins.c_str());
    insert.bind(1, name).run();
    SqliteStatement select(db_.get(), sel.c_str());
    return select.bind(1, name).step() == SQLITE_ROW ? select.columnInt64(0) : 0;
}

long long MediaIndex::albumId(const std::string& name, const std::string& artist) {
    if (name.empty())
        return 0;
    const long long artistId = nameId("artists", artist);
    SqliteStatement insert(db_.get(),
                           "INSERT OR IGNORE INTO albums(name, artist, artist_id) VALUES(?,?,?)");
    insert.bind(1, name).bind(2, artist).bind(3, artistId).run();
    SqliteStatement select(db_.get(), "SELECT id FROM albums WHERE name = ? AND artist = ?");
    return select.bind(1, name).bind(2, artist).step() == SQLITE_ROW ? select.columnInt64(0) : 0;
}

bool MediaIndex::writeSong(const std::string& path, const FileStamp& stamp, long long existingId) {
    AudioTags tags;
    std::string why;
    if (!AudioTagReader::read(path, tags, why)) {
        if (existingId != 0) {
            dlog_print(DLOG_WARN, kTag, "media: %s cannot be read (%s); its song is kept",
                       path.c_str(), why.c_str());
            return false;
        }
        dlog_print(DLOG_INFO, kTag, "media: %s ignored: %s", path.c_str(), why.c_str());
        SqliteStatement ignore(db_.get(),
                               "INSERT OR REPLACE INTO ignored(path, size, mtime) VALUES(?,?,?)");
        ignore.bind(1, path).bind(2, stamp.size).bind(3, stamp.mtime).run();
        return false;
    }
    if (tags.title.empty())
        tags.title = std::filesystem::path(path).stem().string();
    const std::string albumArtist = tags.albumArtist.empty() ? tags.artist : tags.albumArtist;
    const long long album = albumId(tags.album, albumArtist);
    const long long artist = nameId("artists", tags.artist);
    const long long genre = nameId("genres", tags.genre);
    if (existingId == 0) {
        SqliteStatement ins(db_.get(),
                            "INSERT INTO songs(path, size, mtime, added, mime, title, album_id, "
                            "artist_id, genre_id) VALUES(?,?,?,?,?,?,?,?,?)");
        ins.bind(1, path).bind(2, stamp.size).bind(3, stamp.mtime);
        ins.bind(4, static_cast<long long>(std::time(nullptr))).bind(5, tags.mimeType);
        ins.bind(6, tags.title).bind(7, album).bind(8, artist).bind(9, genre);
        SqliteStatement forget(db_.get(), "DELETE FROM ignored WHERE path = ?");
        forget.bind(1, path).run();
        return ins.run();
    }
    SqliteStatement upd(db_.get(),
                        "UPDATE songs SET size = ?, mtime = ?, mime = ?, title = ?, album_id = ?, "
                        "artist_id = ?, genre_id = ? WHERE id = ?");
    upd.bind(1, stamp.size).bind(2, stamp.mtime).bind(3, tags.mimeType).bind(4, tags.title);
    upd.bind(5, album).bind(6, artist).bind(7, genre).bind(8, existingId);
    return upd.run();
}

bool MediaIndex::writePlaylist(const std::string& path, const FileStamp& stamp,
                               long long existingId) {
    std::vector<std::string> entries;
    if (!M3uPlaylistReader::read(path, entries)) {
        dlog_print(DLOG_WARN, kTag, "media: playlist %s cannot be read", path.c_str());
        return false;
    }
    long long id = existingId;
    const std::string name = std::filesystem::path(path).stem().string();
    if (id == 0) {
        SqliteStatement ins(db_.get(),
                            "INSERT INTO playlists(path, name, size, mtime) VALUES(?,?,?,?)");
        if (!ins.bind(1, path).bind(2, name).bind(3, stamp.size).bind(4, stamp.mtime).run())
            return false;
        id = sqlite3_last_insert_rowid(db_.get());
    } else {
        SqliteStatement upd(db_.get(), "UPDATE playlists SET size = ?, mtime = ? WHERE id = ?");
        upd.bind(1, stamp.size).bind(2, stamp.mtime).bind(3, id).run();
        SqliteStatement clear(db_.get(), "DELETE FROM playlist_entries WHERE playlist_id = ?");
        clear.bind(1, id).run();
    }
    SqliteStatement add(db_.get(),
                        "INSERT INTO playlist_entries(playlist_id, position, path) VALUES(?,?,?)");
    int position = 0;
    for (const auto& entry : entries) {
        std::error_code ec;
        if (!std::filesystem::is_regular_file(entry, ec)) {
            dlog_print(DLOG_WARN, kTag, "media: playlist %s names a missing file %s", path.c_str(),
                       entry.c_str());
        }
        add.reset();
        add.bind(1, id).bind(2, position++).bind(3, entry).run();
    }
    return true;
}

int MediaIndex::rescan(const std::string& root, int& changed, bool& linked) {
    changed = 0;
    std::error_code ec;
    linked = std::filesystem::is_symlink(root, ec);
    if (!std::filesystem::is_directory(root, ec)) {
        dlog_print(DLOG_WARN, kTag, "media: music folder %s is missing; the library is kept",
                   root.c_str());
        return MEDIA_CONTENT_ERROR_NO_DATA;
    }
    StampMap files;
    ec = listFiles(root, files, linked);
    if (ec) {
        // A walk cut short would look like removed files: keep the index as it is.
        dlog_print(DLOG_WARN, kTag, "media: reading %s failed (%s); the library is kept",
                   root.c_str(), ec.message().c_str());
        return MEDIA_CONTENT_ERROR_NO_DATA;
    }

    std::lock_guard<std::mutex> guard(writerMutex());
    if (!exec("BEGIN IMMEDIATE"))
        return MEDIA_CONTENT_ERROR_DB_FAILED;
    auto songs = loadStamps("SELECT path, id, size, mtime FROM songs");
    auto lists = loadStamps("SELECT path, id, size, mtime FROM playlists");
    auto ignored = loadStamps("SELECT path, 0, size, mtime FROM ignored");
    changed += updateFiles(files, songs, lists, ignored);
    // What is left in the maps was not found in the folder.
    changed += removeVanished(songs, lists, ignored);
    if (!exec("COMMIT")) {
        exec("ROLLBACK");
        return MEDIA_CONTENT_ERROR_DB_FAILED;
    }
    return MEDIA_CONTENT_ERROR_NONE;
}

std::error_code MediaIndex::listFiles(const std::string& root, StampMap& files, bool& linked) {
    // Folder by folder: each entry is looked at relative to its open folder (fstatat), which
    // spares the kernel a walk of the whole path per file. Folders the service may not read are
    // skipped; any other failure cuts the walk short. A link is followed (its file is indexed)
    // and noted; a linked folder is not entered.
    std::string top = std::filesystem::path(root).lexically_normal().string();
    while (top.size() > 1 && top.back() == '/')
        top.pop_back();
    std::vector<std::string> folders{top};
    while (!folders.empty()) {
        const std::string folder = std::move(folders.back());
        folders.pop_back();
        const bool isRoot = folder == top;
        const int fd =
            open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC | (isRoot ? 0 : O_NOFOLLOW));
        if (fd < 0 && errno == EACCES && !isRoot)
            continue;
        if (fd < 0)
            return {errno, std::generic_category()};
        const std::unique_ptr<DIR, int (*)(DIR*)> dir(fdopendir(fd), closedir);
        if (!dir) {
            const int error = errno;
            close(fd);
            return {error, std::generic_category()};
        }
        const std::string prefix = folder == "/" ? "" : folder;
        for (;;) {
            errno = 0;
            const struct dirent* entry = readdir(dir.get());
            if (entry == nullptr && errno != 0)
                return {errno, std::generic_category()};
            if (entry == nullptr)
                break;
            const char* name = entry->d_name;
            if (std::strcmp(name, ".") == 0 || std::strcmp(name, "..") == 0)
                continue;
            std::string path = prefix + "/" + name;
            struct stat st {};
            if (fstatat(fd, name, &st, AT_SYMLINK_NOFOLLOW) != 0)
                continue;
            if (S_ISDIR(st.st_mode)) {
                folders.push_back(std::move(path));
                continue;
            }
            if (S_ISLNK(st.st_mode)) {
                linked = true;
                if (fstatat(fd, name, &st, 0) != 0)
                    continue;
            }
            if (S_ISREG(st.st_mode)) {
                files[std::move(path)] = {
                    0, static_cast<long long>(st.st_size),
                    static_cast<long long>(st.st_mtim.tv_sec) * 1000000000LL + st.st_mtim.tv_nsec};
            }
        }
    }
    return {};
}

MediaIndex::StampMap MediaIndex::loadStamps(const char* sql) {
    StampMap known;
    SqliteStatement st(db_.get(), sql);
    while (st.step() == SQLITE_ROW)
        known[st.columnText(0)] = {st.columnInt64(1), st.columnInt64(2), st.columnInt64(3)};
    return known;
}

int MediaIndex::updateFiles(const StampMap& files, StampMap& songs, StampMap& lists,
                            StampMap& ignored) {
    int changed = 0;
    for (const auto& [path, stamp] : files) {
        const bool playlist = isPlaylist(path);
        auto& known = playlist ? lists : songs;
        const auto found = known.find(path);
        const long long id = found == known.end() ? 0 : found->second.id;
        if (found != known.end()) {
            const bool same =
                found->second.size == stamp.size && found->second.mtime == stamp.mtime;
            known.erase(found);  // seen: not removed
            if (same)
                continue;
        } else if (!playlist) {
            const auto skip = ignored.find(path);
            if (skip != ignored.end() && skip->second.size == stamp.size &&
                skip->second.mtime == stamp.mtime) {
                ignored.erase(skip);
                continue;
            }
        }
        ignored.erase(path);
        if (playlist ? writePlaylist(path, stamp, id) : writeSong(path, stamp, id))
            ++changed;
    }
    return changed;
}

int MediaIndex::removeVanished(const StampMap& songs, const StampMap& lists,
                               const StampMap& ignored) {
    int changed = 0;
    for (const auto& [path, stamp] : songs) {
        SqliteStatement del(db_.get(), "DELETE FROM songs WHERE id = ?");
        if (del.bind(1, stamp.id).run())
            ++changed;
    }
    for (const auto& [path, stamp] : lists) {
        SqliteStatement del(db_.get(), "DELETE FROM playlists WHERE id = ?");
        SqliteStatement entries(db_.get(), "DELETE FROM playlist_entries WHERE playlist_id = ?");
        entries.bind(1, stamp.id).run();
        if (del.bind(1, stamp.id).run())
            ++changed;
    }
    for (const auto& [path, stamp] : ignored) {
        SqliteStatement del(db_.get(), "DELETE FROM ignored WHERE path = ?");
        del.bind(1, path).run();
    }
    return changed;
}

int MediaIndex::songsWhere(SqliteStatement& st, long long id, std::vector<MediaInfoRecord>& out) {
    if (!st.ok())
        return MEDIA_CONTENT_ERROR_DB_FAILED;
    if (id != 0)
        st.bind(1, id);
    int rc;
    while ((rc = st.step()) == SQLITE_ROW) {
        MediaInfoRecord r;
        r.id = st.columnInt64(0);
        r.mediaId = mediaIdOf(r.id);
        r.filePath = st.columnText(1);
        r.displayName = std::filesystem::path(r.filePath).filename().string();
        r.mimeType = st.columnText(2);
        r.addedTime = st.columnInt64(3);
        r.title = st.columnText(4);
        r.albumId = st.columnInt64(5);
        r.artistId = st.columnInt64(6);
        r.genreId = st.columnInt64(7);
        r.album = st.columnText(8);
        r.artist = st.columnText(9);
        r.genre = st.columnText(10);
        out.push_back(std::move(r));
    }
    return rc == SQLITE_DONE ? MEDIA_CONTENT_ERROR_NONE : MEDIA_CONTENT_ERROR_DB_FAILED;
}

int MediaIndex::songs(std::vector<MediaInfoRecord>& out) {
    SqliteStatement st(db_.get(), std::string(kSongColumns) + "ORDER BY s.id");
    return songsWhere(st, 0, out);
}

void MediaIndex::songsByIds(const std::vector<std::optional<long long>>& ids,
                            std::vector<MediaInfoRecord>& out, std::vector<int>& results) {
    // An upload looks its songs up a few dozen at a time: one read transaction for them, and
    // statements prepared once. No rescan runs meanwhile (it writes on this connection).
    const std::lock_guard<std::mutex> writer(writerMutex());
    const std::lock_guard<std::mutex> lock(lookupMutex_);
    const bool inTransaction = lookups_.get(db_.get(), "BEGIN")->step() == SQLITE_DONE;
    for (std::size_t i = 0; i < ids.size(); ++i) {
        if (!ids[i])
            continue;
        std::vector<MediaInfoRecord> found;
        results[i] = songsWhere(*lookups_.get(db_.get(), kSongById.c_str()), *ids[i], found);
        if (results[i] == MEDIA_CONTENT_ERROR_NONE && found.empty())
            results[i] = MEDIA_CONTENT_ERROR_NO_DATA;
        else if (results[i] == MEDIA_CONTENT_ERROR_NONE)
            out[i] = std::move(found.front());
    }
    if (inTransaction)
        lookups_.get(db_.get(), "COMMIT")->step();
}

int MediaIndex::albums(std::vector<MediaAlbumRecord>& out) {
    SqliteStatement st(db_.get(),
                       "SELECT id, name, artist, artist_id FROM albums a WHERE EXISTS "
                       "(SELECT 1 FROM songs s WHERE s.album_id = a.id) ORDER BY id");
    int rc;
    while ((rc = st.step()) == SQLITE_ROW)
        out.push_back({st.columnInt64(0), st.columnText(1), st.columnText(2), st.columnInt64(3)});
    return rc == SQLITE_DONE ? MEDIA_CONTENT_ERROR_NONE : MEDIA_CONTENT_ERROR_DB_FAILED;
}

int MediaIndex::artists(std::vector<MediaArtistRecord>& out) {
    SqliteStatement st(db_.get(),
                       "SELECT id, name FROM artists r WHERE EXISTS (SELECT 1 FROM songs s WHERE "
                       "s.artist_id = r.id) OR EXISTS (SELECT 1 FROM albums a JOIN songs s ON "
                       "s.album_id = a.id WHERE a.artist_id = r.id) ORDER BY id");
    int rc;
    while ((rc = st.step()) == SQLITE_ROW)
        out.push_back({st.columnInt64(0), st.columnText(1)});
    return rc == SQLITE_DONE ? MEDIA_CONTENT_ERROR_NONE : MEDIA_CONTENT_ERROR_DB_FAILED;
}

int MediaIndex::playlists(std::vector<MediaPlaylistRecord>& out) {
    SqliteStatement st(db_.get(),
                       "SELECT p.id, p.name, (SELECT COUNT(*) FROM playlist_entries e JOIN songs "
                       "s ON s.path = e.path WHERE e.playlist_id = p.id) FROM playlists p "
                       "ORDER BY p.id");
    int rc;
    while ((rc = st.step()) == SQLITE_ROW)
        out.push_back({st.columnInt64(0), st.columnText(1), st.columnInt(2)});
    return rc == SQLITE_DONE ? MEDIA_CONTENT_ERROR_NONE : MEDIA_CONTENT_ERROR_DB_FAILED;
}

}  // namespace pelio::platform
