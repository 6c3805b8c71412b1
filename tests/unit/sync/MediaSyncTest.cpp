// The media collector's decisions and the media documents, on the media content double and a
// real shadow database.

#include "SyncHandlers/MediaSyncHandler.h"
#include "composer/JSONComposer.h"
#include "composer/MediaJsonComposer.h"
#include "doubles/FakeMediaContentService.h"
#include "observers/MediaDBObserver.h"
#include "unit/sync/SyncTestSupport.h"

using namespace pelio::test;
namespace pp = pelio::platform;

namespace {

class MediaSyncTest : public SyncStoreTest {
  protected:
    void SetUp() override {
        SyncStoreTest::SetUp();
        media_->addSong(1, "One", "First", "Ann", "Rock");
        media_->addSong(2, "Two", "First", "Ann", "Jazz");
        media_->albums = {{7, "First", "Ann", 5}};
        media_->artists = {{5, "Ann"}};
        media_->playlists = {{3, "Mix", 2}};
    }

    std::vector<std::string> audioRows() {
        return query("SELECT type, audio_id, dirty FROM audio ORDER BY type, audio_id");
    }
    // What an accepted upload leaves: every row in step, with a revision.
    void markUploaded() {
        exec("UPDATE audio SET dirty = 4, rev_id = '1-r'");
        exec("UPDATE audio_playlist SET dirty = 4, rev_id = '1-p'");
    }

    RecordingHost host_;
    Installed<FakeMediaContentService, &pp::installMediaContentService> media_;
};

TEST_F(MediaSyncTest, CollectorInsertsUpdatesIgnoresAndDeletesPerType) {
    MediaSyncHandler handler(&host_);
    ASSERT_EQ(handler.syncData(99), 0);
    EXPECT_EQ(audioRows(), (std::vector<std::string>{"1|1|1", "1|2|1", "3|7|1", "4|5|1"}));
    EXPECT_EQ(query("SELECT playlist_id, name, playlist_songs_count, dirty FROM audio_playlist"),
              (std::vector<std::string>{"3|Mix|2|1"}));

    // Nothing changed: rows in step stay in step.
    markUploaded();
    ASSERT_EQ(handler.syncData(98), 0);
    EXPECT_EQ(audioRows(), (std::vector<std::string>{"1|1|4", "1|2|4", "3|7|4", "4|5|4"}));

    // Song 1 retagged (genre), song 2 gone, song 9 new, a touched-only song would keep its stamp;
    // the album's artist renamed, the playlist lost a song.
    media_->songs.clear();
    media_->addSong(1, "One", "First", "Ann", "Blues");
    media_->addSong(9, "Nine", "First", "Ann", "Rock");
    media_->albums = {{7, "First", "Anne", 5}};
    media_->playlists = {{3, "Mix", 1}};
    ASSERT_EQ(handler.syncData(98), 0);
    EXPECT_EQ(audioRows(), (std::vector<std::string>{"1|1|3", "1|2|2", "1|9|1", "3|7|3", "4|5|4"}));
    EXPECT_EQ(query("SELECT type, IFNULL(artist_name, '-'), IFNULL(album_name, '-') FROM audio "
                    "WHERE audio_id IN (7, 5, 9) ORDER BY type"),
              (std::vector<std::string>{"1|-|-", "3|Anne|First", "4|Ann|-"}));
    EXPECT_EQ(query("SELECT dirty, rev_id FROM audio_playlist"),
              (std::vector<std::string>{"3|1-p"}));

    // A song that never reached the server and is gone again leaves no row; a pending update
    // that is unchanged stays an update.
    media_->songs.erase(media_->songs.begin() + 1);
    ASSERT_EQ(handler.syncData(98), 0);
    EXPECT_EQ(audioRows(), (std::vector<std::string>{"1|1|3", "1|2|2", "3|7|3", "4|5|4"}));

    // A library that cannot be read marks nothing as deleted and fails the run.
    media_->listError = pp::MEDIA_CONTENT_ERROR_DB_FAILED;
    media_->songs.clear();
    EXPECT_EQ(handler.syncData(98), 1);
    EXPECT_EQ(audioRows(), (std::vector<std::string>{"1|1|3", "1|2|2", "3|7|3", "4|5|4"}));
    EXPECT_EQ(media_->connections, 0);
}

TEST_F(MediaSyncTest, ComposerWritesOneDocumentPerRowInOneBody) {
    // Nothing to send: item 2 with counts -1 and no body.
    auto empty = JSONComposer().makeSyncData(2);
    EXPECT_EQ(empty->itemType, 2);
    EXPECT_EQ(counts(*empty), "-1/-1/-1");
    EXPECT_TRUE(empty->documents.empty());

    MediaSyncHandler handler(&host_);
    ASSERT_EQ(handler.syncData(99), 0);
    markUploaded();
    media_->songs.erase(media_->songs.begin() + 1);  // song 2 removed
    media_->songs[0].title = "One (live)";
    media_->addSong(9, "Nine", "", "", "");
    ASSERT_EQ(handler.syncData(98), 0);
    exec("INSERT INTO audio(audio_id, type, dirty) VALUES(44, 2, 1)");  // no document for type 2

    auto data = JSONComposer().makeSyncData(2);
    EXPECT_EQ(data->itemType, 2);
    EXPECT_EQ(counts(*data), "1/1/1");
    ASSERT_EQ(data->documents.size(), 1u);
    Body body(data->documents[0]);
    ASSERT_EQ(body.size(), 3u);

    JsonObject* updated = body.doc("aud_00000001");
    ASSERT_NE(updated, nullptr);
    EXPECT_EQ(str(updated, "type") + "|" + str(updated, "_rev") + "|" + str(updated, "version"),
              "audio|1-r|0.82");
    JsonObject* m = meta(updated);
    EXPECT_EQ(str(m, "title") + "|" + str(m, "displayname") + "|" + str(m, "album_title") + "|" +
                  str(m, "artist_name") + "|" + str(m, "genre_name") + "|" + str(m, "uri"),
              "One (live)|One.mp3|First|Ann|Rock|");
    EXPECT_EQ(str(body.doc("aud_00000009"), "_rev"), "<absent>");
    JsonObject* removed = body.doc("aud_00000002");
    ASSERT_NE(removed, nullptr);
    EXPECT_TRUE(json_object_get_boolean_member(removed, "_deleted") &&
                str(removed, "_rev") == "1-r");

    // Each document names its row and the state it was composed from.
    const SentRow& sent = data->sentRows->at("aud_00000002");
    EXPECT_EQ(sent.table, "audio");
    EXPECT_EQ(sent.key, (SentRow::Columns{{"audio_id", "2"}, {"type", "1"}}));
    EXPECT_EQ(sent.state.front(), (std::pair<std::string, std::string>{"dirty", "2"}));
    EXPECT_TRUE(sent.deletion());
    EXPECT_EQ(data->sentRows->size(), 3u);
}

TEST_F(MediaSyncTest, SongsLookedUpTogetherEachGetTheirOwnTexts) {
    // 150 song rows over three look-ups: every third one deleted (no look-up), every seventh
    // gone from the library (no document, left dirty).
    media_->songs.clear();
    std::string rows;
    for (int id = 1; id <= 150; ++id) {
        const bool deleted = id % 3 == 0;
        if (!deleted && id % 7 != 0)
            media_->addSong(id, "Song" + std::to_string(id), "", "", "");
        rows += std::string(rows.empty() ? "" : ",") + "(" + std::to_string(id) + ", 1, " +
                (deleted ? "2, '1-r'" : "1, NULL") + ")";
    }
    exec("INSERT INTO audio(audio_id, type, dirty, rev_id) VALUES" + rows);
    auto data = JSONComposer().makeSyncData(2);
    ASSERT_EQ(data->documents.size(), 1u);
    Body body(data->documents[0]);
    int live = 0, deleted = 0;
    for (guint i = 0; i < body.size(); ++i) {
        const std::string id = str(body.at(i), "_id");
        const int n = std::stoi(id.substr(4));
        if (n % 3 == 0) {
            EXPECT_TRUE(json_object_get_boolean_member(body.at(i), "_deleted")) << id;
            ++deleted;
        } else {
            EXPECT_NE(n % 7, 0) << id;
            EXPECT_EQ(str(meta(body.at(i)), "title"), "Song" + std::to_string(n)) << id;
            ++live;
        }
    }
    EXPECT_EQ(deleted, 50);
    EXPECT_EQ(live, 100 - 14);  // 150 - 50 deleted - 14 gone (multiples of 7, not of 3)
}

TEST_F(MediaSyncTest, AlbumArtistAndPlaylistDocumentsAndHexIds) {
    MediaJsonComposer composer;
    exec(
        "INSERT INTO audio(audio_id, type, dirty, album_name, artist_name, device_mode) "
        "VALUES(7, 3, 1, 'First', 'Ann', 11), (5, 4, 1, NULL, 'Ann', 12)");
    exec(
        "INSERT INTO audio_playlist(playlist_id, dirty, name, playlist_songs_count, rev_id) "
        "VALUES(3, 3, 'Mix', 2, '2-p')");
    auto result = composer.makeUploadJSON();
    ASSERT_EQ(result->documents.size(), 1u);
    Body body(result->documents[0]);
    JsonObject* album = body.doc("aab_00000007");
    JsonObject* artist = body.doc("aat_00000005");
    JsonObject* list = body.doc("apl_00000003");
    ASSERT_TRUE(album && artist && list);
    EXPECT_EQ(str(album, "type") + "|" + str(meta(album), "album_title") + "|" +
                  str(meta(album), "album_id") + "|" + str(meta(album), "artist_name"),
              "audio album|First|7|Ann");
    EXPECT_EQ(str(meta(artist), "name"), "Ann");
    EXPECT_EQ(str(list, "type") + "|" + str(list, "_rev") + "|" + str(meta(list), "displayname") +
                  "|" + str(meta(list), "uri"),
              "audio playlist|2-p|Mix|");
    EXPECT_EQ(json_object_get_int_member(meta(list), "songs_count"), 2);
    EXPECT_EQ(result->sentRows->at("apl_00000003").key, (SentRow::Columns{{"playlist_id", "3"}}));

    EXPECT_EQ(MediaJsonComposer::getHexToLongId("00000000-0000-0000-0000-00000000002a"), 42ul);
    EXPECT_EQ(MediaJsonComposer::getHexToLongId("{1F:0a}"), 0x1f0aul);
    EXPECT_EQ(MediaJsonComposer::getHexToLongId("--"), 0ul);
}

TEST_F(MediaSyncTest, ObserverPassesOnMusicChangesOnly) {
    int calls = 0;
    MediaDBObserver observer([&calls] { ++calls; });
    ASSERT_EQ(MediaDBObserver::register_media_observer(&observer), 0);
    ASSERT_NE(media_->callback, nullptr);
    media_->callback(0, 1, pp::MEDIA_ITEM_FILE, pp::MEDIA_CONTENT_INSERT,
                     pp::MEDIA_CONTENT_TYPE_IMAGE, "u", "/p.jpg", "image/jpeg", media_->userData);
    EXPECT_EQ(calls, 0);
    media_->callback(0, 1, pp::MEDIA_ITEM_FILE, pp::MEDIA_CONTENT_INSERT,
                     pp::MEDIA_CONTENT_TYPE_MUSIC, "u", "/p.mp3", "audio/mpeg", media_->userData);
    EXPECT_EQ(calls, 1);
    EXPECT_EQ(MediaDBObserver::unregister_media_observer(&observer), 0);
    EXPECT_EQ(media_->callback, nullptr);
    EXPECT_EQ(media_->connections, 0);
}

}  // namespace
