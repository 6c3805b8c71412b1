#include "AudioTagReader.h"

#include <taglib/flacfile.h>
#include <taglib/mp4file.h>
#include <taglib/mpegfile.h>
#include <taglib/opusfile.h>
#include <taglib/tag.h>
#include <taglib/tpropertymap.h>
#include <taglib/vorbisfile.h>

#include <array>
#include <cstring>
#include <fstream>
#include <memory>

namespace pelio::platform {
namespace {

std::string trimmed(const TagLib::String& text) {
    std::string s = text.to8Bit(true);
    const auto first = s.find_first_not_of(" \t\r\n");
    if (first == std::string::npos)
        return {};
    return s.substr(first, s.find_last_not_of(" \t\r\n") - first + 1);
}

std::string propertyOf(TagLib::File& file, const char* key) {
    const TagLib::PropertyMap map = file.properties();
    const auto it = map.find(key);
    if (it == map.end() || it->second.isEmpty())
        return {};
    return trimmed(it->second.front());
}

}  // namespace

std::string AudioTagReader::sniffMimeType(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    std::array<unsigned char, 12> head{};
    in.read(reinterpret_cast<char*>(head.data()), head.size());
    const auto got = in.gcount();
    if (got >= 3 && std::memcmp(head.data(), "ID3", 3) == 0)
        return "audio/mpeg";
    if (got >= 2 && head[0] == 0xFF && (head[1] & 0xE0) == 0xE0)
        return "audio/mpeg";
    if (got >= 4 && std::memcmp(head.data(), "fLaC", 4) == 0)
        return "audio/flac";
    if (got >= 4 && std::memcmp(head.data(), "OggS", 4) == 0)
        return "audio/ogg";
    if (got >= 8 && std::memcmp(head.data() + 4, "ftyp", 4) == 0)
        return "audio/mp4";
    return {};
}

bool AudioTagReader::read(const std::string& path, AudioTags& tags, std::string& why) {
    tags = {};
    tags.mimeType = sniffMimeType(path);
    if (tags.mimeType.empty()) {
        why = "not an audio file";
        return false;
    }
    std::unique_ptr<TagLib::File> file;
    const char* name = path.c_str();
    if (tags.mimeType == "audio/mpeg") {
        file = std::make_unique<TagLib::MPEG::File>(name);
    } else if (tags.mimeType == "audio/flac") {
        file = std::make_unique<TagLib::FLAC::File>(name);
    } else if (tags.mimeType == "audio/ogg") {
        file = std::make_unique<TagLib::Ogg::Vorbis::File>(name);
        if (!file->isValid()) {
            file = std::make_unique<TagLib::Ogg::Opus::File>(name);
            tags.mimeType = "audio/opus";
        }
    } else {
        file = std::make_unique<TagLib::MP4::File>(name);
    }
    if (!file->isOpen()) {
        why = "cannot be opened";
        return false;
    }
    // A file cut short before its first audio frame has tags at most: not a song.
    if (!file->isValid() || file->tag() == nullptr || file->audioProperties() == nullptr ||
        file->audioProperties()->sampleRate() <= 0) {
        why = "damaged " + tags.mimeType + " file";
        return false;
    }
    const TagLib::Tag* tag = file->tag();
    tags.title = trimmed(tag->title());
    tags.album = trimmed(tag->album());
    tags.artist = trimmed(tag->artist());
    tags.genre = trimmed(tag->genre());
    tags.albumArtist = propertyOf(*file, "ALBUMARTIST");
    return true;
}

}  // namespace pelio::platform
