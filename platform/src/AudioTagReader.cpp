#include "AudioTagReader.h"

#include <fcntl.h>
#include <taglib/flacfile.h>
#include <taglib/id3v2framefactory.h>
#include <taglib/mp4file.h>
#include <taglib/mpegfile.h>
#include <taglib/opusfile.h>
#include <taglib/tag.h>
#include <taglib/tfilestream.h>
#include <taglib/tpropertymap.h>
#include <taglib/vorbisfile.h>

#include <cerrno>
#include <cstring>
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

// The file opened for reading only, without updating its access time where its owner allows
// that: reading the tags leaves no trace that a watch on the folder would report. The stream
// owns the descriptor. Null when the file cannot be opened.
std::unique_ptr<TagLib::FileStream> openReadOnly(const std::string& path) {
    int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NOATIME);
    if (fd < 0 && errno == EPERM)
        fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);  // not the owner's file
    if (fd < 0)
        return nullptr;
    return std::make_unique<TagLib::FileStream>(fd, true);
}

// The audio format a file's first bytes (up to 12) name, or "" when they name none.
std::string sniffMimeType(const unsigned char* head, size_t got) {
    if (got >= 3 && std::memcmp(head, "ID3", 3) == 0)
        return "audio/mpeg";
    if (got >= 2 && head[0] == 0xFF && (head[1] & 0xE0) == 0xE0)
        return "audio/mpeg";
    if (got >= 4 && std::memcmp(head, "fLaC", 4) == 0)
        return "audio/flac";
    if (got >= 4 && std::memcmp(head, "OggS", 4) == 0)
        return "audio/ogg";
    if (got >= 8 && std::memcmp(head + 4, "ftyp", 4) == 0)
        return "audio/mp4";
    return {};
}

}  // namespace

bool AudioTagReader::read(const std::string& path, AudioTags& tags, std::string& why) {
    tags = {};
    std::unique_ptr<TagLib::FileStream> stream = openReadOnly(path);
    if (stream) {
        const TagLib::ByteVector head = stream->readBlock(12);
        tags.mimeType =
            sniffMimeType(reinterpret_cast<const unsigned char*>(head.data()), head.size());
        stream->seek(0);
    }
    if (tags.mimeType.empty()) {
        why = "not an audio file";
        return false;
    }
    std::unique_ptr<TagLib::File> file;
    if (tags.mimeType == "audio/mpeg") {
        file = std::make_unique<TagLib::MPEG::File>(stream.get(),
                                                    TagLib::ID3v2::FrameFactory::instance());
    } else if (tags.mimeType == "audio/flac") {
        file = std::make_unique<TagLib::FLAC::File>(stream.get(),
                                                    TagLib::ID3v2::FrameFactory::instance());
    } else if (tags.mimeType == "audio/ogg") {
        file = std::make_unique<TagLib::Ogg::Vorbis::File>(stream.get());
        if (!file->isValid()) {
            file.reset();
            stream = openReadOnly(path);  // read afresh, from the start
            if (stream)
                file = std::make_unique<TagLib::Ogg::Opus::File>(stream.get());
            tags.mimeType = "audio/opus";
        }
    } else {
        file = std::make_unique<TagLib::MP4::File>(stream.get());
    }
    if (!file || !file->isOpen()) {
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
