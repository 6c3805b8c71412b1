// Reads an .m3u / .m3u8 playlist: one entry per line, "#" lines (#EXTM3U, #EXTINF ...) and blank
// lines skipped, a UTF-8 byte-order mark and CR line ends tolerated. Relative entries are resolved
// against the playlist's folder; "file://" entries are taken as paths. Every path comes back in
// lexically normal form.
//
// Stateless; any thread. Errors: read() returns false when the file cannot be read.
#pragma once

#include <string>
#include <vector>

namespace pelio::platform {

class M3uPlaylistReader {
  public:
    static bool read(const std::string& playlistPath, std::vector<std::string>& entries);
};

}  // namespace pelio::platform
