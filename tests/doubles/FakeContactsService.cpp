#include "doubles/FakeContactsService.h"

#include <algorithm>
#include <iterator>

namespace pelio::test {

using namespace pelio::platform;

FakeContactsService::Contact FakeContactsService::person(std::string displayName, std::string first,
                                                         std::string last, std::string middle) {
    Contact c;
    c.displayName = std::move(displayName);
    c.name.first = std::move(first);
    c.name.last = std::move(last);
    c.name.addition = std::move(middle);
    return c;
}

void FakeContactsService::assignNumberIds(Contact& fresh, const Contact* old) {
    std::vector<ContactNumber> unused = old ? old->numbers : std::vector<ContactNumber>{};
    for (auto& n : fresh.numbers) {
        auto match = std::find_if(unused.begin(), unused.end(),
                                  [&n](const ContactNumber& o) { return o.number == n.number; });
        if (match != unused.end()) {
            n.id = match->id;
            unused.erase(match);
        } else {
            n.id = nextNumberId_++;
        }
    }
}

void FakeContactsService::recordChange(int id, int type) {
    if (inBatch_) {
        auto it = batch_.find(id);
        if (it == batch_.end()) {
            batch_[id] = type;
        } else if (!(it->second == CONTACTS_CHANGE_INSERTED && type == CONTACTS_CHANGE_UPDATED)) {
            it->second = type;
        }
        return;
    }
    ++version_;
    log_[id].push_back({type, version_});
}

int FakeContactsService::addContact(const Contact& contact) {
    std::lock_guard<std::mutex> guard(mutex_);
    const int id = nextId_++;
    Stored s{contact, false};
    assignNumberIds(s.data, nullptr);
    contacts_[id] = std::move(s);
    recordChange(id, CONTACTS_CHANGE_INSERTED);
    return id;
}

bool FakeContactsService::updateContact(int id, const Contact& contact) {
    std::lock_guard<std::mutex> guard(mutex_);
    auto it = contacts_.find(id);
    if (it == contacts_.end() || it->second.deleted)
        return false;
    Contact fresh = contact;
    assignNumberIds(fresh, &it->second.data);
    it->second.data = std::move(fresh);
    recordChange(id, CONTACTS_CHANGE_UPDATED);
    return true;
}

bool FakeContactsService::deleteContact(int id) {
    std::lock_guard<std::mutex> guard(mutex_);
    auto it = contacts_.find(id);
    if (it == contacts_.end() || it->second.deleted)
        return false;
    it->second.deleted = true;
    recordChange(id, CONTACTS_CHANGE_DELETED);
    return true;
}

void FakeContactsService::beginBatch() {
    std::lock_guard<std::mutex> guard(mutex_);
    inBatch_ = true;
    batch_.clear();
}

void FakeContactsService::commitBatch() {
    std::lock_guard<std::mutex> guard(mutex_);
    inBatch_ = false;
    if (batch_.empty())
        return;
    ++version_;
    for (const auto& [id, type] : batch_)
        log_[id].push_back({type, version_});
    batch_.clear();
}

std::vector<int> FakeContactsService::numberIds(int id) const {
    std::lock_guard<std::mutex> guard(mutex_);
    std::vector<int> ids;
    auto it = contacts_.find(id);
    if (it != contacts_.end()) {
        for (const auto& n : it->second.data.numbers)
            ids.push_back(n.id);
    }
    return ids;
}

int FakeContactsService::version() const {
    std::lock_guard<std::mutex> guard(mutex_);
    return version_;
}

int FakeContactsService::fireChanged(const std::string& viewUri) {
    std::vector<Registration> toCall;
    {
        std::lock_guard<std::mutex> guard(mutex_);
        std::copy_if(callbacks_.begin(), callbacks_.end(), std::back_inserter(toCall),
                     [&](const Registration& r) { return r.viewUri == viewUri; });
    }
    for (const auto& r : toCall)
        r.cb(r.viewUri.c_str(), r.userData);
    return static_cast<int>(toCall.size());
}

void FakeContactsService::setRequireConnection(bool required) {
    std::lock_guard<std::mutex> guard(mutex_);
    requireConnection_ = required;
}

void FakeContactsService::failNext(Op op, int errorCode) {
    std::lock_guard<std::mutex> guard(mutex_);
    failures_[op] = errorCode;
}

int FakeContactsService::query(Op op) {
    if (auto f = failures_.find(op); f != failures_.end()) {
        const int code = f->second;
        failures_.erase(f);
        return code;
    }
    auto it = threadConnections_.find(std::this_thread::get_id());
    const bool connected = !requireConnection_ || connections_ > 0 ||
                           (it != threadConnections_.end() && it->second > 0);
    return connected ? CONTACTS_ERROR_NONE : CONTACTS_ERROR_NOT_CONNECTED;
}

int FakeContactsService::connect() {
    std::lock_guard<std::mutex> guard(mutex_);
    ++connections_;
    return CONTACTS_ERROR_NONE;
}

int FakeContactsService::disconnect() {
    std::lock_guard<std::mutex> guard(mutex_);
    if (connections_ == 0)
        return CONTACTS_ERROR_NOT_CONNECTED;
    --connections_;
    return CONTACTS_ERROR_NONE;
}

int FakeContactsService::connectOnThread() {
    std::lock_guard<std::mutex> guard(mutex_);
    ++threadConnections_[std::this_thread::get_id()];
    return CONTACTS_ERROR_NONE;
}

int FakeContactsService::disconnectOnThread() {
    std::lock_guard<std::mutex> guard(mutex_);
    int& count = threadConnections_[std::this_thread::get_id()];
    if (count == 0)
        return CONTACTS_ERROR_NOT_CONNECTED;
    --count;
    return CONTACTS_ERROR_NONE;
}

int FakeContactsService::getCurrentVersion(int& version) {
    std::lock_guard<std::mutex> guard(mutex_);
    if (int rc = query(Op::GetCurrentVersion))
        return rc;
    version = version_;
    return CONTACTS_ERROR_NONE;
}

int FakeContactsService::getAllContacts(std::vector<ContactSummary>& contacts) {
    std::lock_guard<std::mutex> guard(mutex_);
    contacts.clear();
    if (int rc = query(Op::GetAllContacts))
        return rc;
    for (const auto& [id, s] : contacts_)
        contacts.push_back({id, id, s.data.displayName, s.deleted});
    return CONTACTS_ERROR_NONE;
}

int FakeContactsService::getChangesByVersion(int addressBookId, int sinceVersion,
                                             std::vector<ContactChange>& changes,
                                             int& currentVersion) {
    std::lock_guard<std::mutex> guard(mutex_);
    changes.clear();
    if (int rc = query(Op::GetChangesByVersion))
        return rc;
    for (const auto& [id, entries] : log_) {
        const int book = contacts_[id].data.addressBookId;
        if (entries.back().version <= sinceVersion || (addressBookId >= 0 && book != addressBookId))
            continue;
        changes.push_back({id, book, entries.back().type, entries.back().version});
    }
    std::stable_sort(
        changes.begin(), changes.end(),
        [](const ContactChange& a, const ContactChange& b) { return a.version < b.version; });
    currentVersion = version_;
    return CONTACTS_ERROR_NONE;
}

int FakeContactsService::getContactByPersonId(int personId, ContactRecord& record) {
    std::lock_guard<std::mutex> guard(mutex_);
    record = ContactRecord{};
    if (int rc = query(Op::GetContactByPersonId))
        return rc;
    if (personId < 1)
        return CONTACTS_ERROR_INVALID_PARAMETER;
    auto it = contacts_.find(personId);
    if (it == contacts_.end() || it->second.deleted)
        return CONTACTS_ERROR_NO_DATA;
    const Contact& c = it->second.data;
    record.id = record.personId = personId;
    record.displayName = c.displayName;
    record.isFavorite = c.isFavorite;
    record.name = c.name;
    record.hasName =
        !(c.name.first + c.name.last + c.name.addition + c.name.prefix + c.name.suffix).empty();
    record.numbers = c.numbers;
    record.hasPhoneNumber = !c.numbers.empty();
    return CONTACTS_ERROR_NONE;
}

int FakeContactsService::addChangedCallback(const std::string& viewUri, ContactsChangedCallback cb,
                                            void* userData) {
    std::lock_guard<std::mutex> guard(mutex_);
    if (cb == nullptr || viewUri.empty())
        return CONTACTS_ERROR_INVALID_PARAMETER;
    callbacks_.push_back({viewUri, cb, userData});
    return CONTACTS_ERROR_NONE;
}

int FakeContactsService::removeChangedCallback(const std::string& viewUri,
                                               ContactsChangedCallback cb, void* userData) {
    std::lock_guard<std::mutex> guard(mutex_);
    auto it = std::find_if(callbacks_.begin(), callbacks_.end(), [&](const Registration& r) {
        return r.viewUri == viewUri && r.cb == cb && r.userData == userData;
    });
    if (it == callbacks_.end())
        return CONTACTS_ERROR_INVALID_PARAMETER;
    callbacks_.erase(it);
    return CONTACTS_ERROR_NONE;
}

}  // namespace pelio::test
