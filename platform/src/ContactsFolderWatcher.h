// Watches a folder and its sub-folders with inotify, on the Ecore main loop (the contacts folder,
// and the music folder of the media content service).
//
// Any change of a file or folder below the root (re)starts a short debounce timer; when it fires,
// the onChanged function runs, on the main loop thread. New sub-folders are watched as they
// appear. Create, start and destroy on the main loop thread (after ecore_init, which the
// constructor takes a reference on). Errors: start() returns false and logs (tag "PelioPlatform").
#pragma once

#include <Ecore.h>

#include <functional>
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

  private:
    static Eina_Bool onReadable(void* data, Ecore_Fd_Handler* handler);
    static Eina_Bool onDebounce(void* data);
    void watchTree(const std::string& dir);
    void drain();

    std::string root_;
    std::function<void()> onChanged_;
    double debounce_;
    std::string what_;  // names the folder in log lines
    int fd_ = -1;
    Ecore_Fd_Handler* handler_ = nullptr;
    Ecore_Timer* timer_ = nullptr;
};

}  // namespace pelio::platform
