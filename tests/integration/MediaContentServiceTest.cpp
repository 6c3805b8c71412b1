// The Linux media content service on real tagged audio files in a throw-away home.
#include <gtest/gtest.h>

#include <pelio/platform/MainLoop.h>
#include <pelio/platform/MediaContent.h>

#include <atomic>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <map>
#include <thread>

#include "support/Eventually.h"
#include "support/LogCapture.h"
#include "support/MainLoopWait.h"
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

    // How many log lines contain fragment.
    int logged(const std::string& fragment) const {
        int n = 0;
        for (const auto& line : log_.lines())
            n += line.message.find(fragment) != std::string::npos;
        return n;
    }

    pelio::test::TempHome home_;
    pelio::test::LogCapture log_;
    std::string music_;
};

constexpr const char* kRescanned = "media: rescan of ";
constexpr const char* kSkipped = "unchanged since the last rescan; not rescanned";

void ignoreUpdate(int, int, int, int, int, const char*, const char*, const char*, void*) {}

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
    // Several at once: each answered as on its own, in order.
    std::vector<MediaInfoRecord> found;
    std::vector<int> results;
    media.getMediaByIds({lib["Three"].mediaId, "zz", "ffffff", lib["One"].mediaId}, found, results);
    EXPECT_EQ(results,
              (std::vector<int>{MEDIA_CONTENT_ERROR_NONE, MEDIA_CONTENT_ERROR_INVALID_PARAMETER,
                                MEDIA_CONTENT_ERROR_NO_DATA, MEDIA_CONTENT_ERROR_NONE}));
    ASSERT_EQ(found.size(), 4u);
    EXPECT_EQ(found[0].title + "|" + found[3].title, "Three|One");
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

TEST_F(MediaContentServiceTest, ThreadedConnectRescansUnlessTheWatcherVouchesForTheIndex) {
    // Seeds outside the music folder, copied in to add and change songs: an untagged song (named
    // after its file) and two tagged versions of one song, of different sizes.
    make("make_song", "../seeds/plain.mp3", "\"\" \"\" \"\" \"\"");
    make("make_song", "../seeds/red.mp3", "\"Red\" \"Ann\" \"Hues\" \"Pop\"");
    make("make_song", "../seeds/blue.mp3", "\"Turquoise\" \"Ann\" \"Hues\" \"Pop\"");
    const std::string seeds = home_.path() + "/seeds/";
    ASSERT_NE(fs::file_size(seeds + "red.mp3"), fs::file_size(seeds + "blue.mp3"));
    const auto put = [&](const std::string& seed, const std::string& rel) {
        fs::create_directories((fs::path(music_) / rel).parent_path());
        fs::copy_file(seeds + seed, music_ + "/" + rel, fs::copy_options::overwrite_existing);
    };
    put("red.mp3", "hue.mp3");
    put("plain.mp3", "gone.mp3");

    // Without a watcher every connect rescans.
    EXPECT_EQ(songs().size(), 2u);
    EXPECT_EQ(songs().count("Red"), 1u);
    EXPECT_EQ(logged(kRescanned), 2);

    pelio::platform::MainLoopScope loop;
    auto& media = mediaContentService();
    ASSERT_EQ(media.connect(), MEDIA_CONTENT_ERROR_NONE);  // held, like the service's observer
    ASSERT_EQ(media.setDbUpdatedCallback(ignoreUpdate, nullptr), MEDIA_CONTENT_ERROR_NONE);
    // The first connect on the main loop started the watch before its rescan: the connects
    // that follow may skip theirs.
    const auto pumpUntil = [](const std::function<bool()>& done) {
        for (int slice = 0; slice < 400 && !done(); ++slice)
            pelio::test::runMainLoopUntil([] { return false; }, 0.05);
    };
    EXPECT_EQ(logged(kRescanned), 3);
    EXPECT_EQ(songs().size(), 2u);
    EXPECT_EQ(logged(kRescanned), 3);
    EXPECT_EQ(logged(kSkipped), 1);

    // Changes made just before a connect, their events not yet read by the main loop.
    put("plain.mp3", "new/fresh.mp3");
    put("blue.mp3", "hue.mp3");
    fs::remove(music_ + "/gone.mp3");
    auto lib = songs();
    EXPECT_TRUE(lib.size() == 2 && lib.count("fresh") && lib.count("Turquoise"));
    EXPECT_EQ(logged(kSkipped), 1);

    // The same from a worker while the main loop reads the events, rewatches and rescans: every
    // connect sees every change made before it, whether it rescans or not. In each round, a new
    // folder with a song and a changed song; connects until one finds the index vouched for; then
    // the new song removed alone, which only the new folder's watch reports.
    std::atomic<bool> finished{false};
    std::thread worker([&] {
        for (int i = 0; i < 8; ++i) {
            const std::string song = "new" + std::to_string(i);
            const std::string file = "round" + std::to_string(i) + "/deeper/" + song + ".mp3";
            const std::string hue = i % 2 ? "Turquoise" : "Red";
            put("plain.mp3", file);
            put(i % 2 ? "blue.mp3" : "red.mp3", "hue.mp3");
            const auto inStep = [&](const std::map<std::string, MediaInfoRecord>& found) {
                return found.size() == 3 && found.count(song) && found.count(hue);
            };
            EXPECT_TRUE(inStep(songs())) << "round " << i;
            const int skipped = logged(kSkipped);
            EXPECT_TRUE(pelio::test::eventually([&] {
                const bool right = inStep(songs());
                EXPECT_TRUE(right) << "round " << i;
                return !right || logged(kSkipped) > skipped;
            })) << "round "
                << i;
            fs::remove(music_ + "/" + file);
            lib = songs();
            EXPECT_TRUE(lib.size() == 2 && !lib.count(song)) << "round " << i;
        }
        finished = true;
    });
    pumpUntil([&] { return finished.load(); });
    worker.join();

    // A link to a file outside the folder: that file changes with no sign in the folder, so
    // every connect rescans.
    put("plain.mp3", "../outside.mp3");
    fs::create_symlink(home_.path() + "/outside.mp3", music_ + "/link.mp3");
    EXPECT_EQ(songs().count("link"), 1u);
    const int beforeQuiet = logged(kRescanned);
    pumpUntil([&] { return logged(kRescanned) > beforeQuiet; });  // the main loop's rescan
    put("red.mp3", "../outside.mp3");
    lib = songs();
    EXPECT_TRUE(lib.count("Red") && !lib.count("link"));

    // Without the watcher again, every connect rescans.
    EXPECT_EQ(media.unsetDbUpdatedCallback(), MEDIA_CONTENT_ERROR_NONE);
    const int rescans = logged(kRescanned);
    const int skips = logged(kSkipped);
    EXPECT_EQ(songs().size(), 3u);
    EXPECT_EQ(songs().size(), 3u);
    EXPECT_EQ(logged(kRescanned), rescans + 2);
    EXPECT_EQ(logged(kSkipped), skips);
    media.disconnect();
}

}  // namespace
