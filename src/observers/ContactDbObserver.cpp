#include "observers/ContactDbObserver.h"

#include <cstring>

#include <pelio/platform/Contacts.h>

#include "PelioLog.h"
#include "upload/PLMSyncManager.h"

namespace platform = pelio::platform;

namespace {

bool startsWith(const char* uri, const char* viewUri) {
    return std::strncmp(uri, viewUri, std::strlen(viewUri)) == 0;
}

}  // namespace

ContactDbObserver::~ContactDbObserver() {
    mTimer.reset();
}

int ContactDbObserver::register_contacts_observer(ContactDbObserver* observer) {
    platform::ContactsService& contacts = platform::contactsService();
    int rc = contacts.connect();
    if (rc != platform::CONTACTS_ERROR_NONE) {
        LOGE("contacts_connect failed with error code [%d]", rc);
        return rc;
    }
    rc = contacts.addChangedCallback(platform::kContactsPersonViewUri, __db_changed_cb, observer);
    if (rc != platform::CONTACTS_ERROR_NONE) {
        LOGE("contacts_db_add_changed_cb : _contacts_person._uri - failed with error code [%d]",
             rc);
        return rc;
    }
    rc = contacts.addChangedCallback(platform::kContactsContactViewUri, __db_changed_cb, observer);
    if (rc != platform::CONTACTS_ERROR_NONE) {
        LOGE("contacts_db_add_changed_cb : _contacts_contact._uri - failed with error code [%d]",
             rc);
        return rc;
    }
    return rc;
}

int ContactDbObserver::unregister_contacts_observer(ContactDbObserver* observer) {
    platform::ContactsService& contacts = platform::contactsService();
    int rc =
        contacts.removeChangedCallback(platform::kContactsPersonViewUri, __db_changed_cb, observer);
    if (rc != platform::CONTACTS_ERROR_NONE) {
        LOGE("contacts_db_remove_changed_cb : _contacts_person - failed with error code [%d]", rc);
        return rc;
    }
    rc = contacts.removeChangedCallback(platform::kContactsContactViewUri, __db_changed_cb,
                                        observer);
    if (rc != platform::CONTACTS_ERROR_NONE) {
        LOGE("contacts_db_remove_changed_cb : _contacts_contact - failed with error code [%d]", rc);
        return rc;
    }
    rc = contacts.disconnect();
    if (rc != platform::CONTACTS_ERROR_NONE) {
        LOGE("contacts_disconnect failed with error code [%d]", rc);
    }
    return rc;
}

void ContactDbObserver::__db_changed_cb(const char* view_uri, void* user_data) {
    auto* observer = static_cast<ContactDbObserver*>(user_data);
    if (observer == nullptr) {
        LOGE("broken user_data");
        return;
    }
    if (view_uri == nullptr || view_uri[0] == '\0') {
        LOGE("Un-recognizable view_uri");
        return;
    }
    if (startsWith(view_uri, platform::kContactsPersonViewUri)) {
        LOGD("Persion ID case");
        observer->_sendChangedPostCmd(kLazyUpdateDelayMs);
    } else if (startsWith(view_uri, platform::kContactsContactViewUri)) {
        LOGD("Contact ID case");
        observer->_sendChangedPostCmd(kLazyUpdateDelayMs);
    } else if (startsWith(view_uri, platform::kContactsPhoneLogViewUri)) {
        LOGD("Call log ID case");
        PLMSyncManager* manager = PLMSyncManager::getInstance();
        if (manager == nullptr) {
            LOGE("Failed to get plmSyncManager instance");
            return;
        }
        manager->calllog_changed();
    }
}

void ContactDbObserver::_sendChangedPostCmd(int delayMs) {
    if (hasPendingTimer()) {
        LOGD("postCmd timer not null so deleting prev timer");
    }
    mTimer.reset();
    LOGD("Lazy Update : %d ms delay", delayMs);
    mTimer = platform::timers().addRepeating(static_cast<double>(delayMs) / 1000.0,
                                             [this] { return __handleTimeOut_cb(); });
}

bool ContactDbObserver::hasPendingTimer() const {
    return mTimer && mTimer->active();
}

platform::TimerAction ContactDbObserver::__handleTimeOut_cb() {
    // The timer ends itself by returning Cancel; an inactive handle counts as cleared.
    PLMSyncManager* manager = PLMSyncManager::peekInstance();
    if (manager == nullptr)
        manager = PLMSyncManager::getInstance();
    if (manager != nullptr)
        manager->contact_changed();
    return platform::TimerAction::Cancel;
}
