#include "LinuxContactsService.h"

#include "ContactsFolderScanner.h"
#include "ContactsFolderWatcher.h"
#include "ContactsIndex.h"

#include <pelio/platform/Log.h>

#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <system_error>

namespace pelio::platform {
namespace {

constexpr const char* kTag = "PelioPlatform";
constexpr int kWorkerCacheKiB = 256;

std::string dataHome() {
    const char* xdg = std::getenv("XDG_DATA_HOME");
    if (xdg != nullptr && xdg[0] == '/')
        return xdg;
    const char* home = std::getenv("HOME");
    return std::string(home ? home : "") + "/.local/share";
}

bool knownView(const std::string& uri) {
    return uri == kContactsPersonViewUri || uri == kContactsContactViewUri ||
           uri == kContactsPhoneLogViewUri;
}

}  // namespace

LinuxContactsService::LinuxContactsService(std::string contactsRoot, std::string dbPath)
    : root_(std::move(contactsRoot)), dbPath_(std::move(dbPath)) {}

LinuxContactsService::~LinuxContactsService() = default;

void LinuxContactsService::resolvePaths() {
    if (root_.empty())
        root_ = dataHome() + "/contacts";
    if (dbPath_.empty())
        dbPath_ = dataHome() + "/pelio-platform/contacts.db";
}

std::shared_ptr<ContactsIndex> LinuxContactsService::openIndex() {
    resolvePaths();
    std::error_code ec;
    std::filesystem::create_directories(std::filesystem::path(dbPath_).parent_path(), ec);
    std::filesystem::create_directories(root_, ec);
    auto index = std::make_shared<ContactsIndex>(dbPath_);
    if (!index->ok())
        return nullptr;
    return index;
}

std::shared_ptr<ContactsIndex> LinuxContactsService::currentIndex() {
    std::lock_guard<std::mutex> guard(mutex_);
    auto it = threads_.find(std::this_thread::get_id());
    if (it != threads_.end())
        return it->second.index;
    return main_;
}

int LinuxContactsService::rescanOn(ContactsIndex& index, int& changed) {
    std::string root;
    {
        std::lock_guard<std::mutex> guard(mutex_);
        root = root_;
    }
    const auto started = std::chrono::steady_clock::now();
    FileStamps known;
    index.knownFiles(known);  // on failure empty: the whole folder is read
    const ContactsScan scan = ContactsFolderScanner::scan(root, known);
    if (!scan.listed) {
        dlog_print(DLOG_ERROR, kTag, "contacts: %s could not be listed, contacts kept as they are",
                   root.c_str());
        return CONTACTS_ERROR_SYSTEM;
    }
    const int rc = index.applyScan(scan, changed);
    const auto ms = std::chrono::duration_cast<std::chrono::milliseconds>(
                        std::chrono::steady_clock::now() - started)
                        .count();
    if (rc != CONTACTS_ERROR_NONE) {
        dlog_print(DLOG_ERROR, kTag, "contacts: rescan of %s failed [%d]", root.c_str(), rc);
    } else {
        dlog_print(DLOG_DEBUG, kTag,
                   "contacts: rescan (%s) read %zu cards of %zu files, %d changed, %lld ms",
                   scan.complete ? "all files" : "changed files", scan.cards.size(),
                   scan.files.size(), changed, static_cast<long long>(ms));
    }
    return rc;
}

int LinuxContactsService::rescan(int& changed) {
    changed = 0;
    auto index = currentIndex();
    if (!index)
        return CONTACTS_ERROR_NOT_CONNECTED;
    return rescanOn(*index, changed);
}

int LinuxContactsService::connect() {
    std::shared_ptr<ContactsIndex> index;
    bool first = false;
    {
        std::lock_guard<std::mutex> guard(mutex_);
        if (!main_) {
            main_ = openIndex();
            if (!main_)
                return CONTACTS_ERROR_DB;
            first = true;
        }
        ++mainCount_;
        index = main_;
    }
    int changed = 0;
    rescanOn(*index, changed);
    if (first) {
        auto watcher =
            std::make_unique<ContactsFolderWatcher>(root_, [this]() { onFolderChanged(); });
        if (!watcher->start()) {
            dlog_print(DLOG_WARN, kTag,
                       "contacts: changes of %s will not be seen until the next "
                       "connect",
                       root_.c_str());
        }
        std::lock_guard<std::mutex> guard(mutex_);
        watcher_ = std::move(watcher);
    }
    if (changed > 0)
        fireCallbacks();
    return CONTACTS_ERROR_NONE;
}

int LinuxContactsService::disconnect() {
    std::unique_ptr<ContactsFolderWatcher> watcher;
    {
        std::lock_guard<std::mutex> guard(mutex_);
        if (mainCount_ == 0)
            return CONTACTS_ERROR_NOT_CONNECTED;
        if (--mainCount_ > 0)
            return CONTACTS_ERROR_NONE;
        main_.reset();
        watcher = std::move(watcher_);
    }
    return CONTACTS_ERROR_NONE;  // the watcher ends here, outside the lock
}

int LinuxContactsService::connectOnThread() {
    bool watching = false;
    std::shared_ptr<ContactsIndex> index;
    {
        std::lock_guard<std::mutex> guard(mutex_);
        auto& conn = threads_[std::this_thread::get_id()];
        if (conn.index) {
            ++conn.count;
            return CONTACTS_ERROR_NONE;
        }
        conn.index = openIndex();
        if (!conn.index) {
            threads_.erase(std::this_thread::get_id());
            return CONTACTS_ERROR_DB;
        }
        // A worker's connection reads (a collection, a composition's look-ups); the main one
        // keeps SQLite's default cache for the rescans.
        conn.index->limitPageCache(kWorkerCacheKiB);
        conn.count = 1;
        index = conn.index;
        watching = watcher_ != nullptr;
    }
    if (!watching) {
        int changed = 0;
        rescanOn(*index, changed);
    }
    return CONTACTS_ERROR_NONE;
}

int LinuxContactsService::disconnectOnThread() {
    std::shared_ptr<ContactsIndex> last;  // closed outside the lock
    std::lock_guard<std::mutex> guard(mutex_);
    auto it = threads_.find(std::this_thread::get_id());
    if (it == threads_.end())
        return CONTACTS_ERROR_NOT_CONNECTED;
    if (--it->second.count == 0) {
        last = std::move(it->second.index);
        threads_.erase(it);
    }
    return CONTACTS_ERROR_NONE;
}

int LinuxContactsService::getCurrentVersion(int& version) {
    auto index = currentIndex();
    if (!index)
        return CONTACTS_ERROR_NOT_CONNECTED;
    return index->currentVersion(version);
}

int LinuxContactsService::getAllContacts(std::vector<ContactSummary>& contacts) {
    auto index = currentIndex();
    if (!index)
        return CONTACTS_ERROR_NOT_CONNECTED;
    return index->allContacts(contacts);
}

int LinuxContactsService::getContactsCount(int& count) {
    count = 0;
    auto index = currentIndex();
    if (!index)
        return CONTACTS_ERROR_NOT_CONNECTED;
    return index->contactsCount(count);
}

int LinuxContactsService::getContactSummary(int contactId, ContactSummary& summary) {
    auto index = currentIndex();
    if (!index)
        return CONTACTS_ERROR_NOT_CONNECTED;
    return index->contactSummary(contactId, summary);
}

int LinuxContactsService::getChangesByVersion(int addressBookId, int sinceVersion,
                                              std::vector<ContactChange>& changes,
                                              int& currentVersion) {
    auto index = currentIndex();
    if (!index)
        return CONTACTS_ERROR_NOT_CONNECTED;
    return index->changesAfter(addressBookId, sinceVersion, changes, currentVersion);
}

int LinuxContactsService::getContactByPersonId(int personId, ContactRecord& record) {
    auto index = currentIndex();
    if (!index)
        return CONTACTS_ERROR_NOT_CONNECTED;
    return index->contactByPersonId(personId, record);
}

void LinuxContactsService::getContactsByPersonIds(const std::vector<int>& personIds,
                                                  std::vector<ContactRecord>& records,
                                                  std::vector<int>& results) {
    auto index = currentIndex();
    if (!index) {
        records.assign(personIds.size(), ContactRecord{});
        results.assign(personIds.size(), CONTACTS_ERROR_NOT_CONNECTED);
        return;
    }
    index->contactsByPersonIds(personIds, records, results);
}

int LinuxContactsService::addChangedCallback(const std::string& viewUri, ContactsChangedCallback cb,
                                             void* userData) {
    if (cb == nullptr || !knownView(viewUri))
        return CONTACTS_ERROR_INVALID_PARAMETER;
    std::lock_guard<std::mutex> guard(mutex_);
    for (const auto& r : callbacks_) {
        if (r.uri == viewUri && r.cb == cb && r.userData == userData) {
            return CONTACTS_ERROR_INVALID_PARAMETER;  // already registered
        }
    }
    callbacks_.push_back({viewUri, cb, userData});
    return CONTACTS_ERROR_NONE;
}

int LinuxContactsService::removeChangedCallback(const std::string& viewUri,
                                                ContactsChangedCallback cb, void* userData) {
    std::lock_guard<std::mutex> guard(mutex_);
    for (auto it = callbacks_.begin(); it != callbacks_.end(); ++it) {
        if (it->uri == viewUri && it->cb == cb && it->userData == userData) {
            callbacks_.erase(it);
            return CONTACTS_ERROR_NONE;
        }
    }
    return CONTACTS_ERROR_INVALID_PARAMETER;
}

void LinuxContactsService::onFolderChanged() {
    std::shared_ptr<ContactsIndex> index;
    {
        std::lock_guard<std::mutex> guard(mutex_);
        index = main_;
    }
    if (!index)
        return;
    int changed = 0;
    if (rescanOn(*index, changed) == CONTACTS_ERROR_NONE && changed > 0)
        fireCallbacks();
}

void LinuxContactsService::fireCallbacks() {
    std::vector<Registration> toCall;
    {
        std::lock_guard<std::mutex> guard(mutex_);
        for (const auto& r : callbacks_) {
            if (r.uri == kContactsPersonViewUri || r.uri == kContactsContactViewUri) {
                toCall.push_back(r);
            }
        }
    }
    // Outside the lock: a callback may register, remove or disconnect.
    for (const auto& r : toCall)
        r.cb(r.uri.c_str(), r.userData);
}

}  // namespace pelio::platform
