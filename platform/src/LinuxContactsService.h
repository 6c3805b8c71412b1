// The contacts service on Linux: vCard files under $XDG_DATA_HOME/contacts/ indexed into
// $XDG_DATA_HOME/pelio-platform/contacts.db (see Contacts.h for the model).
//
// connect() (main loop thread, counted) opens the main connection, rescans the folder and, on the
// first connect, starts watching the folder; a change seen there is rescanned on the main loop
// and, when the rescan found changes, the callbacks of the person and contact views run there.
// connectOnThread() (any thread, counted per thread) opens the calling thread's own connection;
// it rescans first when no main connection is watching the folder, so a worker never reads a
// stale index. Nothing fires the phone-log view on Linux; its callbacks are accepted and kept.
//
// The folders are read from the environment at the first connection (HOME / XDG_DATA_HOME), or
// given to the constructor. Errors are ContactsError codes and log lines (tag "PelioPlatform").
#pragma once

#include <pelio/platform/Contacts.h>

#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace pelio::platform {

class ContactsIndex;
class ContactsFolderWatcher;

class LinuxContactsService : public ContactsService {
  public:
    // Empty paths: $XDG_DATA_HOME/contacts and $XDG_DATA_HOME/pelio-platform/contacts.db.
    explicit LinuxContactsService(std::string contactsRoot = {}, std::string dbPath = {});
    ~LinuxContactsService() override;

    int connect() override;
    int disconnect() override;
    int connectOnThread() override;
    int disconnectOnThread() override;

    int getCurrentVersion(int& version) override;
    int getAllContacts(std::vector<ContactSummary>& contacts) override;
    int getContactsCount(int& count) override;
    int getContactSummary(int contactId, ContactSummary& summary) override;
    int getChangesByVersion(int addressBookId, int sinceVersion,
                            std::vector<ContactChange>& changes, int& currentVersion) override;
    int getContactByPersonId(int personId, ContactRecord& record) override;
    void getContactsByPersonIds(const std::vector<int>& personIds,
                                std::vector<ContactRecord>& records,
                                std::vector<int>& results) override;

    int addChangedCallback(const std::string& viewUri, ContactsChangedCallback cb,
                           void* userData) override;
    int removeChangedCallback(const std::string& viewUri, ContactsChangedCallback cb,
                              void* userData) override;

    // Rescans the folder now on the calling thread's connection (or the main one); changed
    // receives the number of contacts that changed. Callbacks are not run.
    int rescan(int& changed);

  private:
    struct Registration {
        std::string uri;
        ContactsChangedCallback cb;
        void* userData;
    };
    struct ThreadConnection {
        std::shared_ptr<ContactsIndex> index;
        int count = 0;
    };

    void resolvePaths();
    std::shared_ptr<ContactsIndex> openIndex();
    std::shared_ptr<ContactsIndex> currentIndex();
    int rescanOn(ContactsIndex& index, int& changed);
    void onFolderChanged();
    void fireCallbacks();

    std::mutex mutex_;  // guards everything below
    std::string root_;
    std::string dbPath_;
    std::shared_ptr<ContactsIndex> main_;
    int mainCount_ = 0;
    std::map<std::thread::id, ThreadConnection> threads_;
    std::vector<Registration> callbacks_;
    std::unique_ptr<ContactsFolderWatcher> watcher_;
};

}  // namespace pelio::platform
