// Reads the cards of one .vcf file with libebook-contacts' EVCard.
//
// A file may hold several cards; each BEGIN:VCARD ... END:VCARD block is handed to EVCard on its
// own. Blocks that are not valid vCards are logged (tag "PelioPlatform") and skipped; the other
// cards of the file are still read. Stateless and thread-safe.
#pragma once

#include "ParsedCard.h"

#include <string>
#include <vector>

namespace pelio::platform {

class VCardReader {
  public:
    // Appends the valid cards of the file to cards (key, file, position and address book filled).
    // Returns false when the file could not be read at all (logged).
    static bool readFile(const std::string& absolutePath, const std::string& relativeFile,
                         const std::string& addressBook, std::vector<ParsedCard>& cards);

    // Parses one card's text; false when it is not a valid vCard (logged by the caller).
    static bool parseCard(const std::string& text, ParsedCard& card);

    // The number-type bits of a TEL attribute's TYPE values (lower case); sets isDefault for
    // "pref" and label for a type the table does not know (which also sets the custom bit).
    static int numberType(const std::vector<std::string>& types, bool& isDefault,
                          std::string& label);
};

}  // namespace pelio::platform
