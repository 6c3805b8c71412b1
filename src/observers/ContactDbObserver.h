// ContactDbObserver: turns contacts-service change callbacks into requests to the sync manager.
//
// Person and contact changes restart a lazy one-shot timer of 10000 ms; when it fires the sync
// manager's contact_changed() runs once, so a burst of edits causes one contacts sync. Phone-log
// changes reach calllog_changed() at once. Other view uris are ignored.
//
// Thread: the main loop (the contacts service's callbacks and the timer both run there).
// Ownership: owned by MainObserver; the destructor deletes a pending timer. The timer comes from
// the platform timer module (pelio::platform::timers()), so tests tick it by hand.
// Errors: registration failures are logged and returned as the contacts service's error code.
#pragma once

#include <memory>

#include <pelio/platform/Timer.h>

class ContactDbObserver {
  public:
    static constexpr int kLazyUpdateDelayMs = 10000;

    ContactDbObserver() = default;
    ~ContactDbObserver();
    ContactDbObserver(const ContactDbObserver&) = delete;
    ContactDbObserver& operator=(const ContactDbObserver&) = delete;

    // Connects to the contacts service and adds the person and contact view callbacks.
    static int register_contacts_observer(ContactDbObserver* observer);
    static int unregister_contacts_observer(ContactDbObserver* observer);

    // The contacts service's change callback (user data: the observer).
    static void __db_changed_cb(const char* view_uri, void* user_data);

    // (Re)starts the lazy-update timer with the given delay.
    void _sendChangedPostCmd(int delayMs);

    // Whether a lazy update is waiting to fire.
    bool hasPendingTimer() const;

  private:
    pelio::platform::TimerAction __handleTimeOut_cb();

    std::unique_ptr<pelio::platform::Timer> mTimer;
};
