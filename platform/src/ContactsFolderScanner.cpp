#include "ContactsFolderScanner.h"

#include "VCardReader.h"

#include <pelio/platform/Log.h>

#include <sys/stat.h>
#include <time.h>

#include <algorithm>
#include <cstdint>
#include <filesystem>
#include <fstream>
#include <string_view>
#include <system_error>
#include <unordered_set>

namespace pelio::platform {

namespace fs = std::filesystem;

namespace {

constexpr const char* kTag = "PelioPlatform";
// Files written more recently than this are not trusted to show their next write in their times
// (a write sets the modification time, in ticks of the kernel's clock).
constexpr long long kRacyNs = 2000000000LL;

long long nsOf(const struct timespec& t) {
    return static_cast<long long>(t.tv_sec) * 1000000000LL + t.tv_nsec;
}

struct ListedFile {
    fs::path path;
    std::string rel;   // relative to the root
    std::string book;  // address book: the folder relative to the root ("" = root)
    FileStamp stamp;   // taken before the file is read, so a later write is seen next time
};

FileStamp stampOf(const fs::path& p) {
    FileStamp stamp;
    struct stat st {};
    if (::stat(p.c_str(), &st) != 0) {
        stamp.size = -1;  // never equal to a stored stamp: the file is read
        return stamp;
    }
    stamp.size = static_cast<long long>(st.st_size);
    stamp.mtimeNs = nsOf(st.st_mtim);
    stamp.ctimeNs = nsOf(st.st_ctim);
    struct timespec now {};
    ::clock_gettime(CLOCK_REALTIME, &now);
    if (nsOf(now) - stamp.mtimeNs < kRacyNs)
        stamp.mtimeNs = -1;
    return stamp;
}

// The .vcf files under root, sorted by path; hidden files and folders are skipped. ok turns false
// when the listing failed part of the way.
std::vector<ListedFile> listFiles(const std::string& root, bool& ok) {
    std::vector<fs::path> paths;
    std::error_code ec;
    fs::recursive_directory_iterator it(root, fs::directory_options::skip_permission_denied, ec);
    if (ec) {
        dlog_print(DLOG_WARN, kTag, "contacts: cannot list %s: %s", root.c_str(),
                   ec.message().c_str());
        ok = false;
        return {};
    }
    for (; it != fs::recursive_directory_iterator(); it.increment(ec)) {
        if (ec) {
            dlog_print(DLOG_WARN, kTag, "contacts: listing error under %s: %s", root.c_str(),
                       ec.message().c_str());
            ok = false;
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
            paths.push_back(p);
    }
    std::sort(paths.begin(), paths.end());

    std::vector<ListedFile> files;
    files.reserve(paths.size());
    for (auto& p : paths) {
        ListedFile f;
        f.rel = p.lexically_relative(root).generic_string();
        const std::string book = p.parent_path().lexically_relative(root).generic_string();
        f.book = book == "." ? std::string() : book;
        f.stamp = stampOf(p);
        f.path = std::move(p);
        files.push_back(std::move(f));
    }
    return files;
}

// FNV-1a over the file's bytes; false when it cannot be read.
bool hashFile(const fs::path& p, long long& hash) {
    std::ifstream in(p, std::ios::binary);
    if (!in)
        return false;
    std::uint64_t h = 14695981039346656037ULL;
    char buffer[65536];
    while (in.read(buffer, sizeof buffer) || in.gcount() > 0) {
        const std::streamsize n = in.gcount();
        for (std::streamsize i = 0; i < n; ++i) {
            h ^= static_cast<unsigned char>(buffer[i]);
            h *= 1099511628211ULL;
        }
    }
    if (in.bad())
        return false;
    hash = static_cast<long long>(h);
    return true;
}

void readFile(const ListedFile& f, ContactsScan& result) {
    // Hashed before parsing: if the file changes in between, the stored hash is the older one
    // and the next scan parses the file again.
    long long hash = 0;
    const bool hashed = hashFile(f.path, hash);
    const size_t first = result.cards.size();
    if (!VCardReader::readFile(f.path.string(), f.rel, f.book, result.cards)) {
        result.unreadableFiles.insert(f.rel);
        return;
    }
    FileStamp stamp = f.stamp;
    stamp.contentHash = hash;
    if (!hashed)
        stamp.mtimeNs = -1;  // not trusted: read again next time
    for (size_t i = first; i < result.cards.size(); ++i) {
        if (!result.cards[i].uid.empty())
            stamp.uids.push_back(result.cards[i].uid);
    }
    result.files[f.rel] = std::move(stamp);
}

// UIDs seen so far, as views of the strings in the stamps (which outlive the scan's checks).
using UidSet = std::unordered_set<std::string_view>;

size_t knownUidCount(const FileStamps& known) {
    size_t n = 0;
    for (const auto& [rel, stamp] : known)
        n += stamp.uids.size();
    return n;
}

bool addUids(const std::vector<std::string>& uids, UidSet& seen) {
    for (const auto& uid : uids) {
        if (!seen.insert(uid).second)
            return false;
    }
    return true;
}

// True when no UID appears twice among the known files as they were read last time.
bool knownUidsUnique(const FileStamps& known) {
    UidSet seen;
    seen.reserve(knownUidCount(known));
    for (const auto& [rel, stamp] : known) {
        if (!addUids(stamp.uids, seen))
            return false;
    }
    return true;
}

// A file with new times but the bytes it had when it was parsed: only its stamp is renewed.
bool sameBytes(const ListedFile& f, const FileStamp& known, ContactsScan& result) {
    long long hash = 0;
    if (known.size != f.stamp.size || !hashFile(f.path, hash) || hash != known.contentHash)
        return false;
    FileStamp stamp = f.stamp;
    stamp.contentHash = hash;
    stamp.uids = known.uids;
    result.restamped[f.rel] = std::move(stamp);
    return true;
}

// Reads only the files whose stamp changed. False when keys could depend on files it did not
// read (a UID seen twice, before or now); the caller then reads everything.
bool scanChanged(const std::vector<ListedFile>& files, const FileStamps& known,
                 ContactsScan& result) {
    if (!knownUidsUnique(known))
        return false;
    std::set<std::string> listed;
    UidSet uidsNow;
    uidsNow.reserve(knownUidCount(known));
    for (const ListedFile& f : files) {
        listed.insert(f.rel);
        auto k = known.find(f.rel);
        if (k != known.end() && (k->second.sameFile(f.stamp) || sameBytes(f, k->second, result))) {
            if (!addUids(k->second.uids, uidsNow))
                return false;
            continue;
        }
        readFile(f, result);
        auto read = result.files.find(f.rel);
        if (read != result.files.end()) {
            if (!addUids(read->second.uids, uidsNow))
                return false;
        } else if (k != known.end() && !addUids(k->second.uids, uidsNow)) {
            return false;  // unreadable: its known cards stay
        }
    }
    for (const auto& [rel, stamp] : known) {
        if (listed.count(rel) == 0)
            result.goneFiles.insert(rel);
    }
    result.complete = false;
    return true;
}

void assignKeys(std::vector<ParsedCard>& cards) {
    std::set<std::string> seenUids;
    for (ParsedCard& card : cards) {
        if (!card.uid.empty() && seenUids.insert(card.uid).second) {
            card.key = "uid:" + card.uid;
            continue;
        }
        if (!card.uid.empty()) {
            dlog_print(DLOG_WARN, kTag, "contacts: UID %s appears twice (%s), keyed by position",
                       card.uid.c_str(), card.file.c_str());
        }
        card.key = "pos:" + card.file + "#" + std::to_string(card.position);
    }
}

}  // namespace

ContactsScan ContactsFolderScanner::scan(const std::string& root, const FileStamps& known) {
    ContactsScan result;
    std::error_code ec;
    if (!fs::is_directory(root, ec)) {
        // No folder is an empty address book; a folder that cannot be looked at is not.
        if (ec && ec != std::errc::no_such_file_or_directory && ec != std::errc::not_a_directory) {
            dlog_print(DLOG_WARN, kTag, "contacts: cannot look at %s: %s", root.c_str(),
                       ec.message().c_str());
            result.listed = false;
        }
        return result;
    }

    const std::vector<ListedFile> files = listFiles(root, result.listed);
    if (!result.listed)
        return result;
    for (const ListedFile& f : files)
        result.addressBooks.insert(f.book);

    if (known.empty() || !scanChanged(files, known, result)) {
        const std::set<std::string> books = std::move(result.addressBooks);
        result = ContactsScan{};
        result.addressBooks = books;
        for (const ListedFile& f : files)
            readFile(f, result);
    }
    assignKeys(result.cards);
    return result;
}

}  // namespace pelio::platform
