#include "observers/MainObserver.h"

#include "PelioLog.h"
#include "observers/ContactDbObserver.h"

MainObserver::MainObserver() : mContactDbObserver(std::make_unique<ContactDbObserver>()) {}

MainObserver::~MainObserver() = default;

void MainObserver::register_all_observers() {
    if (mContactDbObserver) {
        ContactDbObserver::register_contacts_observer(mContactDbObserver.get());
    }
    mRegistered = true;
}

void MainObserver::unregister_all_observers() {
    if (!mRegistered)
        return;
    if (mContactDbObserver) {
        ContactDbObserver::unregister_contacts_observer(mContactDbObserver.get());
    }
    mRegistered = false;
}
