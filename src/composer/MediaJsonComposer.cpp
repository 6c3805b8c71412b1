#include "composer/MediaJsonComposer.h"

#include <pelio/platform/MediaContent.h>

#include <atomic>
#include <cctype>
#include <cerrno>
#include <cstdio>
#include <cstdlib>

#include "PLMConstants.h"
#include "PelioLog.h"
#include "SyncHandlers/BaseSyncHandler.h"
#include "database/KeysetReader.h"
#include "utils/BundleMacro.h"

using pelio::platform::Bundle;
namespace pp = pelio::platform;

namespace {

constexpr int kTypeSong = 1;
constexpr int kTypePlaylist = 2;
constexpr int kTypeAlbum = 3;
constexpr int kTypeArtist = 4;
constexpr int kTypeGenre = 5;

std::atomic<int> gMediaDocNumber{0};

std::string column(const Bundle& row, int n) {
    std::string value = getValStr(&row, columnKey(n));
    return value == "NULL" ? std::string() : value;
}

int number(const std::string& text) {
    return static_cast<int>(std::strtol(text.c_str(), nullptr, 10));
}

MediaComposeRecord rowRecord(int type, const std::string& id, const std::string& rev, int dirty) {
    MediaComposeRecord r;
    r.type = type;
    r.id = id;
    r.revision = rev;
    r.dirty = dirty;
    return r;
}

// Strings go in as JSON-GLib's string members take them: up to their first zero byte.
void setString(JsonTextWriter& w, const char* key, const std::string& value) {
    w.add(key, value.c_str());
}

}  // namespace

MediaJsonComposer::MediaJsonComposer() = default;

MediaJsonComposer::~MediaJsonComposer() = default;

unsigned long MediaJsonComposer::getHexToLongId(const std::string& mediaId) {
    LOGD("media id is hex value[%s]", mediaId.c_str());
    std::string digits;
    for (unsigned char c : mediaId) {
        if (std::isxdigit(c))
            digits += static_cast<char>(c);
    }
    if (digits.empty())
        return 0;
    errno = 0;
    const unsigned long value = std::strtoul(digits.c_str(), nullptr, 16);
    return errno == ERANGE ? 0 : value;
}

std::string MediaJsonComposer::_mediaIdOf(const std::string& id) {
    char hex[32];
    std::snprintf(hex, sizeof hex, "%lx", std::strtoul(id.c_str(), nullptr, 10));
    return hex;
}

void MediaJsonComposer::_fillSong(MediaComposeRecord& r, int ret,
                                  const pp::MediaInfoRecord& media) {
    if (ret != pp::MEDIA_CONTENT_ERROR_NONE) {
        LOGE("ERROR: media_info_get_media_from_db failed retval[%d]", ret);
        r.found = false;
        return;
    }
    r.displayName = media.displayName;
    r.title = media.title;
    r.album = media.album;
    r.artist = media.artist;
    r.genre = media.genre;
    r.albumId = media.albumId != 0 ? std::to_string(media.albumId) : "";
    r.artistId = media.artistId != 0 ? std::to_string(media.artistId) : "";
    r.genreId = media.genreId != 0 ? std::to_string(media.genreId) : "";
}

MediaComposeRecord MediaJsonComposer::getSongInfoObject(const std::string& id,
                                                        const std::string& rev, int dirty) {
    MediaComposeRecord r = rowRecord(kTypeSong, id, rev, dirty);
    if (dirty == plm::DIRTY_DELETED)
        return r;
    pp::MediaInfoRecord media;
    const int ret = pp::mediaContentService().getMediaFromDb(_mediaIdOf(id), media);
    _fillSong(r, ret, media);
    return r;
}

MediaComposeRecord MediaJsonComposer::getAlbumInfoObject(const std::string& id,
                                                         const std::string& rev, int dirty,
                                                         const std::string& album,
                                                         const std::string& artist) {
    MediaComposeRecord r = rowRecord(kTypeAlbum, id, rev, dirty);
    r.album = album;
    r.albumId = id;
    r.artist = artist;
    return r;
}

MediaComposeRecord MediaJsonComposer::getArtistInfoObject(const std::string& id,
                                                          const std::string& rev, int dirty,
                                                          const std::string& artist) {
    MediaComposeRecord r = rowRecord(kTypeArtist, id, rev, dirty);
    r.artist = artist;
    return r;
}

MediaComposeRecord MediaJsonComposer::getPlaylistInfoObject(const std::string& id,
                                                            const std::string& rev, int dirty,
                                                            const std::string& name, int count) {
    MediaComposeRecord r = rowRecord(kTypePlaylist, id, rev, dirty);
    r.displayName = name;
    r.songsCount = count;
    return r;
}

void MediaJsonComposer::_append(const MediaComposeRecord& record, const char* prefix,
                                const char* type, WriteMeta meta) {
    const std::string docId = BaseSyncHandler::formatFixedWidthId(prefix, record.id, kIdWidth);
    SentRow sent;
    if (record.type == kTypePlaylist) {
        sent.table = "audio_playlist";
        sent.key = {{"playlist_id", record.id}};
        sent.state = {{"dirty", std::to_string(record.dirty)},
                      {"name", record.displayName},
                      {"playlist_songs_count", std::to_string(record.songsCount)}};
    } else {
        sent.table = "audio";
        sent.key = {{"audio_id", record.id}, {"type", std::to_string(record.type)}};
        sent.state = {{"dirty", std::to_string(record.dirty)}, {"device_mode", record.stamp}};
    }
    (*mSentRows)[docId] = std::move(sent);

    if (mBodyDocs++ == 0)
        _openBodyText(mBody);
    JsonTextWriter& w = mBody;
    if (record.dirty == plm::DIRTY_DELETED) {
        _writeDeletedText(w, docId, record.revision);
        ++mDeleted;
        _emitFullBody();
        return;
    }
    _beginDocumentText(w, docId, type, ++gMediaDocNumber);
    w.beginObject(plm::DOC_META_DATA);
    meta(w, record);
    w.endObject();
    if (record.dirty == plm::DIRTY_UPDATED) {
        setString(w, plm::DOC_REV, record.revision);
        ++mUpdated;
    } else {
        ++mInserted;
    }
    w.endObject();
    _emitFullBody();
}

std::string MediaJsonComposer::_takeBody() {
    mBodyDocs = 0;
    return _closeBodyText(mBody);
}

void MediaJsonComposer::_emitFullBody() {
    if (mRecord == nullptr || !_streaming() || mBodyDocs < kStreamBodyDocs)
        return;
    mStopped = !_emitBodyText(_takeBody(), *mRecord);
}

void MediaJsonComposer::_composeAll(const std::vector<MediaComposeRecord>& list,
                                    void (MediaJsonComposer::*make)(const MediaComposeRecord&)) {
    for (const auto& record : list) {
        if (mStopped)
            return;
        (this->*make)(record);
    }
}

void MediaJsonComposer::_composeSongs() {
    // The rows read so far (at most kLookupRows) are looked up in one go, and let go after.
    std::vector<std::string> mediaIds;
    for (const SongRow& row : mSongs) {
        if (row.dirty != plm::DIRTY_DELETED)
            mediaIds.push_back(_mediaIdOf(row.id));
    }
    std::vector<pp::MediaInfoRecord> found;
    std::vector<int> results;
    if (!mStopped && !mSongs.empty())
        pp::mediaContentService().getMediaByIds(mediaIds, found, results);
    size_t looked = 0;  // index into found / results of the next live row
    for (const SongRow& row : mSongs) {
        if (mStopped)
            break;
        MediaComposeRecord record = rowRecord(kTypeSong, row.id, row.revision, row.dirty);
        record.stamp = row.stamp;
        if (row.dirty != plm::DIRTY_DELETED) {
            if (looked < results.size())
                _fillSong(record, results[looked], found[looked]);
            else
                record.found = false;
            ++looked;
        }
        makeSongItemJson(record);
    }
    mSongs.clear();
}

void MediaJsonComposer::makeSongItemJson(const MediaComposeRecord& record) {
    if (!record.found) {
        LOGE("song[%s] is no longer in the library; left for the next sync", record.id.c_str());
        return;
    }
    _append(record, "aud_", "audio", [](JsonTextWriter& m, const MediaComposeRecord& r) {
        setString(m, "displayname", r.displayName);
        setString(m, "title", r.title);
        setString(m, "album_id", r.albumId);
        setString(m, "album_title", r.album);
        setString(m, "artist_id", r.artistId);
        setString(m, "artist_name", r.artist);
        setString(m, "genre_id", r.genreId);
        setString(m, "genre_name", r.genre);
        setString(m, "uri", "");
    });
}

void MediaJsonComposer::makeAlbumItemJson(const MediaComposeRecord& record) {
    _append(record, "aab_", "audio album", [](JsonTextWriter& m, const MediaComposeRecord& r) {
        setString(m, "album_title", r.album);
        setString(m, "album_id", r.albumId);
        setString(m, "artist_name", r.artist);
    });
}

void MediaJsonComposer::makeArtistItemJson(const MediaComposeRecord& record) {
    _append(record, "aat_", "audio artist",
            [](JsonTextWriter& m, const MediaComposeRecord& r) { setString(m, "name", r.artist); });
}

void MediaJsonComposer::makeGenreItemJson(const MediaComposeRecord& record) {
    _append(record, "agr_", "audio genre",
            [](JsonTextWriter& m, const MediaComposeRecord& r) { setString(m, "name", r.genre); });
}

void MediaJsonComposer::makePlaylistItemJson(const MediaComposeRecord& record) {
    _append(record, "apl_", "audio playlist", [](JsonTextWriter& m, const MediaComposeRecord& r) {
        setString(m, "displayname", r.displayName);
        m.add("songs_count", static_cast<long long>(r.songsCount));
        setString(m, "uri", "");
    });
}

void MediaJsonComposer::_readAudioRows() {
    char projection[128];
    std::snprintf(projection, sizeof(projection), " %s, %s, %s , %s, %s, %s, %s", "_id", "rev_id",
                  "dirty", "audio_id", "type", "album_name", "artist_name");
    LOGD("columns[%s]", projection);
    int count = 1;
    const bool ok = KeysetReader::readAll(
        "audio", std::string(projection) + ", device_mode", plm::NOT_SYNCED, kSelectPageRows,
        [this, &count](const Bundle& row) {
            ++count;
            const int type = number(column(row, 5));
            const std::string id = column(row, 4);
            const std::string rev = column(row, 2);
            const int dirty = number(column(row, 3));
            LOGD("type is : %d,current id is: %s, rev id is : %s", type, id.c_str(), rev.c_str());
            MediaComposeRecord record;
            if (type == kTypeSong) {
                LOGD("is song ");
                mSongs.push_back({id, rev, column(row, 8), dirty});
                // Songs are composed as their rows come, so the first body goes up before the
                // last rows are read.
                if (mSongs.size() == kLookupRows)
                    _composeSongs();
            } else if (type == kTypeAlbum) {
                LOGD("is album ");
                record = getAlbumInfoObject(id, rev, dirty, column(row, 6), column(row, 7));
                record.stamp = column(row, 8);
                mAlbums.push_back(record);
            } else if (type == kTypeArtist) {
                LOGD("is artist ");
                record = getArtistInfoObject(id, rev, dirty, column(row, 7));
                record.stamp = column(row, 8);
                mArtists.push_back(record);
            }
        });
    if (!ok)
        LOGE("plmsvc_db_process FAIL");
    if (count == 1)
        LOGD("no information present");
    LOGD("count[%d]", count);
}

void MediaJsonComposer::_readPlaylistRows() {
    char projection[128];
    std::snprintf(projection, sizeof(projection), " %s, %s, %s, %s, %s", "playlist_id", "rev_id",
                  "dirty", "name", "playlist_songs_count");
    LOGD("columns[%s]", projection);
    int count = 1;
    const bool ok =
        KeysetReader::readAll("audio_playlist", projection, plm::NOT_SYNCED, kSelectPageRows,
                              [this, &count](const Bundle& row) {
                                  ++count;
                                  LOGD("is playlist ");
                                  mPlaylists.push_back(getPlaylistInfoObject(
                                      column(row, 1), column(row, 2), number(column(row, 3)),
                                      column(row, 4), number(column(row, 5))));
                              });
    if (!ok)
        LOGE("plmsvc_db_process FAIL");
    if (count == 1)
        LOGD("no information present");
    LOGD("count[%d]", count);
}

std::unique_ptr<SyncData> MediaJsonComposer::makeUploadJSON() {
    auto result = std::make_unique<SyncData>();
    result->itemType = plm::SYNC_ITEM_MEDIA;
    mRecord = result.get();
    mStopped = false;
    mSentRows = result->sentRows;
    mBody.take();
    mBodyDocs = 0;
    mInserted = mUpdated = mDeleted = 0;

    auto& media = pp::mediaContentService();
    int ret = media.connect();
    if (ret == pp::MEDIA_CONTENT_ERROR_NONE) {
        LOGD("media_content_connect SUCCESS");
    } else {
        LOGE("ERROR: media_content_connect failed retval = [%d]", ret);
    }
    // Playlists, songs, albums, artists: the songs are composed while the audio rows are read,
    // after the playlists.
    _readPlaylistRows();
    LOGD("compose json for playlist ");
    _composeAll(mPlaylists, &MediaJsonComposer::makePlaylistItemJson);
    LOGD("compose json for audio ");
    _readAudioRows();
    _composeSongs();
    LOGD("compose json for album ");
    _composeAll(mAlbums, &MediaJsonComposer::makeAlbumItemJson);
    LOGD("compose json for artist ");
    _composeAll(mArtists, &MediaJsonComposer::makeArtistItemJson);

    if (mInserted < 1 && mUpdated < 1 && mDeleted < 1) {
        LOGD("there is nothing to sync");
        result->sentRows->clear();
    } else {
        LOGD("there is something to sync");
        result->insertedCount = mInserted;
        result->updatedCount = mUpdated;
        result->deletedCount = mDeleted;
        // The last (streamed) or only body; a streamed upload that stopped sends no more.
        if (!mStopped && mBodyDocs > 0)
            _emitBodyText(_takeBody(), *result);
    }
    if (mBodyDocs > 0) {
        _takeBody();  // a stopped upload's documents are not sent
    }
    mRecord = nullptr;

    if (ret == pp::MEDIA_CONTENT_ERROR_NONE) {
        ret = media.disconnect();
        if (ret == pp::MEDIA_CONTENT_ERROR_NONE) {
            LOGD("media_content_disconnect SUCCESS");
        } else {
            LOGE("ERROR: media_content_disconnect failed retval = [%d]", ret);
        }
    }
    return result;
}
