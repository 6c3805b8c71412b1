// Walks the contacts folder ($XDG_DATA_HOME/contacts/, vdir layout) and reads every .vcf file.
//
// Each folder that holds .vcf files is an address book, named by its path relative to the root
// ("" for files directly in the root). Cards get their index key here: "uid:<UID>", or, for a card
// without UID (or whose UID was already seen in this scan), "pos:<file>#<position>".
// Stateless and thread-safe; errors are logged and the affected files reported as unreadable.
#pragma once

#include "ParsedCard.h"

#include <set>
#include <string>
#include <vector>

namespace pelio::platform {

struct ContactsScan {
    std::vector<ParsedCard> cards;
    std::set<std::string> addressBooks;  // relative folder paths that hold .vcf files
    std::set<std::string>
        unreadableFiles;  // relative paths; their known cards are kept as they are
};

class ContactsFolderScanner {
  public:
    static ContactsScan scan(const std::string& root);
};

}  // namespace pelio::platform
