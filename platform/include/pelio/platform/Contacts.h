// Contacts service.
//
// Linux: vCard files under $XDG_DATA_HOME/contacts/ (vdir layout: each sub-folder an address book,
// one or more cards per .vcf file), indexed into $XDG_DATA_HOME/pelio-platform/contacts.db, which
// holds the database version, a change log by version and stable ids. A rescan runs on connect();
// while connected, inotify on the folder triggers a rescan on the main loop, and the change
// callbacks of the person and contact views run there too.
//
// Ids: person id == contact id, one stable positive integer per card (per UID, else per file and
// position), never reused. A number's id is stable while its card and value stay the same.
// A deleted card stays listed (deleted = true, its last names kept), so a collection that walks
// the change log can still read it.
//
// Threads: connect()/disconnect() and the callbacks belong to the main loop thread;
// connectOnThread()/disconnectOnThread() give the calling worker thread its own connection.
// All query operations work on the calling thread's connection (or the main one).
#pragma once

#include <memory>
#include <string>
#include <utility>
#include <vector>

namespace pelio::platform {

enum ContactsError {
    CONTACTS_ERROR_NONE = 0,
    CONTACTS_ERROR_INVALID_PARAMETER = -22,
    CONTACTS_ERROR_NO_DATA = -61,
    CONTACTS_ERROR_DB = -5,
    CONTACTS_ERROR_NOT_CONNECTED = -107,
    CONTACTS_ERROR_SYSTEM = -1,
};

// View uris, as handed to the change callbacks (compared by prefix).
inline constexpr const char* kContactsPersonViewUri = "pelio://contacts/person";
inline constexpr const char* kContactsContactViewUri = "pelio://contacts/contact";
inline constexpr const char* kContactsPhoneLogViewUri = "pelio://contacts/phone_log";
inline constexpr const char* kContactsUpdatedInfoViewUri = "pelio://contacts/contact_updated_info";

// Change types of the change log.
enum ContactChangeType {
    CONTACTS_CHANGE_INSERTED = 0,
    CONTACTS_CHANGE_UPDATED = 1,
    CONTACTS_CHANGE_DELETED = 2,
};

// Number type bits.
enum ContactNumberType : unsigned {
    CONTACTS_NUMBER_TYPE_OTHER = 0,
    CONTACTS_NUMBER_TYPE_CUSTOM = 1u << 0,
    CONTACTS_NUMBER_TYPE_HOME = 1u << 1,
    CONTACTS_NUMBER_TYPE_WORK = 1u << 2,
    CONTACTS_NUMBER_TYPE_VOICE = 1u << 3,
    CONTACTS_NUMBER_TYPE_FAX = 1u << 4,
    CONTACTS_NUMBER_TYPE_MSG = 1u << 5,
    CONTACTS_NUMBER_TYPE_CELL = 1u << 6,
    CONTACTS_NUMBER_TYPE_PAGER = 1u << 7,
    CONTACTS_NUMBER_TYPE_MAIN = 1u << 29,
};

// One entry of the contact list (the contact view).
struct ContactSummary {
    int id = 0;        // contact id
    int personId = 0;  // equal to id on Linux
    std::string displayName;
    bool deleted = false;
};

// One record of the change log: the latest change of a contact after the asked version.
struct ContactChange {
    int contactId = 0;
    int addressBookId = 0;
    int type = CONTACTS_CHANGE_INSERTED;  // ContactChangeType
    int version = 0;
};

struct ContactName {
    std::string first, last, addition, prefix, suffix;
    std::string phoneticFirst, phoneticMiddle, phoneticLast;
};

struct ContactNumber {
    int id = 0;
    int type = 0;  // ContactNumberType bits
    bool isDefault = false;
    std::string number;
    std::string label;  // custom label text, if any
};

struct ContactEmail {
    int id = 0;
    int type = 0;
    bool isDefault = false;
    std::string email;
};

struct ContactAddress {
    int id = 0;
    int type = 0;
    bool isDefault = false;
    std::string text;
};

// The full record of one contact (looked up by person id).
struct ContactRecord {
    int id = 0;
    int personId = 0;
    std::string displayName;
    bool isFavorite = false;
    bool hasPhoneNumber = false;
    bool hasName = false;
    ContactName name;
    std::vector<ContactNumber> numbers;
    std::vector<ContactEmail> emails;
    std::vector<ContactAddress> addresses;
};

using ContactsChangedCallback = void (*)(const char* viewUri, void* userData);

class ContactsService {
  public:
    virtual ~ContactsService() = default;

    virtual int connect() = 0;
    virtual int disconnect() = 0;
    virtual int connectOnThread() = 0;
    virtual int disconnectOnThread() = 0;

    // The contacts database version (raised by one by every rescan that finds a change).
    virtual int getCurrentVersion(int& version) = 0;
    // All contacts in id order, deleted ones included (marked).
    virtual int getAllContacts(std::vector<ContactSummary>& contacts) = 0;
    // How many entries getAllContacts() would give, without reading them. The default reads
    // the list; a service with an index counts there.
    virtual int getContactsCount(int& count) {
        std::vector<ContactSummary> all;
        const int rc = getAllContacts(all);
        count = static_cast<int>(all.size());
        return rc;
    }
    // The entry of getAllContacts() with this contact id (deleted ones included);
    // CONTACTS_ERROR_NO_DATA when there is none. The default walks the list; a service with an
    // index looks the id up there.
    virtual int getContactSummary(int contactId, ContactSummary& summary) {
        std::vector<ContactSummary> all;
        const int rc = getAllContacts(all);
        if (rc != CONTACTS_ERROR_NONE && rc != CONTACTS_ERROR_NO_DATA)
            return rc;
        for (auto& c : all) {
            if (c.id == contactId) {
                summary = std::move(c);
                return CONTACTS_ERROR_NONE;
            }
        }
        return CONTACTS_ERROR_NO_DATA;
    }
    // Changes after sinceVersion over one address book (-1: all), and the current version.
    virtual int getChangesByVersion(int addressBookId, int sinceVersion,
                                    std::vector<ContactChange>& changes, int& currentVersion) = 0;
    // The live contact whose person id equals personId; CONTACTS_ERROR_NO_DATA when there is none.
    virtual int getContactByPersonId(int personId, ContactRecord& record) = 0;
    // Several of those at once: results[i] and records[i] are what getContactByPersonId
    // (personIds[i]) gives. The default asks one by one; a service with an index reads them all
    // in one go.
    virtual void getContactsByPersonIds(const std::vector<int>& personIds,
                                        std::vector<ContactRecord>& records,
                                        std::vector<int>& results) {
        records.assign(personIds.size(), ContactRecord{});
        results.assign(personIds.size(), CONTACTS_ERROR_NONE);
        for (std::size_t i = 0; i < personIds.size(); ++i)
            results[i] = getContactByPersonId(personIds[i], records[i]);
    }

    // Change callbacks of a view (person, contact or phone log), run on the main loop thread.
    virtual int addChangedCallback(const std::string& viewUri, ContactsChangedCallback cb,
                                   void* userData) = 0;
    virtual int removeChangedCallback(const std::string& viewUri, ContactsChangedCallback cb,
                                      void* userData) = 0;
};

ContactsService& contactsService();
void installContactsService(std::unique_ptr<ContactsService> impl);

}  // namespace pelio::platform
