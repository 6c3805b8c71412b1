// An empty contacts service for unit tests that need none of its data, only its change callbacks
// (tests that need contacts use the real Linux service on vCard files: support/VCardBook.h).
// Every query answers "no contacts" at version 0; connections are counted, not checked.
// Thread-safe; callbacks run on the thread that calls fireChanged(), without the lock held.
#pragma once

#include <pelio/platform/Contacts.h>

#include <algorithm>
#include <iterator>
#include <mutex>
#include <string>
#include <vector>

namespace pelio::test {

class FakeContactsService : public pelio::platform::ContactsService {
  public:
    // Runs every callback registered for viewUri; returns how many ran.
    int fireChanged(const std::string& viewUri) {
        std::vector<Registration> due;
        {
            std::lock_guard<std::mutex> guard(mutex_);
            std::copy_if(callbacks_.begin(), callbacks_.end(), std::back_inserter(due),
                         [&](const Registration& r) { return r.viewUri == viewUri; });
        }
        for (const auto& r : due)
            r.cb(r.viewUri.c_str(), r.userData);
        return static_cast<int>(due.size());
    }

    int connect() override { return pelio::platform::CONTACTS_ERROR_NONE; }
    int disconnect() override { return pelio::platform::CONTACTS_ERROR_NONE; }
    int connectOnThread() override { return pelio::platform::CONTACTS_ERROR_NONE; }
    int disconnectOnThread() override { return pelio::platform::CONTACTS_ERROR_NONE; }
    int getCurrentVersion(int& version) override {
        version = 0;
        return pelio::platform::CONTACTS_ERROR_NONE;
    }
    int getAllContacts(std::vector<pelio::platform::ContactSummary>& contacts) override {
        contacts.clear();
        return pelio::platform::CONTACTS_ERROR_NONE;
    }
    int getChangesByVersion(int, int, std::vector<pelio::platform::ContactChange>& changes,
                            int& currentVersion) override {
        changes.clear();
        currentVersion = 0;
        return pelio::platform::CONTACTS_ERROR_NONE;
    }
    int getContactByPersonId(int, pelio::platform::ContactRecord& record) override {
        record = {};
        return pelio::platform::CONTACTS_ERROR_NO_DATA;
    }
    int addChangedCallback(const std::string& viewUri, pelio::platform::ContactsChangedCallback cb,
                           void* userData) override {
        if (cb == nullptr || viewUri.empty())
            return pelio::platform::CONTACTS_ERROR_INVALID_PARAMETER;
        std::lock_guard<std::mutex> guard(mutex_);
        callbacks_.push_back({viewUri, cb, userData});
        return pelio::platform::CONTACTS_ERROR_NONE;
    }
    int removeChangedCallback(const std::string& viewUri,
                              pelio::platform::ContactsChangedCallback cb,
                              void* userData) override {
        std::lock_guard<std::mutex> guard(mutex_);
        return std::erase_if(callbacks_,
                             [&](const Registration& r) {
                                 return r.viewUri == viewUri && r.cb == cb &&
                                        r.userData == userData;
                             })
                   ? pelio::platform::CONTACTS_ERROR_NONE
                   : pelio::platform::CONTACTS_ERROR_INVALID_PARAMETER;
    }

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
