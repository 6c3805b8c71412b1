// Walks the contacts folder ($XDG_DATA_HOME/contacts/, vdir layout) and reads its .vcf files.
//
// Each folder that holds .vcf files is an address book, named by its path relative to the root
// ("" for files directly in the root). Cards get their index key here: "uid:<UID>", or, for a card
// without UID (or whose UID was already seen in this scan), "pos:<file>#<position>".
//
// Given the stamps of the files as the index last read them, only files whose size, modification
// or status-change time differ are read again (a partial scan). When a UID appears more than once,
// before or now, keys depend on the order of every file, so the whole folder is read instead.
// Stateless and thread-safe; errors are logged and the affected files reported as unreadable.
#pragma once

#include "ParsedCard.h"

#include <map>
#include <set>
#include <string>
#include <vector>

namespace pelio::platform {

// What a file looked like when it was read: size, times, a hash of its bytes and the UIDs of its
// cards (for spotting duplicates without reading the file again). A file modified within the last
// seconds before it was listed gets mtimeNs -1: a second write in the same clock tick would leave
// its times as they are, so such a file is hashed again next time (and parsed only if its bytes
// changed).
struct FileStamp {
    long long size = 0;
    long long mtimeNs = 0;
    long long ctimeNs = 0;
    long long contentHash = 0;
    std::vector<std::string> uids;

    bool sameFile(const FileStamp& other) const {
        return mtimeNs >= 0 && other.mtimeNs >= 0 && size == other.size &&
               mtimeNs == other.mtimeNs && ctimeNs == other.ctimeNs;
    }
};

using FileStamps = std::map<std::string, FileStamp>;  // by path relative to the root

struct ContactsScan {
    // True when every file was read: cards missing from `cards` have vanished. False for a
    // partial scan: `cards` holds only the cards of the files in `files`, and only cards of those
    // files and of `goneFiles` can have vanished.
    bool complete = true;
    // False when the folder is there but could not be listed whole (permissions, I/O): the scan
    // says nothing about what vanished, and the caller keeps its index as it is.
    bool listed = true;
    std::vector<ParsedCard> cards;
    std::set<std::string> addressBooks;  // relative folder paths that hold .vcf files
    std::set<std::string>
        unreadableFiles;   // relative paths; their known cards are kept as they are
    FileStamps files;      // the files read successfully in this scan
    FileStamps restamped;  // partial scan: files with new times but the same bytes (not parsed)
    std::set<std::string> goneFiles;  // partial scan: known files no longer in the folder
};

class ContactsFolderScanner {
  public:
    // known: the stamps stored by the index; empty means read everything.
    static ContactsScan scan(const std::string& root, const FileStamps& known = {});
};

}  // namespace pelio::platform
