// The media collector's decisions and the media documents, on the media content double and a
// real shadow database.
#include <json-glib/json-glib.h>

#include "SyncHandlers/MediaSyncHandler.h"
#include "SyncTestSupport.h"
#include "composer/JSONComposer.h"
#include "composer/MediaJsonComposer.h"
#include "doubles/FakeMediaContentService.h"
#include "observers/MediaDBObserver.h"

using namespace pelio::test;
namespace pp = pelio::platform;

namespace {

class MediaSyncTest : public SyncStoreTest {
  protected:
    void SetUp() override {
        SyncStoreTest::SetUp();
        auto media = std::make_unique<FakeMediaContentService>();
        media_ = media.get();
        pp::installMediaContentService(std::move(media));
        media_->addSong(1, "One", "First", "Ann", "Rock");
        media_->addSong(2, "Two", "First", "Ann", "Jazz");
        media_->albums = {{7, "First", "Ann", 5}};
        media_->artists = {{5, "Ann"}};
        media_->playlists = {{3, "Mix", 2}};
    }
    void TearDown() override {
        pp::installMediaContentService(nullptr);
        SyncStoreTest::TearDown();
    }

    std::vector<std::string> query(const std::string& sql) {
        std::vector<std::string> out;
        sqlite3* db = nullptr;
        sqlite3_open(DbManager::databasePath().c_str(), &db);
        sqlite3_stmt* stmt = nullptr;
        sqlite3_prepare_v2(db, sql.c_str(), -1, &stmt, nullptr);
        while (stmt && sqlite3_step(stmt) == SQLITE_ROW) {
            std::string row;
            for (int i = 0; i < sqlite3_column_count(stmt); ++i) {
                const auto* text = sqlite3_column_text(stmt, i);
                row +=
                    (i ? "|" : "") + std::string(text ? reinterpret_cast<const char*>(text) : "");
            }
            out.push_back(row);
        }
        sqlite3_finalize(stmt);
        sqlite3_close(db);
        return out;
    }
    std::vector<std::string> audioRows() {
        return query("SELECT type, audio_id, dirty FROM audio ORDER BY type, audio_id");
    }
    // What an accepted upload leaves: every row in step, with a revision.
    void markUploaded() {
        exec("UPDATE audio SET dirty = 4, rev_id = '1-r'");
        exec("UPDATE audio_playlist SET dirty = 4, rev_id = '1-p'");
    }

    // The one body's documents by "_id".
    static std::map<std::string, JsonObject*> docsById(JsonNode* root) {
        std::map<std::string, JsonObject*> out;
        JsonArray* docs = json_object_get_array_member(json_node_get_object(root), "docs");
        for (guint i = 0; i < json_array_get_length(docs); ++i) {
            JsonObject* d = json_array_get_object_element(docs, i);
            out[json_object_get_string_member(d, "_id")] = d;
        }
        return out;
    }

    RecordingHost host_;
    FakeMediaContentService* media_ = nullptr;
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
    EXPECT_EQ(empty->insertedCount, -1);
    EXPECT_EQ(empty->updatedCount, -1);
    EXPECT_EQ(empty->deletedCount, -1);
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
    EXPECT_EQ(data->insertedCount, 1);
    EXPECT_EQ(data->updatedCount, 1);
    EXPECT_EQ(data->deletedCount, 1);
    ASSERT_EQ(data->documents.size(), 1u);
    g_autoptr(JsonParser) parser = json_parser_new();
    ASSERT_TRUE(json_parser_load_from_data(parser, data->documents[0].c_str(), -1, nullptr));
    auto docs = docsById(json_parser_get_root(parser));
    ASSERT_EQ(docs.size(), 3u);

    JsonObject* updated = docs.at("aud_00000001");
    EXPECT_STREQ(json_object_get_string_member(updated, "type"), "audio");
    EXPECT_STREQ(json_object_get_string_member(updated, "_rev"), "1-r");
    EXPECT_STREQ(json_object_get_string_member(updated, "version"), "0.82");
    JsonObject* meta = json_object_get_object_member(updated, "meta_data");
    EXPECT_STREQ(json_object_get_string_member(meta, "title"), "One (live)");
    EXPECT_STREQ(json_object_get_string_member(meta, "displayname"), "One.mp3");
    EXPECT_STREQ(json_object_get_string_member(meta, "album_title"), "First");
    EXPECT_STREQ(json_object_get_string_member(meta, "artist_name"), "Ann");
    EXPECT_STREQ(json_object_get_string_member(meta, "genre_name"), "Rock");
    EXPECT_STREQ(json_object_get_string_member(meta, "uri"), "");

    JsonObject* added = docs.at("aud_00000009");
    EXPECT_FALSE(json_object_has_member(added, "_rev"));
    JsonObject* removed = docs.at("aud_00000002");
    EXPECT_TRUE(json_object_get_boolean_member(removed, "_deleted"));
    EXPECT_STREQ(json_object_get_string_member(removed, "_rev"), "1-r");

    // Each document names its row and the state it was composed from.
    const SentRow& sent = data->sentRows->at("aud_00000002");
    EXPECT_EQ(sent.table, "audio");
    EXPECT_EQ(sent.key, (SentRow::Columns{{"audio_id", "2"}, {"type", "1"}}));
    EXPECT_EQ(sent.state.front(), (std::pair<std::string, std::string>{"dirty", "2"}));
    EXPECT_TRUE(sent.deletion());
    EXPECT_EQ(data->sentRows->size(), 3u);
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
    g_autoptr(JsonParser) parser = json_parser_new();
    ASSERT_TRUE(json_parser_load_from_data(parser, result->documents[0].c_str(), -1, nullptr));
    auto docs = docsById(json_parser_get_root(parser));
    JsonObject* album = json_object_get_object_member(docs.at("aab_00000007"), "meta_data");
    EXPECT_STREQ(json_object_get_string_member(docs.at("aab_00000007"), "type"), "audio album");
    EXPECT_STREQ(json_object_get_string_member(album, "album_title"), "First");
    EXPECT_STREQ(json_object_get_string_member(album, "album_id"), "7");
    EXPECT_STREQ(json_object_get_string_member(album, "artist_name"), "Ann");
    JsonObject* artist = json_object_get_object_member(docs.at("aat_00000005"), "meta_data");
    EXPECT_STREQ(json_object_get_string_member(artist, "name"), "Ann");
    JsonObject* list = docs.at("apl_00000003");
    EXPECT_STREQ(json_object_get_string_member(list, "type"), "audio playlist");
    EXPECT_STREQ(json_object_get_string_member(list, "_rev"), "2-p");
    JsonObject* listMeta = json_object_get_object_member(list, "meta_data");
    EXPECT_STREQ(json_object_get_string_member(listMeta, "displayname"), "Mix");
    EXPECT_EQ(json_object_get_int_member(listMeta, "songs_count"), 2);
    EXPECT_STREQ(json_object_get_string_member(listMeta, "uri"), "");
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
    EXPECT_TRUE(log_.hasMessage("Update Sync Mgr for Media change"));
    EXPECT_EQ(MediaDBObserver::unregister_media_observer(&observer), 0);
    EXPECT_EQ(media_->callback, nullptr);
    EXPECT_EQ(media_->connections, 0);
}

}  // namespace
