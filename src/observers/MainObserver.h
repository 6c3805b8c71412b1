// MainObserver: owns the change observers and registers / unregisters them as a group.
//
// Observers: contacts and media (music library); the application observer joins the group when
// its domain exists. Thread: the main loop. Owned by the sync manager, which creates it at
// start and destroys it at shutdown. Errors: the observers log their own failures.
#pragma once

#include <memory>

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
    std::unique_ptr<ContactDbObserver> mContactDbObserver;
    std::unique_ptr<MediaDBObserver> mMediaDBObserver;
    bool mRegistered = false;
};
