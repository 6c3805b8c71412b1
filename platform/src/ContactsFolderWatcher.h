// Watches a folder and its sub-folders with inotify, on the Ecore main loop (the contacts folder,
// and the music folder of the media content service).
//
// Any change of a file or folder below the root (re)starts a short debounce timer; when it fires,
// the onChanged function runs, on the main loop thread. New sub-folders are watched as they
// appear; after an overflow of the kernel's event queue, or when the root itself goes, the whole
// tree is watched again. Create, start and destroy on the main loop thread (after
// ecore_init, which the constructor takes a reference on). Errors: start() returns false and logs
// (tag "PelioPlatform").
//
// seen() and quietSince() may be called from any thread while the watcher lives: they tell a
// caller whether anything can have changed below the root since a moment it noted. The events the
// main loop reads and the count of what was seen move together under one mutex, so an event is
// either still queued in the kernel (which quietSince() asks) or already counted.
#pragma once

#include <Ecore.h>

#include <functional>
#include <mutex>
#include <string>

namespace pelio::platform {

class ContactsFolderWatcher {
  public:
    ContactsFolderWatcher(std::string root, std::function<void()> onChanged,
                          double debounceSeconds = 0.2, std::string what = "contacts");
    ~ContactsFolderWatcher();
    ContactsFolderWatcher(const ContactsFolderWatcher&) = delete;
    ContactsFolderWatcher& operator=(const ContactsFolderWatcher&) = delete;

    bool start();

    // A count of everything seen so far: every batch of events read, every overflow, every
    // rewatch of the tree moves it on (any thread).
    unsigned long long seen() const;
    // True only when the watcher is started, every folder of the tree is watched, and nothing has
    // happened since seen() gave `mark`: no event read since, none waiting in the kernel's queue,
    // no debounce pending and no rewatch under way (any thread).
    bool quietSince(unsigned long long mark) const;

  private:
    static Eina_Bool onReadable(void* data, Ecore_Fd_Handler* handler);
    static Eina_Bool onDebounce(void* data);
    // Watches the root and every folder below it; false when one of them could not be watched.
    bool watchTree();
    void drain();
    void restartDebounce();

    std::string root_;
    std::function<void()> onChanged_;
    double debounce_;
    std::string what_;  // names the folder in log lines
    int fd_ = -1;
    int rootWatch_ = -1;
    Ecore_Fd_Handler* handler_ = nullptr;
    Ecore_Timer* timer_ = nullptr;

    mutable std::mutex stateMutex_;  // guards the reads of fd_ and everything below
    unsigned long long seen_ = 0;
    bool live_ = false;        // started, its fd handler in place
    bool whole_ = false;       // the last (re)watch reached every folder
    bool rewatching_ = false;  // events read call for a rewatch that has not finished yet
    bool pending_ = false;     // the debounce timer runs
};

}  // namespace pelio::platform
