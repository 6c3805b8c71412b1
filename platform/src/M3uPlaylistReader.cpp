#include "M3uPlaylistReader.h"

#include <filesystem>
#include <fstream>

namespace pelio::platform {

bool M3uPlaylistReader::read(const std::string& playlistPath, std::vector<std::string>& entries) {
    namespace fs = std::filesystem;
    std::ifstream in(playlistPath, std::ios::binary);
    if (!in)
        return false;
    const fs::path folder = fs::path(playlistPath).parent_path();
    std::string line;
    bool first = true;
    while (std::getline(in, line)) {
        if (first && line.rfind("\xEF\xBB\xBF", 0) == 0)
            line.erase(0, 3);
        first = false;
        while (!line.empty() && (line.back() == '\r' || line.back() == ' '))
            line.pop_back();
        if (line.empty() || line[0] == '#')
            continue;
        if (line.rfind("file://", 0) == 0)
            line.erase(0, 7);
        fs::path entry(line);
        if (entry.is_relative())
            entry = folder / entry;
        entries.push_back(entry.lexically_normal().string());
    }
    return !in.bad();
}

}  // namespace pelio::platform
