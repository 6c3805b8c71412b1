#include "observers/MainObserver.h"

#include "PelioLog.h"
#include "observers/AppDBObserver.h"
#include "observers/ContactDbObserver.h"

MainObserver::MainObserver()
    : mAppDbObserver(std::make_unique<AppDBObserver>()),
      mContactDbObserver(std::make_unique<ContactDbObserver>()) {}

MainObserver::~MainObserver() = default;

void MainObserver::register_all_observers() {
    if (mAppDbObserver) {
        AppDBObserver::register_app_observer(mAppDbObserver.get());
    }
    if (mContactDbObserver) {
        ContactDbObserver::register_contacts_observer(mContactDbObserver.get());
    }
    mRegistered = true;
}

void MainObserver::unregister_all_observers() {
    if (!mRegistered)
        return;
    AppDBObserver::unregister_app_observer();
    if (mContactDbObserver) {
        ContactDbObserver::unregister_contacts_observer(mContactDbObserver.get());
    }
    mRegistered = false;
}
