// One vCard as read from an address-book folder, before it is given an id by the index.
#pragma once

#include <pelio/platform/Contacts.h>

#include <string>
#include <vector>

namespace pelio::platform {

struct ParsedCard {
    std::string key;          // identity in the index: "uid:<UID>" or "pos:<file>#<position>"
    std::string addressBook;  // folder of the file, relative to the contacts root ("" = root)
    std::string file;         // file path relative to the contacts root
    int position = 0;         // index of the card within its file
    std::string uid;
    std::string displayName;  // FN, else composed from N; may be empty
    bool hasName = false;     // N has at least one non-empty part
    bool favorite = false;
    ContactName name;
    std::vector<ContactNumber> numbers;  // ids 0: the index assigns them
    std::vector<ContactEmail> emails;
    std::vector<ContactAddress> addresses;

    // A canonical text of everything a reader can see; two cards with equal fingerprints are
    // the same for the change log.
    std::string fingerprint() const;
};

}  // namespace pelio::platform
