// MainObserver: owns the change observers and registers / unregisters them as a group: the
// application observer, the contacts observer and (with the media domain) the media observer.
// The cellular observer stands on its own (the sync manager registers it beside this group).
//
// Thread: the main loop. Owned by the sync manager, which creates it at start and destroys it at
// shutdown. Errors: the observers log their own failures.
#pragma once

#include <memory>

class AppDBObserver;
class ContactDbObserver;
class MediaDBObserver;

class MainObserver {
  public:
    MainObserver();
    ~MainObserver();
    MainObserver(const MainObserver&) = delete;
    MainObserver& operator=(const MainObserver&) = delete;

    void register_all_observers();
    void unregister_all_observers();

    ContactDbObserver* contactDbObserver() { return mContactDbObserver.get(); }

  private:
    std::unique_ptr<AppDBObserver> mAppDbObserver;
    std::unique_ptr<ContactDbObserver> mContactDbObserver;
    std::unique_ptr<MediaDBObserver> mMediaDBObserver;
    bool mRegistered = false;
};
