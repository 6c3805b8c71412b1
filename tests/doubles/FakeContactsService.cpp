#include "doubles/FakeContactsService.h"

namespace pelio::test {

using namespace pelio::platform;

int FakeContactsService::fireChanged(const std::string& viewUri) {
    std::vector<Registration> due;
    {
        std::lock_guard<std::mutex> guard(mutex_);
        for (const auto& r : callbacks_) {
            if (r.viewUri == viewUri)
                due.push_back(r);
        }
    }
    for (const auto& r : due)
        r.cb(r.viewUri.c_str(), r.userData);
    return static_cast<int>(due.size());
}

int FakeContactsService::getCurrentVersion(int& version) {
    version = 0;
    return CONTACTS_ERROR_NONE;
}

int FakeContactsService::getAllContacts(std::vector<ContactSummary>& contacts) {
    contacts.clear();
    return CONTACTS_ERROR_NONE;
}

int FakeContactsService::getChangesByVersion(int, int, std::vector<ContactChange>& changes,
                                             int& currentVersion) {
    changes.clear();
    currentVersion = 0;
    return CONTACTS_ERROR_NONE;
}

int FakeContactsService::getContactByPersonId(int, ContactRecord& record) {
    record = ContactRecord{};
    return CONTACTS_ERROR_NO_DATA;
}

int FakeContactsService::addChangedCallback(const std::string& viewUri, ContactsChangedCallback cb,
                                            void* userData) {
    if (cb == nullptr || viewUri.empty())
        return CONTACTS_ERROR_INVALID_PARAMETER;
    std::lock_guard<std::mutex> guard(mutex_);
    callbacks_.push_back({viewUri, cb, userData});
    return CONTACTS_ERROR_NONE;
}

int FakeContactsService::removeChangedCallback(const std::string& viewUri,
                                               ContactsChangedCallback cb, void* userData) {
    std::lock_guard<std::mutex> guard(mutex_);
    const auto removed = std::erase_if(callbacks_, [&](const Registration& r) {
        return r.viewUri == viewUri && r.cb == cb && r.userData == userData;
    });
    return removed > 0 ? CONTACTS_ERROR_NONE : CONTACTS_ERROR_INVALID_PARAMETER;
}

}  // namespace pelio::test
