#include "observers/MainObserver.h"

#include "PelioLog.h"
#include "observers/AppDBObserver.h"
#include "observers/ContactDbObserver.h"
#include "observers/MediaDBObserver.h"

MainObserver::MainObserver()
    : mAppDbObserver(std::make_unique<AppDBObserver>()),
      mContactDbObserver(std::make_unique<ContactDbObserver>()),
      mMediaDBObserver(std::make_unique<MediaDBObserver>()) {}

MainObserver::~MainObserver() = default;

void MainObserver::register_all_observers() {
    if (mAppDbObserver) {
        AppDBObserver::register_app_observer(mAppDbObserver.get());
    }
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
    AppDBObserver::unregister_app_observer();
    if (mContactDbObserver) {
        ContactDbObserver::unregister_contacts_observer(mContactDbObserver.get());
    }
    if (mMediaDBObserver)
        MediaDBObserver::unregister_media_observer(mMediaDBObserver.get());
    mRegistered = false;
}
