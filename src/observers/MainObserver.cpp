#include "observers/MainObserver.h"

#include "PelioLog.h"
#include "observers/ContactDbObserver.h"
#include "observers/MediaDBObserver.h"

MainObserver::MainObserver()
    : mContactDbObserver(std::make_unique<ContactDbObserver>()),
      mMediaDBObserver(std::make_unique<MediaDBObserver>()) {}

MainObserver::~MainObserver() = default;

void MainObserver::register_all_observers() {
    if (mContactDbObserver) {
        ContactDbObserver::register_contacts_observer(mContactDbObserver.get());
    }
    if (mMediaDBObserver)
        MediaDBObserver::register_media_observer(mMediaDBObserver.get());
    mRegistered = true;
}

void MainObserver::unregister_all_observers() {
    if (!mRegistered)
        return;
    if (mContactDbObserver) {
        ContactDbObserver::unregister_contacts_observer(mContactDbObserver.get());
    }
    if (mMediaDBObserver)
        MediaDBObserver::unregister_media_observer(mMediaDBObserver.get());
    mRegistered = false;
}
