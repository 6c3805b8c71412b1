#include "ContactsIndex.h"

#include <pelio/platform/Log.h>

#include <map>
#include <mutex>
#include <set>

namespace pelio::platform {
namespace {

constexpr const char* kTag = "PelioPlatform";
constexpr int kSchemaVersion = 1;
constexpr char kUidSeparator = '\x1f';  // between the UIDs of one file in files.uids

enum FieldKind { kNumber = 0, kEmail = 1, kAddress = 2 };

struct FieldValue {
    std::string value;
    int type = 0;
    bool isDefault = false;
    std::string label;
};

std::vector<FieldValue> fieldsOf(const ParsedCard& card, int kind) {
    std::vector<FieldValue> out;
    if (kind == kNumber) {
        for (const auto& n : card.numbers)
            out.push_back({n.number, n.type, n.isDefault, n.label});
    } else if (kind == kEmail) {
        for (const auto& e : card.emails)
            out.push_back({e.email, e.type, e.isDefault, {}});
    } else {
        for (const auto& a : card.addresses)
            out.push_back({a.text, a.type, a.isDefault, {}});
    }
    return out;
}

// Serialises writers of this process; other processes wait on SQLite's write lock.
std::mutex& writerMutex() {
    static std::mutex m;
    return m;
}

}  // namespace

// A card the index already holds.
struct ContactsIndex::Existing {
    int id = 0;
    bool deleted = false;
    std::string fingerprint;
    std::string sourceFile;
    int bookId = 0;
};

ContactsIndex::ContactsIndex(const std::string& dbPath) {
    db_ = openIndexDatabase(dbPath, "contacts");
    if (!db_)
        return;
    std::lock_guard<std::mutex> guard(writerMutex());
    const bool created =
        exec("BEGIN IMMEDIATE") &&
        exec("CREATE TABLE IF NOT EXISTS meta(key TEXT PRIMARY KEY, value INTEGER NOT NULL)") &&
        exec("INSERT OR IGNORE INTO meta(key, value) VALUES('version', 0)") &&
        exec(("INSERT OR IGNORE INTO meta(key, value) VALUES('schema', " +
              std::to_string(kSchemaVersion) + ")")
                 .c_str()) &&
        exec(
            "CREATE TABLE IF NOT EXISTS address_books(id INTEGER PRIMARY KEY AUTOINCREMENT, "
            "path TEXT UNIQUE NOT NULL)") &&
        exec(
            "CREATE TABLE IF NOT EXISTS contacts(id INTEGER PRIMARY KEY AUTOINCREMENT, "
            "card_key TEXT UNIQUE NOT NULL, address_book_id INTEGER NOT NULL, "
            "source_file TEXT NOT NULL, deleted INTEGER NOT NULL DEFAULT 0, "
            "fingerprint TEXT NOT NULL, display_name TEXT NOT NULL, has_name INTEGER NOT NULL, "
            "favorite INTEGER NOT NULL, first TEXT, last TEXT, addition TEXT, prefix TEXT, "
            "suffix TEXT, phonetic_first TEXT, phonetic_middle TEXT, phonetic_last TEXT)") &&
        exec(
            "CREATE TABLE IF NOT EXISTS fields(id INTEGER PRIMARY KEY AUTOINCREMENT, "
            "contact_id INTEGER NOT NULL, kind INTEGER NOT NULL, position INTEGER NOT NULL, "
            "value TEXT NOT NULL, type INTEGER NOT NULL, is_default INTEGER NOT NULL, "
            "label TEXT NOT NULL)") &&
        exec("CREATE INDEX IF NOT EXISTS fields_contact ON fields(contact_id, kind)") &&
        exec(
            "CREATE TABLE IF NOT EXISTS changes(contact_id INTEGER NOT NULL, "
            "version INTEGER NOT NULL, type INTEGER NOT NULL, PRIMARY KEY(contact_id, version))") &&
        exec("CREATE INDEX IF NOT EXISTS changes_version ON changes(version)") &&
        exec("CREATE INDEX IF NOT EXISTS contacts_source ON contacts(source_file)") &&
        exec(
            "CREATE TABLE IF NOT EXISTS files(path TEXT PRIMARY KEY, size INTEGER NOT NULL, "
            "mtime INTEGER NOT NULL, ctime INTEGER NOT NULL, hash INTEGER NOT NULL, "
            "uids TEXT NOT NULL)") &&
        exec("COMMIT");
    if (!created) {
        exec("ROLLBACK");
        db_.reset();
    }
}

void ContactsIndex::limitPageCache(int kib) {
    if (ok())
        exec(("PRAGMA cache_size=-" + std::to_string(kib)).c_str());  // a failure is logged
}

bool ContactsIndex::exec(const char* sql) {
    char* error = nullptr;
    if (sqlite3_exec(db_.get(), sql, nullptr, nullptr, &error) != SQLITE_OK) {
        dlog_print(DLOG_ERROR, kTag, "contacts: SQL failed (%s): %s", sql,
                   error ? error : sqlite3_errmsg(db_.get()));
        sqlite3_free(error);
        return false;
    }
    return true;
}

StatementCache::Lease ContactsIndex::cached(const char* sql) {
    return statements_.get(db_.get(), sql);
}

bool ContactsIndex::stepCached(const char* sql) {
    const int rc = cached(sql)->step();
    if (rc != SQLITE_DONE) {
        dlog_print(DLOG_ERROR, kTag, "contacts: SQL failed (%s): %s", sql,
                   sqlite3_errmsg(db_.get()));
        return false;
    }
    return true;
}

int ContactsIndex::readVersion(int& version) {
    SqliteStatement st(db_.get(), "SELECT value FROM meta WHERE key = 'version'");
    if (st.step() != SQLITE_ROW)
        return CONTACTS_ERROR_DB;
    version = st.columnInt(0);
    return CONTACTS_ERROR_NONE;
}

int ContactsIndex::addressBookId(const std::string& path, int& id) {
    SqliteStatement ins(db_.get(), "INSERT OR IGNORE INTO address_books(path) VALUES(?)");
    if (!ins.bind(1, path).run())
        return CONTACTS_ERROR_DB;
    SqliteStatement sel(db_.get(), "SELECT id FROM address_books WHERE path = ?");
    if (sel.bind(1, path).step() != SQLITE_ROW)
        return CONTACTS_ERROR_DB;
    id = sel.columnInt(0);
    return CONTACTS_ERROR_NONE;
}

bool ContactsIndex::writeContact(int id, const ParsedCard& card, int bookId, bool insert,
                                 int& newId) {
    const char* sql =
        insert ? "INSERT INTO contacts(address_book_id, source_file, fingerprint, display_name, "
                 "has_name, favorite, first, last, addition, prefix, suffix, phonetic_first, "
                 "phonetic_middle, phonetic_last, card_key, deleted) "
                 "VALUES(?,?,?,?,?,?,?,?,?,?,?,?,?,?,?,0)"
               : "UPDATE contacts SET address_book_id=?, source_file=?, fingerprint=?, "
                 "display_name=?, has_name=?, favorite=?, first=?, last=?, addition=?, prefix=?, "
                 "suffix=?, phonetic_first=?, phonetic_middle=?, phonetic_last=?, card_key=?, "
                 "deleted=0 WHERE id=?";
    const auto st = cached(sql);
    st->bind(1, bookId)
        .bind(2, card.file)
        .bind(3, card.fingerprint())
        .bind(4, card.displayName)
        .bind(5, card.hasName ? 1 : 0)
        .bind(6, card.favorite ? 1 : 0)
        .bind(7, card.name.first)
        .bind(8, card.name.last)
        .bind(9, card.name.addition)
        .bind(10, card.name.prefix)
        .bind(11, card.name.suffix)
        .bind(12, card.name.phoneticFirst)
        .bind(13, card.name.phoneticMiddle)
        .bind(14, card.name.phoneticLast)
        .bind(15, card.key);
    if (!insert)
        st->bind(16, id);
    if (!st->run())
        return false;
    newId = insert ? static_cast<int>(sqlite3_last_insert_rowid(db_.get())) : id;
    return writeFields(newId, card);
}

// Keeps the id of every value that is still on the card (matched by its text, in order), drops
// the vanished ones and gives new values fresh ids.
bool ContactsIndex::writeFields(int contactId, const ParsedCard& card) {
    for (int kind : {kNumber, kEmail, kAddress}) {
        std::multimap<std::string, int> old;  // value -> field id, in id order
        {
            const auto sel =
                cached("SELECT id, value FROM fields WHERE contact_id=? AND kind=? ORDER BY id");
            sel->bind(1, contactId).bind(2, kind);
            int rc;
            while ((rc = sel->step()) == SQLITE_ROW)
                old.emplace(sel->columnText(1), sel->columnInt(0));
            if (rc != SQLITE_DONE)
                return false;
        }
        const auto upd =
            cached("UPDATE fields SET position=?, type=?, is_default=?, label=? WHERE id=?");
        const auto ins = cached(
            "INSERT INTO fields(contact_id, kind, position, value, type, is_default, label) "
            "VALUES(?,?,?,?,?,?,?)");
        const auto values = fieldsOf(card, kind);
        for (size_t pos = 0; pos < values.size(); ++pos) {
            const FieldValue& v = values[pos];
            auto match = old.find(v.value);
            bool ok;
            if (match != old.end()) {
                ok = upd->bind(1, static_cast<int>(pos))
                         .bind(2, v.type)
                         .bind(3, v.isDefault ? 1 : 0)
                         .bind(4, v.label)
                         .bind(5, match->second)
                         .run();
                old.erase(match);
            } else {
                ok = ins->bind(1, contactId)
                         .bind(2, kind)
                         .bind(3, static_cast<int>(pos))
                         .bind(4, v.value)
                         .bind(5, v.type)
                         .bind(6, v.isDefault ? 1 : 0)
                         .bind(7, v.label)
                         .run();
            }
            if (!ok)
                return false;
        }
        const auto del = cached("DELETE FROM fields WHERE id=?");
        for (const auto& [value, id] : old) {
            if (!del->bind(1, id).run())
                return false;
        }
    }
    return true;
}

int ContactsIndex::applyScan(const ContactsScan& scan, int& changed) {
    changed = 0;
    if (!ok())
        return CONTACTS_ERROR_DB;
    std::lock_guard<std::mutex> guard(writerMutex());
    std::lock_guard<std::mutex> own(mutex_);
    if (!exec("BEGIN IMMEDIATE"))
        return CONTACTS_ERROR_DB;

    std::map<std::string, Existing> existing;
    int version = 0;
    std::map<std::string, int> books;
    Changes changes;
    std::set<std::string> seen;
    const bool read = scan.complete ? readExisting(existing) : readAffected(scan, existing);
    if (!read || readVersion(version) != CONTACTS_ERROR_NONE ||
        !readAddressBooks(scan.addressBooks, books) ||
        !applyCards(scan, existing, books, seen, changes) ||
        !markVanished(scan, existing, seen, changes) || !recordChanges(changes, version + 1) ||
        !writeStamps(scan) || !exec("COMMIT")) {
        exec("ROLLBACK");
        return CONTACTS_ERROR_DB;
    }
    changed = static_cast<int>(changes.size());
    // A rescan reads and writes every row of a new folder; its pages would stay cached for the
    // life of the connection, though lookups between rescans go through other connections.
    sqlite3_db_release_memory(db_.get());
    return CONTACTS_ERROR_NONE;
}

namespace {

constexpr const char* kExistingColumns =
    "SELECT card_key, id, deleted, fingerprint, source_file, address_book_id FROM contacts";

}  // namespace

bool ContactsIndex::collectExisting(SqliteStatement& sel,
                                    std::map<std::string, Existing>& existing) {
    int rc;
    while ((rc = sel.step()) == SQLITE_ROW) {
        existing[sel.columnText(0)] = {sel.columnInt(1), sel.columnInt(2) != 0, sel.columnText(3),
                                       sel.columnText(4), sel.columnInt(5)};
    }
    sel.reset();
    return rc == SQLITE_DONE;
}

bool ContactsIndex::readExisting(std::map<std::string, Existing>& existing) {
    SqliteStatement sel(db_.get(), kExistingColumns);
    return collectExisting(sel, existing);
}

// The rows a partial scan can touch: those of its cards' keys, and every row of a file it re-read
// or found gone (the cards that may have vanished).
bool ContactsIndex::readAffected(const ContactsScan& scan,
                                 std::map<std::string, Existing>& existing) {
    SqliteStatement byKey(db_.get(), std::string(kExistingColumns) + " WHERE card_key=?");
    for (const ParsedCard& card : scan.cards) {
        if (!collectExisting(byKey.bind(1, card.key), existing))
            return false;
    }
    SqliteStatement byFile(db_.get(), std::string(kExistingColumns) + " WHERE source_file=?");
    for (const auto& [rel, stamp] : scan.files) {
        if (!collectExisting(byFile.bind(1, rel), existing))
            return false;
    }
    for (const auto& rel : scan.goneFiles) {
        if (!collectExisting(byFile.bind(1, rel), existing))
            return false;
    }
    return true;
}

int ContactsIndex::knownFiles(FileStamps& files) {
    files.clear();
    if (!ok())
        return CONTACTS_ERROR_DB;
    std::lock_guard<std::mutex> own(mutex_);
    SqliteStatement sel(db_.get(), "SELECT path, size, mtime, ctime, hash, uids FROM files");
    int rc;
    while ((rc = sel.step()) == SQLITE_ROW) {
        FileStamp& stamp = files[sel.columnText(0)];
        stamp.size = sel.columnInt64(1);
        stamp.mtimeNs = sel.columnInt64(2);
        stamp.ctimeNs = sel.columnInt64(3);
        stamp.contentHash = sel.columnInt64(4);
        const std::string uids = sel.columnText(5);
        size_t start = 0;
        while (start < uids.size()) {
            size_t end = uids.find(kUidSeparator, start);
            if (end == std::string::npos)
                end = uids.size();
            if (end > start)
                stamp.uids.push_back(uids.substr(start, end - start));
            start = end + 1;
        }
    }
    if (rc != SQLITE_DONE) {
        files.clear();  // read everything rather than trust half a list
        return CONTACTS_ERROR_DB;
    }
    return CONTACTS_ERROR_NONE;
}

// Remembers how the files this scan read looked; a complete scan replaces the whole list.
// Unreadable files keep no new stamp, so they are read again next time.
bool ContactsIndex::writeStamps(const ContactsScan& scan) {
    if (scan.complete && !exec("DELETE FROM files"))
        return false;
    SqliteStatement gone(db_.get(), "DELETE FROM files WHERE path=?");
    for (const auto& rel : scan.goneFiles) {
        if (!gone.bind(1, rel).run())
            return false;
    }
    SqliteStatement put(db_.get(),
                        "INSERT OR REPLACE INTO files(path, size, mtime, ctime, hash, uids) "
                        "VALUES(?,?,?,?,?,?)");
    for (const FileStamps* stamps : {&scan.files, &scan.restamped}) {
        if (!putStamps(put, *stamps))
            return false;
    }
    return true;
}

bool ContactsIndex::putStamps(SqliteStatement& put, const FileStamps& stamps) {
    for (const auto& [rel, stamp] : stamps) {
        std::string uids;
        for (const auto& uid : stamp.uids) {
            if (!uids.empty())
                uids += kUidSeparator;
            uids += uid;
        }
        if (!put.bind(1, rel)
                 .bind(2, stamp.size)
                 .bind(3, stamp.mtimeNs)
                 .bind(4, stamp.ctimeNs)
                 .bind(5, stamp.contentHash)
                 .bind(6, uids)
                 .run())
            return false;
    }
    return true;
}

bool ContactsIndex::readAddressBooks(const std::set<std::string>& paths,
                                     std::map<std::string, int>& books) {
    for (const auto& path : paths) {
        int id = 0;
        if (addressBookId(path, id) != CONTACTS_ERROR_NONE)
            return false;
        books[path] = id;
    }
    return true;
}

bool ContactsIndex::applyCards(const ContactsScan& scan,
                               const std::map<std::string, Existing>& existing,
                               std::map<std::string, int>& books, std::set<std::string>& seen,
                               Changes& changes) {
    for (const ParsedCard& card : scan.cards) {
        if (!seen.insert(card.key).second)
            continue;
        const int bookId = books[card.addressBook];
        auto it = existing.find(card.key);
        int id = 0;
        if (it == existing.end()) {
            if (!writeContact(0, card, bookId, true, id))
                return false;
            changes.emplace_back(id, CONTACTS_CHANGE_INSERTED);
            continue;
        }
        const Existing& old = it->second;
        if (old.deleted || old.fingerprint != card.fingerprint()) {
            if (!writeContact(old.id, card, bookId, false, id))
                return false;
            changes.emplace_back(old.id,
                                 old.deleted ? CONTACTS_CHANGE_INSERTED : CONTACTS_CHANGE_UPDATED);
        } else if (old.sourceFile != card.file || old.bookId != bookId) {
            // Moved without a visible change: follow it quietly.
            if (!cached("UPDATE contacts SET source_file=?, address_book_id=? WHERE id=?")
                     ->bind(1, card.file)
                     .bind(2, bookId)
                     .bind(3, old.id)
                     .run())
                return false;
        }
    }
    return true;
}

bool ContactsIndex::markVanished(const ContactsScan& scan,
                                 const std::map<std::string, Existing>& existing,
                                 const std::set<std::string>& seen, Changes& changes) {
    SqliteStatement markDeleted(db_.get(), "UPDATE contacts SET deleted=1 WHERE id=?");
    for (const auto& [key, old] : existing) {
        if (old.deleted || seen.count(key) != 0)
            continue;
        // Cards of a file that could not be read this time are kept as they were.
        if (scan.unreadableFiles.count(old.sourceFile) != 0)
            continue;
        if (!markDeleted.bind(1, old.id).run())
            return false;
        changes.emplace_back(old.id, CONTACTS_CHANGE_DELETED);
    }
    return true;
}

bool ContactsIndex::recordChanges(const Changes& changes, int next) {
    if (changes.empty())
        return true;
    SqliteStatement log(db_.get(),
                        "INSERT OR REPLACE INTO changes(contact_id, version, type) "
                        "VALUES(?,?,?)");
    for (const auto& [id, type] : changes) {
        if (!log.bind(1, id).bind(2, next).bind(3, type).run())
            return false;
    }
    SqliteStatement bump(db_.get(), "UPDATE meta SET value=? WHERE key='version'");
    return bump.bind(1, next).run();
}

int ContactsIndex::currentVersion(int& version) {
    if (!ok())
        return CONTACTS_ERROR_DB;
    std::lock_guard<std::mutex> own(mutex_);
    return readVersion(version);
}

int ContactsIndex::allContacts(std::vector<ContactSummary>& contacts) {
    contacts.clear();
    if (!ok())
        return CONTACTS_ERROR_DB;
    std::lock_guard<std::mutex> own(mutex_);
    SqliteStatement sel(db_.get(), "SELECT id, display_name, deleted FROM contacts ORDER BY id");
    int rc;
    while ((rc = sel.step()) == SQLITE_ROW) {
        ContactSummary s;
        s.id = sel.columnInt(0);
        s.personId = s.id;
        s.displayName = sel.columnText(1);
        s.deleted = sel.columnInt(2) != 0;
        contacts.push_back(std::move(s));
    }
    return rc == SQLITE_DONE ? CONTACTS_ERROR_NONE : CONTACTS_ERROR_DB;
}

int ContactsIndex::contactsCount(int& count) {
    count = 0;
    if (!ok())
        return CONTACTS_ERROR_DB;
    std::lock_guard<std::mutex> own(mutex_);
    const auto sel = cached("SELECT COUNT(*) FROM contacts");
    if (sel->step() != SQLITE_ROW)
        return CONTACTS_ERROR_DB;
    count = sel->columnInt(0);
    return CONTACTS_ERROR_NONE;
}

int ContactsIndex::contactSummary(int id, ContactSummary& summary) {
    summary = {};
    if (!ok())
        return CONTACTS_ERROR_DB;
    std::lock_guard<std::mutex> own(mutex_);
    const auto sel = cached("SELECT display_name, deleted FROM contacts WHERE id = ?");
    sel->bind(1, id);
    const int rc = sel->step();
    if (rc == SQLITE_DONE)
        return CONTACTS_ERROR_NO_DATA;
    if (rc != SQLITE_ROW)
        return CONTACTS_ERROR_DB;
    summary.id = id;
    summary.personId = id;
    summary.displayName = sel->columnText(0);
    summary.deleted = sel->columnInt(1) != 0;
    return CONTACTS_ERROR_NONE;
}

int ContactsIndex::changesAfter(int addressBookId, int sinceVersion,
                                std::vector<ContactChange>& changes, int& currentVersion) {
    changes.clear();
    if (!ok())
        return CONTACTS_ERROR_DB;
    std::lock_guard<std::mutex> own(mutex_);
    // One read transaction, so that the version and the changes belong together.
    if (!exec("BEGIN"))
        return CONTACTS_ERROR_DB;
    int rc = readVersion(currentVersion);
    if (rc == CONTACTS_ERROR_NONE) {
        SqliteStatement sel(
            db_.get(),
            "SELECT ch.contact_id, c.address_book_id, ch.type, ch.version FROM changes ch "
            "JOIN contacts c ON c.id = ch.contact_id "
            "WHERE ch.version > ?1 "
            "AND ch.version = (SELECT MAX(version) FROM changes WHERE contact_id = ch.contact_id) "
            "AND (?2 < 0 OR c.address_book_id = ?2) ORDER BY ch.version, ch.contact_id");
        sel.bind(1, sinceVersion).bind(2, addressBookId);
        int step;
        while ((step = sel.step()) == SQLITE_ROW) {
            changes.push_back(
                {sel.columnInt(0), sel.columnInt(1), sel.columnInt(2), sel.columnInt(3)});
        }
        if (step != SQLITE_DONE)
            rc = CONTACTS_ERROR_DB;
    }
    exec("COMMIT");
    return rc;
}

int ContactsIndex::contactByPersonId(int personId, ContactRecord& record) {
    std::vector<ContactRecord> records;
    std::vector<int> results;
    contactsByPersonIds({personId}, records, results);
    record = std::move(records.front());
    return results.front();
}

int ContactsIndex::contactsByPersonIds(const std::vector<int>& personIds,
                                       std::vector<ContactRecord>& records,
                                       std::vector<int>& results) {
    records.assign(personIds.size(), ContactRecord{});
    results.assign(personIds.size(), CONTACTS_ERROR_DB);
    if (!ok())
        return CONTACTS_ERROR_DB;
    std::lock_guard<std::mutex> own(mutex_);
    // One read transaction for all of them (an upload looks its contacts up a few dozen at a
    // time); its statements are kept prepared like the look-ups'.
    if (!stepCached("BEGIN"))
        return CONTACTS_ERROR_DB;
    for (std::size_t i = 0; i < personIds.size(); ++i) {
        results[i] = personIds[i] < 1 ? CONTACTS_ERROR_INVALID_PARAMETER
                                      : readContact(personIds[i], records[i]);
        if (results[i] != CONTACTS_ERROR_NONE)
            records[i] = ContactRecord{};
    }
    stepCached("COMMIT");
    return CONTACTS_ERROR_NONE;
}

int ContactsIndex::readContact(int personId, ContactRecord& record) {
    int rc = CONTACTS_ERROR_NONE;
    {
        const auto sel = cached(
            "SELECT display_name, has_name, favorite, first, last, addition, prefix, "
            "suffix, phonetic_first, phonetic_middle, phonetic_last FROM contacts "
            "WHERE id=? AND deleted=0");
        const int step = sel->bind(1, personId).step();
        if (step == SQLITE_ROW) {
            record.id = personId;
            record.personId = personId;
            record.displayName = sel->columnText(0);
            record.hasName = sel->columnInt(1) != 0;
            record.isFavorite = sel->columnInt(2) != 0;
            record.name.first = sel->columnText(3);
            record.name.last = sel->columnText(4);
            record.name.addition = sel->columnText(5);
            record.name.prefix = sel->columnText(6);
            record.name.suffix = sel->columnText(7);
            record.name.phoneticFirst = sel->columnText(8);
            record.name.phoneticMiddle = sel->columnText(9);
            record.name.phoneticLast = sel->columnText(10);
        } else {
            rc = step == SQLITE_DONE ? CONTACTS_ERROR_NO_DATA : CONTACTS_ERROR_DB;
        }
    }
    if (rc != CONTACTS_ERROR_NONE)
        return rc;
    const auto sel = cached(
        "SELECT id, kind, value, type, is_default, label FROM fields WHERE contact_id=? "
        "ORDER BY kind, position");
    sel->bind(1, personId);
    int step;
    while ((step = sel->step()) == SQLITE_ROW) {
        const int id = sel->columnInt(0);
        const int type = sel->columnInt(3);
        const bool isDefault = sel->columnInt(4) != 0;
        switch (sel->columnInt(1)) {
            case kNumber:
                record.numbers.push_back(
                    {id, type, isDefault, sel->columnText(2), sel->columnText(5)});
                break;
            case kEmail:
                record.emails.push_back({id, type, isDefault, sel->columnText(2)});
                break;
            default:
                record.addresses.push_back({id, type, isDefault, sel->columnText(2)});
                break;
        }
    }
    record.hasPhoneNumber = !record.numbers.empty();
    return step == SQLITE_DONE ? CONTACTS_ERROR_NONE : CONTACTS_ERROR_DB;
}

}  // namespace pelio::platform
