// The Linux media content service on real tagged audio files in a throw-away home.
#include <gtest/gtest.h>

#include <pelio/platform/MediaContent.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <map>

#include "support/LogCapture.h"
#include "support/TempHome.h"

using namespace pelio::platform;
namespace fs = std::filesystem;

namespace {

class MediaContentServiceTest : public ::testing::Test {
  public:
    void SetUp() override {
        installMediaContentService(nullptr);  // a fresh Linux service that reads this HOME
        music_ = home_.path() + "/Tunes";
        fs::create_directories(home_.configHome());
        std::ofstream(home_.configHome() + "/user-dirs.dirs")
            << "XDG_DESKTOP_DIR=\"$HOME/Desktop\"\nXDG_MUSIC_DIR=\"$HOME/Tunes\"\n";
    }
    void TearDown() override { installMediaContentService(nullptr); }

    // Runs one of tests/support/media.sh's makers.
    void make(const std::string& maker, const std::string& rel, const std::string& args) {
        const std::string cmd = "bash -c '. " PELIO_SOURCE_DIR "/tests/support/media.sh && " +
                                maker + " \"" + music_ + "/" + rel + "\" " + args + "'";
        ASSERT_EQ(std::system(cmd.c_str()), 0) << cmd;
    }
    void write(const std::string& rel, const std::string& text) {
        fs::create_directories((fs::path(music_) / rel).parent_path());
        std::ofstream(fs::path(music_) / rel, std::ios::binary | std::ios::trunc) << text;
    }

    // A fresh connection (which rescans) and the library by title.
    std::map<std::string, MediaInfoRecord> songs() {
        auto& media = mediaContentService();
        EXPECT_EQ(media.connect(), MEDIA_CONTENT_ERROR_NONE);
        std::vector<MediaInfoRecord> list;
        EXPECT_EQ(media.getMediaList("MEDIA_TYPE=3", list), MEDIA_CONTENT_ERROR_NONE);
        media.disconnect();
        std::map<std::string, MediaInfoRecord> byTitle;
        for (auto& s : list)
            byTitle[s.title] = s;
        return byTitle;
    }

    pelio::test::TempHome home_;
    pelio::test::LogCapture log_;
    std::string music_;
};

TEST_F(MediaContentServiceTest, IndexesTaggedFilesOfEveryFormatAndPlaylists) {
    make("make_song", "a/one.mp3", "\"One\" \"Ann\" \"First\" \"Rock\"");
    make("make_song", "a/two.flac", "\"Two\" \"Ann\" \"First\" \"Jazz\"");
    make("make_song", "b/three.ogg", "\"Three\" \"Bob\" \"Second\" \"Pop\"");
    make("make_song", "b/Untagged Song.flac", "\"\" \"\" \"\" \"\"");
    make("make_song_latin1", "odd/latin.mp3", "\"Café\" \"Señor\"");
    make("make_song_utf16", "odd/wide.mp3", "\"Ünï 日本\" \"Ärt\"");
    make("make_song", "odd/really.mp3", "\"Misnamed\" \"Bob\" \"Second\" \"Pop\"");
    fs::rename(music_ + "/odd/really.mp3", music_ + "/odd/really-mp3.ogg");
    write("odd/notes.mp3", "these are not the songs you are looking for");
    write("cover.jpg", "\xff\xd8\xff\xe0 not music");
    write("mix.m3u8",
          "#EXTM3U\n#EXTINF:1,One\na/one.mp3\r\n" + music_ + "/b/three.ogg\nmissing.mp3\n\n");

    auto lib = songs();
    ASSERT_EQ(lib.size(), 7u);
    const MediaInfoRecord& one = lib["One"];
    EXPECT_EQ(one.artist + "|" + one.album + "|" + one.genre + "|" + one.displayName + "|" +
                  one.mimeType + "|" + lib["Two"].genre + "|" + lib["Three"].mimeType + "|" +
                  lib["Misnamed"].mimeType + "|" + lib["Café"].artist + "|" +
                  lib["Ünï 日本"].artist,
              "Ann|First|Rock|one.mp3|audio/mpeg|Jazz|audio/ogg|audio/mpeg|Señor|Ärt");
    EXPECT_EQ(lib["Two"].albumId, one.albumId);
    EXPECT_EQ(lib["Untagged Song"].artistId, 0);
    EXPECT_TRUE(log_.contains("notes.mp3 ignored: not an audio file") &&
                log_.contains("names a missing file " + music_ + "/missing.mp3"));

    auto& media = mediaContentService();
    ASSERT_EQ(media.connect(), MEDIA_CONTENT_ERROR_NONE);
    std::vector<MediaAlbumRecord> albums;
    std::vector<MediaArtistRecord> artists;
    std::vector<MediaPlaylistRecord> playlists;
    std::vector<MediaInfoRecord> photos;
    EXPECT_EQ(media.getAlbumList("MEDIA_TYPE=3", albums) |
                  media.getArtistList("MEDIA_TYPE=3", artists) | media.getPlaylistList(playlists) |
                  media.getMediaList("MEDIA_TYPE=0", photos),
              MEDIA_CONTENT_ERROR_NONE);
    EXPECT_TRUE(photos.empty());
    ASSERT_EQ(albums.size(), 2u);  // First (Ann), Second (Bob)
    EXPECT_EQ(albums[0].name + "|" + albums[0].artist, "First|Ann");
    EXPECT_EQ(artists.size(), 4u);  // Ann, Bob, Señor, Ärt
    ASSERT_EQ(playlists.size(), 1u);
    EXPECT_EQ(playlists[0].name + "|" + std::to_string(playlists[0].songCount), "mix|2");

    MediaInfoRecord byId;
    EXPECT_TRUE(media.getMediaFromDb(lib["Three"].mediaId, byId) == MEDIA_CONTENT_ERROR_NONE &&
                byId.title == "Three");
    EXPECT_EQ(media.getMediaFromDb("zz", byId), MEDIA_CONTENT_ERROR_INVALID_PARAMETER);
    EXPECT_EQ(media.getMediaFromDb("ffffff", byId), MEDIA_CONTENT_ERROR_NO_DATA);
    media.disconnect();
}

TEST_F(MediaContentServiceTest, IdsStayAcrossRescansAndRestartsAndAreNeverReused) {
    make("make_song", "one.mp3", "\"One\" \"Ann\" \"First\" \"Rock\"");
    make("make_song", "two.flac", "\"Two\" \"Ann\" \"First\" \"Jazz\"");
    auto before = songs();
    ASSERT_EQ(before.size(), 2u);

    installMediaContentService(nullptr);  // a restart: a new service on the same index
    make("make_song", "one.mp3", "\"One again\" \"Ann\" \"First\" \"Rock\"");
    fs::remove(music_ + "/two.flac");
    make("make_song", "three.ogg", "\"Three\" \"Bob\" \"Second\" \"Pop\"");
    auto after = songs();
    ASSERT_EQ(after.size(), 2u);
    EXPECT_EQ(after["One again"].id, before["One"].id);
    EXPECT_GT(after["Three"].id, before["Two"].id);  // the removed song's id is not handed out

    // Damage an indexed file, then take the whole folder away: the library stays as it was.
    write("one.mp3", "ID3");
    EXPECT_EQ(songs().size(), 2u);
    fs::remove_all(music_);
    EXPECT_EQ(songs().size(), 2u);
    EXPECT_TRUE(log_.contains("one.mp3 cannot be read") &&
                log_.contains("is missing; the library is kept"));
}

}  // namespace
