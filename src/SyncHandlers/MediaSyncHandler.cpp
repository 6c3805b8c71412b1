#include "SyncHandlers/MediaSyncHandler.h"

#include <pelio/platform/MediaContent.h>
#include <pelio/platform/SqliteStatement.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "PLMConstants.h"
#include "PelioLog.h"
#include "SyncHandlers/HandlerInstance.h"
#include "composer/MediaJsonComposer.h"
#include "database/DbManager.h"
#include "database/KeysetReader.h"
#include "upload/PLMSyncMasterTable.h"
#include "utils/BundleMacro.h"

using pelio::platform::Bundle;
namespace pp = pelio::platform;

namespace {

constexpr const char* kAudioTable = "audio";
constexpr const char* kPlaylistTable = "audio_playlist";
constexpr int kTypeSong = 1;
constexpr int kTypePlaylist = 2;
constexpr int kTypeAlbum = 3;
constexpr int kTypeArtist = 4;

std::string column(const Bundle& row, int n) {
    std::string value = getValStr(&row, columnKey(n));
    return value == "NULL" ? std::string() : value;
}

MediaInfo* lookup(GHashTable* map, const std::string& key) {
    return static_cast<MediaInfo*>(g_hash_table_lookup(map, key.c_str()));
}

void put(GHashTable* map, const std::string& key, MediaInfo* info) {
    g_hash_table_replace(map, g_strdup(key.c_str()), info);
}

// The writes of one collection into the shadow tables, prepared once on the transaction's
// connection. Values are bound as text (the columns' types turn numbers back into numbers); a new
// row leaves empty texts NULL, an updated one takes them as they are. A song's row keeps no names;
// an artist's keeps its name, an album's its name and artist. The content stamp ("device_mode")
// is what the document shows, so an answer for older content is not taken for the row.
class ShadowStatements {
  public:
    explicit ShadowStatements(sqlite3* db)
        : removeAudio_(db, "DELETE FROM audio WHERE audio_id = ? and type = ?"),
          removePlaylist_(db, "DELETE FROM audio_playlist WHERE playlist_id = ?"),
          insertAudio_(db,
                       "INSERT INTO audio (audio_id, date_added, type, dirty, artist_name, "
                       "album_name, device_mode) VALUES (?, ?, ?, ?, ?, ?, ?)"),
          updateSong_(db,
                      "UPDATE audio SET audio_id = ?1, date_added = ?2, type = ?3, dirty = ?4, "
                      "device_mode = ?7 WHERE audio_id = ?1 and type = ?3"),
          updateArtist_(db,
                        "UPDATE audio SET audio_id = ?1, date_added = ?2, type = ?3, dirty = ?4, "
                        "artist_name = ?5, device_mode = ?7 WHERE audio_id = ?1 and type = ?3"),
          updateAlbum_(db,
                       "UPDATE audio SET audio_id = ?1, date_added = ?2, type = ?3, dirty = ?4, "
                       "artist_name = ?5, album_name = ?6, device_mode = ?7 "
                       "WHERE audio_id = ?1 and type = ?3"),
          insertPlaylist_(db,
                          "INSERT INTO audio_playlist (playlist_id, dirty, name, "
                          "playlist_songs_count) VALUES (?, ?, ?, ?)"),
          updatePlaylist_(db,
                          "UPDATE audio_playlist SET playlist_id = ?1, dirty = ?2, name = ?3, "
                          "playlist_songs_count = ?4 WHERE playlist_id = ?1") {}

    // A row removed locally. False when the statement failed.
    bool remove(const MediaInfo& info, bool playlist) {
        if (playlist)
            return removePlaylist_.bind(1, info.media_id).runBound();
        return removeAudio_.bind(1, info.media_id).bind(2, std::to_string(info.type)).runBound();
    }

    // The row of info, inserted or updated. False when the statement failed.
    bool write(const MediaInfo& info, bool playlist) {
        int columns = 0;  // the values written
        auto value = [&](pp::SqliteStatement& st, int index, const std::string& text) {
            st.bind(index, text);
            ++columns;
        };
        auto name = [&](pp::SqliteStatement& st, int index, const std::string& text) {
            if (info.isNew && text.empty())
                return;  // a new row leaves it NULL
            value(st, index, text);
        };
        pp::SqliteStatement& st = playlist     ? info.isNew ? insertPlaylist_ : updatePlaylist_
                                  : info.isNew ? insertAudio_
                                  : info.type == kTypeAlbum  ? updateAlbum_
                                  : info.type == kTypeArtist ? updateArtist_
                                                             : updateSong_;
        if (playlist) {
            value(st, 1, info.media_id);
            value(st, 2, std::to_string(info.action));
            name(st, 3, info.name);
            value(st, 4, std::to_string(info.count));
        } else {
            value(st, 1, info.media_id);
            value(st, 2, std::to_string(info.date_added));
            value(st, 3, std::to_string(info.type));
            value(st, 4, std::to_string(info.action));
            if (info.type == kTypeAlbum || info.type == kTypeArtist)
                name(st, 5, info.artist_name);
            if (info.type == kTypeAlbum)
                name(st, 6, info.album_name);
            value(st, 7, std::to_string(info.stamp));
        }
        LOGD("col count...: %s", std::to_string(columns).c_str());
        return st.runBound();
    }

  private:
    pp::SqliteStatement removeAudio_;
    pp::SqliteStatement removePlaylist_;
    pp::SqliteStatement insertAudio_;
    pp::SqliteStatement updateSong_;
    pp::SqliteStatement updateArtist_;
    pp::SqliteStatement updateAlbum_;
    pp::SqliteStatement insertPlaylist_;
    pp::SqliteStatement updatePlaylist_;
};

}  // namespace

void free_media_info(gpointer info) {
    LOGD("mediaInfo[%p]", info);
    delete static_cast<MediaInfo*>(info);
}

MediaSyncHandler* MediaSyncHandler::getInstance() {
    bool created = false;
    MediaSyncHandler* instance = HandlerInstance<MediaSyncHandler>::get(&created);
    if (created) {
        LOGD("New Instance Created free strdup");
    } else {
        LOGD("Instance Exists");
    }
    return instance;
}

void MediaSyncHandler::deleteInstance() {
    HandlerInstance<MediaSyncHandler>::destroy();
}

MediaSyncHandler::MediaSyncHandler(SyncHandlerHost* host) : BaseSyncHandler(host) {
    mDomainId = plm::SYNC_ITEM_MEDIA;
}

MediaSyncHandler::~MediaSyncHandler() {
    stopWorker();
}

long long MediaSyncHandler::tagStamp(const std::string& title, const std::string& album,
                                     const std::string& artist, const std::string& genre) {
    // FNV-1a over the four texts, each ended by a NUL; kept positive and non-zero.
    unsigned long long hash = 1469598103934665603ULL;
    for (const std::string* part : {&title, &album, &artist, &genre}) {
        for (unsigned char c : *part) {
            hash = (hash ^ c) * 1099511628211ULL;
        }
        hash = (hash ^ 0U) * 1099511628211ULL;
    }
    const long long stamp = static_cast<long long>(hash & 0x3FFFFFFFFFFFFFFFULL);
    return stamp == 0 ? 1 : stamp;
}

std::string MediaSyncHandler::audioKey(int type, const std::string& id) {
    return std::to_string(type) + ":" + id;
}

bool MediaSyncHandler::prepareMapfromData() {
    char projection[128];
    std::snprintf(projection, sizeof(projection), " %s, %s, %s, %s, %s, %s ", "audio_id",
                  "date_added", "type", "rev_id", "artist_name", "album_name");
    int rows = 0;
    const bool ok = KeysetReader::readAll(
        kAudioTable, std::string(projection) + ", dirty, device_mode", "", kAudioPageRows,
        [this, &rows](const Bundle& row) {
            auto* info = new MediaInfo;
            info->media_id = column(row, 1);
            info->date_added = std::strtol(column(row, 2).c_str(), nullptr, 10);
            info->type = static_cast<int>(std::strtol(column(row, 3).c_str(), nullptr, 10));
            info->rev_id = column(row, 4);
            info->artist_name = column(row, 5);
            info->album_name = column(row, 6);
            info->dirty = static_cast<int>(std::strtol(column(row, 7).c_str(), nullptr, 10));
            info->stamp = std::strtoll(column(row, 8).c_str(), nullptr, 10);
            LOGD("id in map[%s]", info->media_id.c_str());
            put(mAudioMap.get(), audioKey(info->type, info->media_id), info);
            ++rows;
        });
    if (ok && rows == 0)
        LOGD("no information present");
    return ok;
}

bool MediaSyncHandler::_prepareAudioPlaylistMap() {
    char projection[128];
    std::snprintf(projection, sizeof(projection), " %s, %s, %s, %s", "playlist_id", "rev_id",
                  "name", "playlist_songs_count");
    int rows = 0;
    const bool ok = KeysetReader::readAll(
        kPlaylistTable, std::string(projection) + ", dirty", "", kPlaylistPageRows,
        [this, &rows](const Bundle& row) {
            auto* info = new MediaInfo;
            info->type = kTypePlaylist;
            info->media_id = column(row, 1);
            info->rev_id = column(row, 2);
            info->name = column(row, 3);
            info->count = static_cast<int>(std::strtol(column(row, 4).c_str(), nullptr, 10));
            info->dirty = static_cast<int>(std::strtol(column(row, 5).c_str(), nullptr, 10));
            LOGD("playlist id in map[%s]", info->media_id.c_str());
            put(mPlaylistMap.get(), info->media_id, info);
            ++rows;
        });
    if (ok && rows == 0)
        LOGD("no audio playlist information present");
    return ok;
}

bool MediaSyncHandler::_collect(std::vector<std::unique_ptr<MediaInfo>>& queue) {
    auto& media = pp::mediaContentService();
    int ret = media.connect();
    if (ret != pp::MEDIA_CONTENT_ERROR_NONE) {
        LOGE("ERROR: media_content_connect failed retval = [%d]", ret);
        return false;
    }
    char condition[32];
    std::snprintf(condition, sizeof(condition), "MEDIA_TYPE=%d", pp::MEDIA_CONTENT_TYPE_MUSIC);
    bool ok = true;

    std::vector<pp::MediaPlaylistRecord> playlists;
    ret = media.getPlaylistList(playlists);
    if (ret != pp::MEDIA_CONTENT_ERROR_NONE) {
        LOGE("ERROR: media_playlist_foreach_playlist_from_db failed retval[%d]", ret);
        ok = false;
    }
    for (const auto& p : playlists) {
        auto info = std::make_unique<MediaInfo>();
        info->type = kTypePlaylist;
        info->media_id = std::to_string(p.playlistId);
        info->name = p.name;
        info->count = p.songCount;
        queue.push_back(std::move(info));
    }
    LOGD("length of media obtained is %d", static_cast<int>(queue.size()));

    std::vector<pp::MediaInfoRecord> songs;
    ret = media.getMediaList(condition, songs);
    if (ret != pp::MEDIA_CONTENT_ERROR_NONE) {
        LOGE("ERROR: media_info_foreach_media_from_db failed retval[%d]", ret);
        ok = false;
    }
    for (const auto& s : songs) {
        if (s.mediaId.empty()) {
            LOGD("info->media_id is NULL, No need to insert");
            continue;
        }
        LOGD(
            "media id[%s] display name[%s] path[%s] mime[%s] added[%lld] album[%s] artist[%s] "
            "genre[%s]",
            s.mediaId.c_str(), s.displayName.c_str(), s.filePath.c_str(), s.mimeType.c_str(),
            s.addedTime, s.album.c_str(), s.artist.c_str(), s.genre.c_str());
        auto info = std::make_unique<MediaInfo>();
        info->type = kTypeSong;
        info->media_id = std::to_string(MediaJsonComposer::getHexToLongId(s.mediaId));
        info->name = s.displayName;
        info->artist_name = s.artist;
        info->album_name = s.album;
        info->date_added = static_cast<long>(s.addedTime);
        info->stamp = tagStamp(s.title, s.album, s.artist, s.genre);
        queue.push_back(std::move(info));
    }
    LOGD("length of media obtained is %d", static_cast<int>(queue.size()));

    // Artists come with the albums: every artist of a song or an album.
    std::vector<pp::MediaAlbumRecord> albums;
    std::vector<pp::MediaArtistRecord> artists;
    ret = media.getAlbumList(condition, albums);
    if (ret == pp::MEDIA_CONTENT_ERROR_NONE)
        ret = media.getArtistList(condition, artists);
    if (ret != pp::MEDIA_CONTENT_ERROR_NONE) {
        LOGE("ERROR: media_album_foreach_album_from_db failed retval[%d]", ret);
        ok = false;
    }
    for (const auto& a : albums) {
        auto info = std::make_unique<MediaInfo>();
        info->type = kTypeAlbum;
        info->media_id = std::to_string(a.albumId);
        info->album_name = a.name;
        info->artist_name = a.artist;
        info->stamp = tagStamp({}, a.name, a.artist, {});
        queue.push_back(std::move(info));
    }
    for (const auto& a : artists) {
        auto info = std::make_unique<MediaInfo>();
        info->type = kTypeArtist;
        info->media_id = std::to_string(a.artistId);
        info->artist_name = a.name;
        info->stamp = tagStamp({}, {}, a.name, {});
        queue.push_back(std::move(info));
    }
    LOGD("length of media obtained is %d", static_cast<int>(queue.size()));
    LOGD("Collect data called from media sync");
    ret = media.disconnect();
    if (ret != pp::MEDIA_CONTENT_ERROR_NONE)
        LOGE("ERROR: media_content_disconnect failed retval = [%d]", ret);
    return ok;
}

void MediaSyncHandler::_decide(std::vector<std::unique_ptr<MediaInfo>>& queue) {
    auto differs = [](const std::string& a, const std::string& b) {
        return !a.empty() && !b.empty() && a != b;
    };
    for (auto& fresh : queue) {
        LOGD("info->media_id[%s]", fresh->media_id.c_str());
        const bool playlist = fresh->type == kTypePlaylist;
        GHashTable* map = playlist ? mPlaylistMap.get() : mAudioMap.get();
        const std::string key = playlist ? fresh->media_id : audioKey(fresh->type, fresh->media_id);
        MediaInfo* stored = lookup(map, key);
        if (stored == nullptr) {
            LOGD("insert case info->media_id[%s]", fresh->media_id.c_str());
            fresh->action = plm::DIRTY_INSERTED;
            fresh->dirty = plm::DIRTY_INSERTED;
            fresh->seen = true;
            fresh->write = true;
            fresh->isNew = true;
            put(map, key, fresh.release());
            continue;
        }
        stored->seen = true;
        bool update = false;
        switch (fresh->type) {
            case kTypePlaylist:
                update = fresh->count != stored->count || differs(fresh->name, stored->name);
                break;
            default:  // songs: title, album, artist, genre; albums: name, artist; artists: name
                update = fresh->stamp != stored->stamp;
                break;
        }
        // A row waiting to be deleted whose item came back is sent again as it is now.
        update = update || stored->dirty == plm::DIRTY_DELETED;
        if (!update) {
            LOGD("ignore case");
            continue;
        }
        if (fresh->type == kTypeArtist) {
            LOGD(
                "update case for ARTIST: info_map->media_id.c_str()[%s] AND "
                "info->media_id.c_str()[%s]",
                stored->media_id.c_str(), fresh->media_id.c_str());
        } else {
            LOGD("update case: info_map->media_id.c_str()[%s] AND info->media_id.c_str()[%s]",
                 stored->media_id.c_str(), fresh->media_id.c_str());
        }
        // Never uploaded (no revision): it is still an insert for the server.
        fresh->action = stored->rev_id.empty() ? plm::DIRTY_INSERTED : plm::DIRTY_UPDATED;
        fresh->dirty = fresh->action;
        fresh->rev_id = stored->rev_id;
        fresh->seen = true;
        fresh->write = true;
        if (fresh->date_added == 0)
            fresh->date_added = stored->date_added;
        put(map, key, fresh.release());  // frees the stored entry
    }
}

void MediaSyncHandler::_markGone() {
    mRemovals.clear();
    for (GHashTable* map : {mAudioMap.get(), mPlaylistMap.get()}) {
        const bool playlist = map == mPlaylistMap.get();
        GHashTableIter iter;
        gpointer value = nullptr;
        g_hash_table_iter_init(&iter, map);
        while (g_hash_table_iter_next(&iter, nullptr, &value)) {
            auto* info = static_cast<MediaInfo*>(value);
            if (info->seen || info->dirty == plm::DIRTY_DELETED)
                continue;
            if (info->rev_id.empty()) {
                // Never uploaded: nothing to tell the server, the row just goes.
                LOGD("delete case (never sent) id[%s]", info->media_id.c_str());
                mRemovals.emplace_back(info, playlist);
                continue;
            }
            LOGD("delete case id[%s]", info->media_id.c_str());
            info->action = plm::DIRTY_DELETED;
            info->dirty = plm::DIRTY_DELETED;
            info->write = true;
        }
    }
}

int MediaSyncHandler::_writeBack() {
    bool interrupted = false;
    const bool written = db()->runInTransaction([&](sqlite3* db) {
        ShadowStatements statements(db);
        for (const auto& [removal, playlist] : mRemovals) {
            if (!statements.remove(*removal, playlist))
                LOGE("query failed ");
        }
        for (GHashTable* map : {mAudioMap.get(), mPlaylistMap.get()}) {
            const bool playlist = map == mPlaylistMap.get();
            interrupted = !visitUnlessInterrupted(map, [&](gpointer value) {
                const auto* info = static_cast<const MediaInfo*>(value);
                if (info->write && !statements.write(*info, playlist))
                    LOGE("query failed ");
            });
            if (interrupted)
                return false;  // rolled back
        }
        return true;
    });
    if (interrupted) {
        LOGD("forced sync pending, media write rolled back");
        return 2;
    }
    if (!written)
        LOGE("query failed ");
    return 0;
}

int MediaSyncHandler::syncData(int syncType) {
    char* raw = nullptr;
    if (master_get_string(plm::MEDIA_SYNC_STATUS_P, &raw) != 0)
        LOGE("master_get_string");
    free(raw);
    LOGD("status is false hence trigger sync");
    if (master_set_string(plm::MEDIA_SYNC_STATUS_P, plm::STATUS_WAITING) == 0) {
        LOGD("[Media]master_get_string retMaster is 0");
    } else {
        LOGE("master_get_string");
    }

    if (syncType == plm::SYNC_TYPE_FORCE) {
        markAllForResend(kAudioTable);
        markAllForResend(kPlaylistTable);
    }
    mAudioMap.reset(g_hash_table_new_full(g_str_hash, g_str_equal, g_free, free_media_info));
    mPlaylistMap.reset(g_hash_table_new_full(g_str_hash, g_str_equal, g_free, free_media_info));

    int result = 1;
    std::vector<std::unique_ptr<MediaInfo>> queue;
    if (!prepareMapfromData() || !_prepareAudioPlaylistMap()) {
        LOGE("reading the media tables failed");
    } else if (!_collect(queue)) {
        // A library that could not be read entirely must not look like removed songs.
        LOGE("reading the music library failed; nothing is marked");
    } else if (isInterrupted()) {
        result = 2;
    } else {
        _decide(queue);
        _markGone();
        result = _writeBack();
    }
    mAudioMap.reset();
    mPlaylistMap.reset();
    if (result == 1) {
        LOGE("syncData failed for Media");
        master_set_string(plm::MEDIA_SYNC_STATUS_P, plm::STATUS_FAILED);
    }
    return result;
}
