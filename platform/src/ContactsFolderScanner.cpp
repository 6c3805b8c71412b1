#include "ContactsFolderScanner.h"

#include "VCardReader.h"

#include <pelio/platform/Log.h>

#include <algorithm>
#include <filesystem>
#include <system_error>

namespace pelio::platform {

namespace fs = std::filesystem;

ContactsScan ContactsFolderScanner::scan(const std::string& root) {
    ContactsScan result;
    std::error_code ec;
    if (!fs::is_directory(root, ec))
        return result;

    std::vector<fs::path> files;
    fs::recursive_directory_iterator it(root, fs::directory_options::skip_permission_denied, ec);
    if (ec) {
        dlog_print(DLOG_WARN, "PelioPlatform", "contacts: cannot list %s: %s", root.c_str(),
                   ec.message().c_str());
        return result;
    }
    for (; it != fs::recursive_directory_iterator(); it.increment(ec)) {
        if (ec) {
            dlog_print(DLOG_WARN, "PelioPlatform", "contacts: listing error under %s: %s",
                       root.c_str(), ec.message().c_str());
            break;
        }
        const fs::path& p = it->path();
        const std::string name = p.filename().string();
        if (!name.empty() && name[0] == '.') {
            if (it->is_directory(ec))
                it.disable_recursion_pending();
            continue;  // hidden files and folders (editors' temporaries, vdir metadata)
        }
        std::string ext = p.extension().string();
        std::transform(ext.begin(), ext.end(), ext.begin(),
                       [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
        if (ext == ".vcf" && !it->is_directory(ec))
            files.push_back(p);
    }
    std::sort(files.begin(), files.end());

    std::set<std::string> seenUids;
    for (const auto& p : files) {
        const std::string rel = p.lexically_relative(root).generic_string();
        const std::string book = p.parent_path().lexically_relative(root).generic_string();
        const std::string bookName = book == "." ? std::string() : book;
        result.addressBooks.insert(bookName);
        const size_t first = result.cards.size();
        if (!VCardReader::readFile(p.string(), rel, bookName, result.cards)) {
            result.unreadableFiles.insert(rel);
            continue;
        }
        for (size_t i = first; i < result.cards.size(); ++i) {
            ParsedCard& card = result.cards[i];
            if (!card.uid.empty() && seenUids.insert(card.uid).second) {
                card.key = "uid:" + card.uid;
            } else {
                if (!card.uid.empty()) {
                    dlog_print(DLOG_WARN, "PelioPlatform",
                               "contacts: UID %s appears twice (%s), keyed by position",
                               card.uid.c_str(), rel.c_str());
                }
                card.key = "pos:" + rel + "#" + std::to_string(card.position);
            }
        }
    }
    return result;
}

}  // namespace pelio::platform
