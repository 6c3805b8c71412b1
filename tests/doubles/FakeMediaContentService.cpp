#include "doubles/FakeMediaContentService.h"

#include <cstdio>
#include <cstdlib>

namespace pp = pelio::platform;

namespace pelio::test {

void FakeMediaContentService::addSong(long long id, const std::string& title,
                                      const std::string& album, const std::string& artist,
                                      const std::string& genre) {
    pp::MediaInfoRecord s;
    s.id = id;
    char hex[40];
    std::snprintf(hex, sizeof hex, "00000000-0000-0000-0000-%012llx", id);
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

int FakeMediaContentService::connect() {
    ++connections;
    return pp::MEDIA_CONTENT_ERROR_NONE;
}

int FakeMediaContentService::disconnect() {
    if (connections == 0)
        return pp::MEDIA_CONTENT_ERROR_NOT_CONNECTED;
    --connections;
    return pp::MEDIA_CONTENT_ERROR_NONE;
}

int FakeMediaContentService::getMediaFromDb(const std::string& mediaId, pp::MediaInfoRecord& out) {
    const long long id = std::strtoll(mediaId.c_str(), nullptr, 16);
    for (const auto& s : songs) {
        if (s.id == id) {
            out = s;
            return pp::MEDIA_CONTENT_ERROR_NONE;
        }
    }
    return pp::MEDIA_CONTENT_ERROR_NO_DATA;
}

int FakeMediaContentService::setDbUpdatedCallback(pp::MediaDbUpdatedCallback cb, void* data) {
    callback = cb;
    userData = data;
    return pp::MEDIA_CONTENT_ERROR_NONE;
}

int FakeMediaContentService::unsetDbUpdatedCallback() {
    callback = nullptr;
    userData = nullptr;
    return pp::MEDIA_CONTENT_ERROR_NONE;
}

}  // namespace pelio::test
