// One SQLite connection to the contacts index ($XDG_DATA_HOME/pelio-platform/contacts.db).
//
// Tables: meta (database version, schema), address_books, contacts (one row per card ever seen,
// ids from AUTOINCREMENT so never reused; deleted cards keep their row with deleted = 1), fields
// (numbers, e-mails and addresses with their own stable ids) and changes (contact id, version,
// change type; one row per contact and rescan that changed it) and files (size, times and UIDs of
// every .vcf file as last read, with a hash of its bytes, so a rescan reads only the files that
// changed).
//
// Threads: one ContactsIndex per thread (or shared under SQLite's serialized mode, as the main
// connection is). Writers are serialised across connections and processes by a process-wide mutex
// and BEGIN IMMEDIATE with a busy timeout; the file runs in WAL mode so readers never wait.
// Errors: return values are ContactsError codes; failures are logged with the tag "PelioPlatform".
#pragma once

#include "ContactsFolderScanner.h"
#include "StatementCache.h"
#include "pelio/platform/SqliteStatement.h"

#include <pelio/platform/Contacts.h>

#include <map>
#include <mutex>
#include <set>
#include <string>
#include <utility>
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

    // The stamps of the files the index last read, for a partial rescan; empty when unknown.
    int knownFiles(FileStamps& files);

    int currentVersion(int& version);
    int allContacts(std::vector<ContactSummary>& contacts);
    int contactsCount(int& count);
    // NO_DATA when no contact has this id.
    int contactSummary(int id, ContactSummary& summary);
    int changesAfter(int addressBookId, int sinceVersion, std::vector<ContactChange>& changes,
                     int& currentVersion);
    int contactByPersonId(int personId, ContactRecord& record);
    // Several look-ups in one read transaction: results[i] and records[i] are what
    // contactByPersonId(personIds[i]) gives. Returns CONTACTS_ERROR_DB when the index could not
    // be read at all (every result says so too).
    int contactsByPersonIds(const std::vector<int>& personIds, std::vector<ContactRecord>& records,
                            std::vector<int>& results);

    // Caps this connection's page cache at about kib KiB (SQLite's default is 2 MiB a connection).
    // Lookups by id walk the tables in id order and reuse few pages, so a reader needs little.
    void limitPageCache(int kib);

  private:
    struct Existing;
    using Changes = std::vector<std::pair<int, int>>;  // contact id, change type

    // The steps of applyScan, inside its transaction; false when a statement fails.
    bool readExisting(std::map<std::string, Existing>& existing);
    bool readAffected(const ContactsScan& scan, std::map<std::string, Existing>& existing);
    bool collectExisting(SqliteStatement& sel, std::map<std::string, Existing>& existing);
    bool writeStamps(const ContactsScan& scan);
    bool putStamps(SqliteStatement& put, const FileStamps& stamps);
    bool readAddressBooks(const std::set<std::string>& paths, std::map<std::string, int>& books);
    bool applyCards(const ContactsScan& scan, const std::map<std::string, Existing>& existing,
                    std::map<std::string, int>& books, std::set<std::string>& seen,
                    Changes& changes);
    // Marks deleted the cards the scan no longer found (unless their file was unreadable).
    bool markVanished(const ContactsScan& scan, const std::map<std::string, Existing>& existing,
                      const std::set<std::string>& seen, Changes& changes);
    // Logs every change under version `next` and raises the database version to it.
    bool recordChanges(const Changes& changes, int next);
    bool exec(const char* sql);
    int readVersion(int& version);
    int addressBookId(const std::string& path, int& id);
    bool writeContact(int id, const ParsedCard& card, int bookId, bool insert, int& newId);
    bool writeFields(int contactId, const ParsedCard& card);
    // The statement of `sql` on this connection, prepared the first time, reset when the lease
    // goes. Used under mutex_ only; finalised before the connection closes.
    StatementCache::Lease cached(const char* sql);
    // The live contact personId into record, inside a transaction the caller holds.
    int readContact(int personId, ContactRecord& record);
    // One step of a kept statement that returns no rows (BEGIN, COMMIT); false is logged.
    bool stepCached(const char* sql);

    std::mutex mutex_;  // one transaction at a time on this connection
    SqliteDb db_;
    StatementCache statements_;
};

}  // namespace pelio::platform
