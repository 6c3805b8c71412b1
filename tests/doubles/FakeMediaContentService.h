// In-memory media content service: the test sets the library; look-ups answer from it.
// Not thread-safe: set the library before the code under test runs.
#pragma once

#include <pelio/platform/MediaContent.h>

#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

namespace pelio::test {

class FakeMediaContentService : public pelio::platform::MediaContentService {
  public:
    std::vector<pelio::platform::MediaInfoRecord> songs;
    std::vector<pelio::platform::MediaAlbumRecord> albums;
    std::vector<pelio::platform::MediaArtistRecord> artists;
    std::vector<pelio::platform::MediaPlaylistRecord> playlists;
    int listError = pelio::platform::MEDIA_CONTENT_ERROR_NONE;  // answer of every list call
    int connections = 0;
    pelio::platform::MediaDbUpdatedCallback callback = nullptr;
    void* userData = nullptr;

    // Adds a song whose media id is id in the platform's hexadecimal form.
    void addSong(long long id, const std::string& title, const std::string& album,
                 const std::string& artist, const std::string& genre) {
        char hex[40];
        std::snprintf(hex, sizeof hex, "00000000-0000-0000-0000-%012llx", id);
        pelio::platform::MediaInfoRecord s;
        s.id = id;
        s.mediaId = hex;
        s.displayName = title + ".mp3";
        s.filePath = "/music/" + s.displayName;
        s.mimeType = "audio/mpeg";
        s.title = title;
        s.album = album;
        s.artist = artist;
        s.genre = genre;
        songs.push_back(s);
    }

    int connect() override {
        ++connections;
        return pelio::platform::MEDIA_CONTENT_ERROR_NONE;
    }
    int disconnect() override {
        if (connections == 0)
            return pelio::platform::MEDIA_CONTENT_ERROR_NOT_CONNECTED;
        --connections;
        return pelio::platform::MEDIA_CONTENT_ERROR_NONE;
    }
    int getMediaList(const std::string&,
                     std::vector<pelio::platform::MediaInfoRecord>& out) override {
        return list(out, songs);
    }
    int getAlbumList(const std::string&,
                     std::vector<pelio::platform::MediaAlbumRecord>& out) override {
        return list(out, albums);
    }
    int getArtistList(const std::string&,
                      std::vector<pelio::platform::MediaArtistRecord>& out) override {
        return list(out, artists);
    }
    int getPlaylistList(std::vector<pelio::platform::MediaPlaylistRecord>& out) override {
        return list(out, playlists);
    }
    int getMediaFromDb(const std::string& mediaId, pelio::platform::MediaInfoRecord& out) override {
        const long long id = std::strtoll(mediaId.c_str(), nullptr, 16);
        for (const auto& s : songs) {
            if (s.id == id) {
                out = s;
                return pelio::platform::MEDIA_CONTENT_ERROR_NONE;
            }
        }
        return pelio::platform::MEDIA_CONTENT_ERROR_NO_DATA;
    }
    int setDbUpdatedCallback(pelio::platform::MediaDbUpdatedCallback cb, void* data) override {
        callback = cb;
        userData = data;
        return pelio::platform::MEDIA_CONTENT_ERROR_NONE;
    }
    int unsetDbUpdatedCallback() override { return setDbUpdatedCallback(nullptr, nullptr); }

  private:
    template <typename Record>
    int list(std::vector<Record>& out, const std::vector<Record>& from) {
        out = from;
        return listError;
    }
};

}  // namespace pelio::test
