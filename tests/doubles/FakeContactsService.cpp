#include "doubles/FakeContactsService.h"

#include <algorithm>

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

FakeContactsService::Contact FakeContactsService::contact(int id) const {
    std::lock_guard<std::mutex> guard(mutex_);
    auto it = contacts_.find(id);
    return it == contacts_.end() ? Contact{} : it->second.data;
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

void FakeContactsService::setVersion(int version) {
    std::lock_guard<std::mutex> guard(mutex_);
    version_ = version;
}

int FakeContactsService::fireChanged(const std::string& viewUri) {
    std::vector<Registration> toCall;
    {
        std::lock_guard<std::mutex> guard(mutex_);
        for (const auto& r : callbacks_) {
            if (r.viewUri == viewUri)
                toCall.push_back(r);
        }
    }
    for (const auto& r : toCall)
        r.cb(r.viewUri.c_str(), r.userData);
    return static_cast<int>(toCall.size());
}

std::vector<FakeContactsService::Registration> FakeContactsService::registrations() const {
    std::lock_guard<std::mutex> guard(mutex_);
    return callbacks_;
}

int FakeContactsService::registrationCount(const std::string& viewUri) const {
    std::lock_guard<std::mutex> guard(mutex_);
    return static_cast<int>(
        std::count_if(callbacks_.begin(), callbacks_.end(),
                      [&](const Registration& r) { return r.viewUri == viewUri; }));
}

int FakeContactsService::connectCount() const {
    std::lock_guard<std::mutex> guard(mutex_);
    return connects_;
}

int FakeContactsService::disconnectCount() const {
    std::lock_guard<std::mutex> guard(mutex_);
    return disconnects_;
}

int FakeContactsService::connectOnThreadCount() const {
    std::lock_guard<std::mutex> guard(mutex_);
    return threadConnects_;
}

int FakeContactsService::disconnectOnThreadCount() const {
    std::lock_guard<std::mutex> guard(mutex_);
    return threadDisconnects_;
}

bool FakeContactsService::isConnected() const {
    std::lock_guard<std::mutex> guard(mutex_);
    return connects_ > disconnects_;
}

void FakeContactsService::setRequireConnection(bool required) {
    std::lock_guard<std::mutex> guard(mutex_);
    requireConnection_ = required;
}

void FakeContactsService::failNext(Op op, int errorCode) {
    std::lock_guard<std::mutex> guard(mutex_);
    failures_[op] = errorCode;
}

int FakeContactsService::takeFailure(Op op) {
    auto it = failures_.find(op);
    if (it == failures_.end())
        return CONTACTS_ERROR_NONE;
    const int code = it->second;
    failures_.erase(it);
    return code;
}

bool FakeContactsService::queryAllowed() const {
    if (!requireConnection_ || connects_ > disconnects_)
        return true;
    auto it = threadConnections_.find(std::this_thread::get_id());
    return it != threadConnections_.end() && it->second > 0;
}

int FakeContactsService::connect() {
    std::lock_guard<std::mutex> guard(mutex_);
    if (int rc = takeFailure(Op::Connect))
        return rc;
    ++connects_;
    return CONTACTS_ERROR_NONE;
}

int FakeContactsService::disconnect() {
    std::lock_guard<std::mutex> guard(mutex_);
    if (int rc = takeFailure(Op::Disconnect))
        return rc;
    if (connects_ <= disconnects_)
        return CONTACTS_ERROR_NOT_CONNECTED;
    ++disconnects_;
    return CONTACTS_ERROR_NONE;
}

int FakeContactsService::connectOnThread() {
    std::lock_guard<std::mutex> guard(mutex_);
    if (int rc = takeFailure(Op::ConnectOnThread))
        return rc;
    ++threadConnects_;
    ++threadConnections_[std::this_thread::get_id()];
    return CONTACTS_ERROR_NONE;
}

int FakeContactsService::disconnectOnThread() {
    std::lock_guard<std::mutex> guard(mutex_);
    if (int rc = takeFailure(Op::DisconnectOnThread))
        return rc;
    auto it = threadConnections_.find(std::this_thread::get_id());
    if (it == threadConnections_.end() || it->second == 0)
        return CONTACTS_ERROR_NOT_CONNECTED;
    --it->second;
    ++threadDisconnects_;
    return CONTACTS_ERROR_NONE;
}

int FakeContactsService::getCurrentVersion(int& version) {
    std::lock_guard<std::mutex> guard(mutex_);
    if (int rc = takeFailure(Op::GetCurrentVersion))
        return rc;
    if (!queryAllowed())
        return CONTACTS_ERROR_NOT_CONNECTED;
    version = version_;
    return CONTACTS_ERROR_NONE;
}

int FakeContactsService::getAllContacts(std::vector<ContactSummary>& contacts) {
    std::lock_guard<std::mutex> guard(mutex_);
    contacts.clear();
    if (int rc = takeFailure(Op::GetAllContacts))
        return rc;
    if (!queryAllowed())
        return CONTACTS_ERROR_NOT_CONNECTED;
    for (const auto& [id, s] : contacts_)
        contacts.push_back({id, id, s.data.displayName, s.deleted});
    return CONTACTS_ERROR_NONE;
}

int FakeContactsService::getChangesByVersion(int addressBookId, int sinceVersion,
                                             std::vector<ContactChange>& changes,
                                             int& currentVersion) {
    std::lock_guard<std::mutex> guard(mutex_);
    changes.clear();
    if (int rc = takeFailure(Op::GetChangesByVersion))
        return rc;
    if (!queryAllowed())
        return CONTACTS_ERROR_NOT_CONNECTED;
    for (const auto& [id, entries] : log_) {
        if (entries.empty() || entries.back().version <= sinceVersion)
            continue;
        const int book = contacts_[id].data.addressBookId;
        if (addressBookId >= 0 && book != addressBookId)
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
    if (int rc = takeFailure(Op::GetContactByPersonId))
        return rc;
    if (!queryAllowed())
        return CONTACTS_ERROR_NOT_CONNECTED;
    if (personId < 1)
        return CONTACTS_ERROR_INVALID_PARAMETER;
    auto it = contacts_.find(personId);
    if (it == contacts_.end() || it->second.deleted)
        return CONTACTS_ERROR_NO_DATA;
    const Contact& c = it->second.data;
    record.id = personId;
    record.personId = personId;
    record.displayName = c.displayName;
    record.isFavorite = c.isFavorite;
    record.name = c.name;
    record.hasName = !(c.name.first.empty() && c.name.last.empty() && c.name.addition.empty() &&
                       c.name.prefix.empty() && c.name.suffix.empty());
    record.numbers = c.numbers;
    record.hasPhoneNumber = !c.numbers.empty();
    return CONTACTS_ERROR_NONE;
}

int FakeContactsService::addChangedCallback(const std::string& viewUri, ContactsChangedCallback cb,
                                            void* userData) {
    std::lock_guard<std::mutex> guard(mutex_);
    if (int rc = takeFailure(Op::AddChangedCallback))
        return rc;
    if (cb == nullptr || viewUri.empty())
        return CONTACTS_ERROR_INVALID_PARAMETER;
    callbacks_.push_back({viewUri, cb, userData});
    return CONTACTS_ERROR_NONE;
}

int FakeContactsService::removeChangedCallback(const std::string& viewUri,
                                               ContactsChangedCallback cb, void* userData) {
    std::lock_guard<std::mutex> guard(mutex_);
    if (int rc = takeFailure(Op::RemoveChangedCallback))
        return rc;
    for (auto it = callbacks_.begin(); it != callbacks_.end(); ++it) {
        if (it->viewUri == viewUri && it->cb == cb && it->userData == userData) {
            callbacks_.erase(it);
            return CONTACTS_ERROR_NONE;
        }
    }
    return CONTACTS_ERROR_INVALID_PARAMETER;
}

}  // namespace pelio::test
