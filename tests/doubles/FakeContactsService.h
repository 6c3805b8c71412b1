// An empty contacts service for unit tests that need none of its data, only its change callbacks
// (tests that need contacts use the real Linux service on vCard files: support/VCardBook.h).
// Every query answers "no contacts" at version 0; connections are counted, not checked.
// Thread-safe; callbacks run on the thread that calls fireChanged(), without the lock held.
#pragma once

#include <pelio/platform/Contacts.h>

#include <mutex>
#include <string>
#include <vector>

namespace pelio::test {

class FakeContactsService : public pelio::platform::ContactsService {
  public:
    // Runs every callback registered for viewUri; returns how many ran.
    int fireChanged(const std::string& viewUri);

    int connect() override { return pelio::platform::CONTACTS_ERROR_NONE; }
    int disconnect() override { return pelio::platform::CONTACTS_ERROR_NONE; }
    int connectOnThread() override { return pelio::platform::CONTACTS_ERROR_NONE; }
    int disconnectOnThread() override { return pelio::platform::CONTACTS_ERROR_NONE; }
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
    struct Registration {
        std::string viewUri;
        pelio::platform::ContactsChangedCallback cb;
        void* userData;
    };
    std::mutex mutex_;
    std::vector<Registration> callbacks_;
};

}  // namespace pelio::test
