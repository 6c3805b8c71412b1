// In-memory contacts service for unit tests (install with
// pelio::platform::installContactsService(std::make_unique<FakeContactsService>())).
//
// Same model as the Linux service: ids are positive, given in increasing order and never reused;
// every mutation is one "rescan" that raises the database version by one (wrap several mutations in
// beginBatch()/commitBatch() to give them one shared version, as one rescan would); the change log
// answers getChangesByVersion with one record per contact, its latest change after the asked
// version; a deleted contact stays in getAllContacts (deleted = true, last display name kept) and
// getContactByPersonId answers CONTACTS_ERROR_NO_DATA for it.
//
// Connections: queries answer CONTACTS_ERROR_NOT_CONNECTED unless connect() is in effect or the
// calling thread called connectOnThread() (setRequireConnection(false) lifts that). failNext()
// makes the next call of one query fail with a given code.
//
// Thread-safe: mutations and queries may be used from any thread. Callbacks run on the
// thread that calls fireChanged(), without the internal lock held.
#pragma once

#include <pelio/platform/Contacts.h>

#include <map>
#include <mutex>
#include <set>
#include <string>
#include <thread>
#include <vector>

namespace pelio::test {

class FakeContactsService : public pelio::platform::ContactsService {
  public:
    // What a test says about one contact; number ids are assigned by the fake.
    struct Contact {
        std::string displayName;
        pelio::platform::ContactName name;
        bool isFavorite = false;
        int addressBookId = 0;
        std::vector<pelio::platform::ContactNumber> numbers;  // id ignored on input

        Contact& favorite(bool value = true) {
            isFavorite = value;
            return *this;
        }
        Contact& phonetic(std::string first, std::string middle, std::string last) {
            name.phoneticFirst = std::move(first);
            name.phoneticMiddle = std::move(middle);
            name.phoneticLast = std::move(last);
            return *this;
        }
        Contact& withNumber(std::string number, int type, bool isDefault = false,
                            std::string label = {}) {
            pelio::platform::ContactNumber n;
            n.number = std::move(number);
            n.type = type;
            n.isDefault = isDefault;
            n.label = std::move(label);
            numbers.push_back(std::move(n));
            return *this;
        }
    };

    // Queries that failNext() can make fail.
    enum class Op { GetCurrentVersion, GetAllContacts, GetChangesByVersion, GetContactByPersonId };

    // A contact with a display name and first, last and middle (addition) name.
    static Contact person(std::string displayName, std::string first = {}, std::string last = {},
                          std::string middle = {});

    FakeContactsService() = default;

    // --- mutations (each one version unless inside a batch) ---
    // Adds a contact; returns its id (> 0).
    int addContact(const Contact& contact);
    // Replaces a live contact's data; a number whose text is unchanged keeps its id.
    // False when id is unknown or deleted.
    bool updateContact(int id, const Contact& contact);
    // Marks a live contact deleted; false when id is unknown or already deleted.
    bool deleteContact(int id);
    // Between these two, all mutations share one version (raised once at commit when anything
    // changed; a contact changed twice keeps its latest change type, insert+update stays insert).
    void beginBatch();
    void commitBatch();

    // The number ids of a contact, in order.
    std::vector<int> numberIds(int id) const;
    int version() const;

    // Runs every callback registered for viewUri (exact uri); returns how many ran.
    int fireChanged(const std::string& viewUri);
    void setRequireConnection(bool required);
    void failNext(Op op, int errorCode);

    // --- ContactsService ---
    int connect() override;
    int disconnect() override;
    int connectOnThread() override;
    int disconnectOnThread() override;
    int getCurrentVersion(int& version) override;
    int getAllContacts(std::vector<pelio::platform::ContactSummary>& contacts) override;
    int getChangesByVersion(int addressBookId, int sinceVersion,
                            std::vector<pelio::platform::ContactChange>& changes,
                            int& currentVersion) override;
    int getContactByPersonId(int personId, pelio::platform::ContactRecord& record) override;
    int addChangedCallback(const std::string& viewUri, pelio::platform::ContactsChangedCallback cb,
                           void* userData) override;
    int removeChangedCallback(const std::string& viewUri,
                              pelio::platform::ContactsChangedCallback cb, void* userData) override;

  private:
    struct Stored {
        Contact data;
        bool deleted = false;
    };
    struct Change {
        int type;
        int version;
    };
    struct Registration {
        std::string viewUri;
        pelio::platform::ContactsChangedCallback cb;
        void* userData;
    };

    int query(Op op);  // the injected code, or NOT_CONNECTED without a connection; lock held
    void recordChange(int id, int type);                       // lock held
    void assignNumberIds(Contact& fresh, const Contact* old);  // lock held

    mutable std::mutex mutex_;
    std::map<int, Stored> contacts_;
    std::map<int, std::vector<Change>> log_;
    std::map<int, int> batch_;  // id -> change type, while a batch is open
    bool inBatch_ = false;
    int version_ = 0;
    int nextId_ = 1;
    int nextNumberId_ = 1;
    std::vector<Registration> callbacks_;
    int connections_ = 0;
    bool requireConnection_ = true;
    std::map<std::thread::id, int> threadConnections_;
    std::map<Op, int> failures_;
};

}  // namespace pelio::test
