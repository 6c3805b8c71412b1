// Reads one audio file's tags with TagLib.
//
// The format is taken from the file's first bytes, not its name ("ID3" or an MPEG frame sync:
// MP3; "fLaC": FLAC; "OggS": Ogg Vorbis (or Opus); "ftyp" at offset 4: MP4/M4A), so a song with
// the wrong extension is still read and a text file named .mp3 is not. Tag text comes as UTF-8
// whatever its encoding in the file (Latin-1 ID3v1, UTF-16 ID3v2 ...).
//
// Files are opened for reading only (and without updating their access time where allowed), so
// reading them is not a change a watch on the folder reports. Stateless; any thread. Errors: read()
// returns false (not audio, unreadable or damaged beyond its tags) and fills why; it never throws.
#pragma once

#include <string>

namespace pelio::platform {

struct AudioTags {
    std::string mimeType;
    std::string title, album, albumArtist, artist, genre;
};

class AudioTagReader {
  public:
    static bool read(const std::string& path, AudioTags& tags, std::string& why);
};

}  // namespace pelio::platform
