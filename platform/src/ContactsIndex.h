// One SQLite connection to the contacts index ($XDG_DATA_HOME/pelio-platform/contacts.db).
//
// Tables: meta (database version, schema), address_books, contacts (one row per card ever seen,
// ids from AUTOINCREMENT so never reused; deleted cards keep their row with deleted = 1), fields
// (numbers, e-mails and addresses with their own stable ids) and changes (contact id, version,
// change type; one row per contact and rescan that changed it).
//
// Threads: one ContactsIndex per thread (or shared under SQLite's serialized mode, as the main
// connection is). Writers are serialised across connections and processes by a process-wide mutex
// and BEGIN IMMEDIATE with a busy timeout; the file runs in WAL mode so readers never wait.
// Errors: return values are ContactsError codes; failures are logged with the tag "PelioPlatform".
#pragma once

#include "ContactsFolderScanner.h"
#include "pelio/platform/SqliteStatement.h"

#include <pelio/platform/Contacts.h>

#include <mutex>
#include <string>
#include <vector>

namespace pelio::platform {

class ContactsIndex {
  public:
    // Opens (and creates) the index file; ok() tells whether it worked.
    explicit ContactsIndex(const std::string& dbPath);

    bool ok() const { return db_ != nullptr; }

    // Applies a folder scan: new cards are inserted, changed ones updated, vanished ones marked
    // deleted; when anything changed the version rises by one and every change gets that version.
    // changed receives the number of contacts that changed.
    int applyScan(const ContactsScan& scan, int& changed);

    int currentVersion(int& version);
    int allContacts(std::vector<ContactSummary>& contacts);
    int changesAfter(int addressBookId, int sinceVersion, std::vector<ContactChange>& changes,
                     int& currentVersion);
    int contactByPersonId(int personId, ContactRecord& record);

  private:
    bool exec(const char* sql);
    int readVersion(int& version);
    int addressBookId(const std::string& path, int& id);
    bool writeContact(int id, const ParsedCard& card, int bookId, bool insert, int& newId);
    bool writeFields(int contactId, const ParsedCard& card);

    std::mutex mutex_;  // one transaction at a time on this connection
    SqliteDb db_;
};

}  // namespace pelio::platform
