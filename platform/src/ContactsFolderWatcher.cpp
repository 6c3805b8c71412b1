#include "ContactsFolderWatcher.h"

#include "DeferredClose.h"

#include <pelio/platform/Log.h>

#include <sys/inotify.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <system_error>

namespace pelio::platform {
namespace {

constexpr uint32_t kMask = IN_CREATE | IN_DELETE | IN_CLOSE_WRITE | IN_MODIFY | IN_MOVED_FROM |
                           IN_MOVED_TO | IN_ATTRIB | IN_DELETE_SELF | IN_MOVE_SELF | IN_ONLYDIR;

// Events after which the set of watched folders may no longer be the tree: a folder that came in,
// a lost queue (whose events may have named new folders), the root gone, moved or unmounted.
bool callsForRewatch(const struct inotify_event& ev, int rootWatch) {
    if ((ev.mask & IN_ISDIR) && (ev.mask & (IN_CREATE | IN_MOVED_TO)) && ev.len > 0)
        return true;
    if (ev.mask & IN_Q_OVERFLOW)
        return true;
    return ev.wd == rootWatch &&
           (ev.mask & (IN_DELETE_SELF | IN_MOVE_SELF | IN_IGNORED | IN_UNMOUNT)) != 0;
}

}  // namespace

ContactsFolderWatcher::ContactsFolderWatcher(std::string root, std::function<void()> onChanged,
                                             double debounceSeconds, std::string what)
    : root_(std::move(root)),
      onChanged_(std::move(onChanged)),
      debounce_(debounceSeconds),
      what_(std::move(what)) {
    // Like the main loop: without Ecore's system modules, which would reach for the system bus.
    setenv("ECORE_NO_SYSTEM_MODULES", "1", 1);
    ecore_app_no_system_modules();
    ecore_init();
}

ContactsFolderWatcher::~ContactsFolderWatcher() {
    if (timer_)
        ecore_timer_del(timer_);
    if (handler_)
        ecore_main_fd_handler_del(handler_);
    if (fd_ >= 0)
        closeWithoutWaiting(fd_);
    ecore_shutdown();
}

bool ContactsFolderWatcher::start() {
    fd_ = inotify_init1(IN_NONBLOCK | IN_CLOEXEC);
    if (fd_ < 0) {
        dlog_print(DLOG_ERROR, "PelioPlatform", "%s: inotify_init1 failed: %s", what_.c_str(),
                   std::strerror(errno));
        return false;
    }
    const bool whole = watchTree();
    handler_ = ecore_main_fd_handler_add(fd_, ECORE_FD_READ, &ContactsFolderWatcher::onReadable,
                                         this, nullptr, nullptr);
    if (handler_ == nullptr) {
        dlog_print(DLOG_ERROR, "PelioPlatform", "%s: cannot add the inotify fd handler",
                   what_.c_str());
        close(fd_);
        fd_ = -1;
        return false;
    }
    std::lock_guard<std::mutex> guard(stateMutex_);
    live_ = true;
    whole_ = whole;
    ++seen_;
    return true;
}

unsigned long long ContactsFolderWatcher::seen() const {
    std::lock_guard<std::mutex> guard(stateMutex_);
    return seen_;
}

bool ContactsFolderWatcher::quietSince(unsigned long long mark) const {
    std::lock_guard<std::mutex> guard(stateMutex_);
    if (!live_ || !whole_ || rewatching_ || pending_ || seen_ != mark)
        return false;
    int queued = 0;
    return ioctl(fd_, FIONREAD, &queued) == 0 && queued == 0;
}

bool ContactsFolderWatcher::watchTree() {
    namespace fs = std::filesystem;
    // Adding a watch to an already watched folder only refreshes it, so rewatching is harmless.
    rootWatch_ = inotify_add_watch(fd_, root_.c_str(), kMask);
    if (rootWatch_ < 0) {
        dlog_print(DLOG_WARN, "PelioPlatform", "%s: cannot watch %s: %s", what_.c_str(),
                   root_.c_str(), std::strerror(errno));
        return false;
    }
    bool whole = true;
    std::error_code ec;
    for (fs::recursive_directory_iterator it(root_, fs::directory_options::skip_permission_denied,
                                             ec);
         !ec && it != fs::recursive_directory_iterator(); it.increment(ec)) {
        std::error_code typeError;
        if (!it->is_directory(typeError) || inotify_add_watch(fd_, it->path().c_str(), kMask) >= 0)
            continue;
        if (whole) {  // once per pass: a full watch table would fail every folder
            dlog_print(DLOG_WARN, "PelioPlatform", "%s: cannot watch %s: %s", what_.c_str(),
                       it->path().c_str(), std::strerror(errno));
        }
        whole = false;
    }
    return whole && !ec;
}

void ContactsFolderWatcher::drain() {
    alignas(struct inotify_event) char buffer[16 * 1024];
    bool rewatch = false;
    for (;;) {
        // Read and counted under one lock: quietSince() sees an event queued or counted.
        std::lock_guard<std::mutex> guard(stateMutex_);
        const ssize_t n = read(fd_, buffer, sizeof buffer);
        if (n <= 0)
            break;
        ++seen_;
        for (ssize_t off = 0; off < n;) {
            const auto* ev = reinterpret_cast<const struct inotify_event*>(buffer + off);
            rewatch = rewatch || callsForRewatch(*ev, rootWatch_);
            off += static_cast<ssize_t>(sizeof(struct inotify_event) + ev->len);
        }
        rewatching_ = rewatching_ || rewatch;
    }
    if (!rewatch)
        return;
    // A new folder (and whatever was put in it before its watch), or the tree after lost events.
    // The watch descriptors' folders are not tracked, so rewatch from the root, once per batch.
    const bool whole = watchTree();
    std::lock_guard<std::mutex> guard(stateMutex_);
    whole_ = whole;
    rewatching_ = false;
    ++seen_;
}

void ContactsFolderWatcher::restartDebounce() {
    if (timer_)
        ecore_timer_del(timer_);
    timer_ = ecore_timer_add(debounce_, &ContactsFolderWatcher::onDebounce, this);
    std::lock_guard<std::mutex> guard(stateMutex_);
    pending_ = timer_ != nullptr;
}

Eina_Bool ContactsFolderWatcher::onReadable(void* data, Ecore_Fd_Handler*) {
    auto* self = static_cast<ContactsFolderWatcher*>(data);
    self->drain();
    self->restartDebounce();
    return ECORE_CALLBACK_RENEW;
}

Eina_Bool ContactsFolderWatcher::onDebounce(void* data) {
    auto* self = static_cast<ContactsFolderWatcher*>(data);
    self->timer_ = nullptr;
    {
        std::lock_guard<std::mutex> guard(self->stateMutex_);
        self->pending_ = false;
    }
    // A copy: the function may end up destroying this watcher (a callback that disconnects).
    auto onChanged = self->onChanged_;
    if (onChanged)
        onChanged();
    return ECORE_CALLBACK_CANCEL;
}

}  // namespace pelio::platform
