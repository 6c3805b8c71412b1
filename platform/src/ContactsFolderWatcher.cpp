#include "ContactsFolderWatcher.h"

#include <pelio/platform/Log.h>

#include <sys/inotify.h>
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
        close(fd_);
    ecore_shutdown();
}

bool ContactsFolderWatcher::start() {
    fd_ = inotify_init1(IN_NONBLOCK | IN_CLOEXEC);
    if (fd_ < 0) {
        dlog_print(DLOG_ERROR, "PelioPlatform", "%s: inotify_init1 failed: %s", what_.c_str(),
                   std::strerror(errno));
        return false;
    }
    watchTree(root_);
    handler_ = ecore_main_fd_handler_add(fd_, ECORE_FD_READ, &ContactsFolderWatcher::onReadable,
                                         this, nullptr, nullptr);
    if (handler_ == nullptr) {
        dlog_print(DLOG_ERROR, "PelioPlatform", "%s: cannot add the inotify fd handler",
                   what_.c_str());
        close(fd_);
        fd_ = -1;
        return false;
    }
    return true;
}

void ContactsFolderWatcher::watchTree(const std::string& dir) {
    namespace fs = std::filesystem;
    // Adding a watch to an already watched folder only refreshes it, so rewatching is harmless.
    if (inotify_add_watch(fd_, dir.c_str(), kMask) < 0) {
        dlog_print(DLOG_WARN, "PelioPlatform", "%s: cannot watch %s: %s", what_.c_str(),
                   dir.c_str(), std::strerror(errno));
        return;
    }
    std::error_code ec;
    for (fs::recursive_directory_iterator it(dir, fs::directory_options::skip_permission_denied,
                                             ec);
         !ec && it != fs::recursive_directory_iterator(); it.increment(ec)) {
        if (it->is_directory(ec) && !ec) {
            inotify_add_watch(fd_, it->path().c_str(), kMask);
        }
    }
}

void ContactsFolderWatcher::drain() {
    alignas(struct inotify_event) char buffer[16 * 1024];
    for (;;) {
        const ssize_t n = read(fd_, buffer, sizeof buffer);
        if (n <= 0)
            break;
        for (ssize_t off = 0; off < n;) {
            const auto* ev = reinterpret_cast<const struct inotify_event*>(buffer + off);
            if ((ev->mask & IN_ISDIR) && (ev->mask & (IN_CREATE | IN_MOVED_TO)) && ev->len > 0) {
                // A new address book: watch it (and whatever was put in it before the watch).
                // The watch descriptor's folder is not tracked, so rewatch from the root.
                watchTree(root_);
            }
            off += static_cast<ssize_t>(sizeof(struct inotify_event) + ev->len);
        }
    }
}

Eina_Bool ContactsFolderWatcher::onReadable(void* data, Ecore_Fd_Handler*) {
    auto* self = static_cast<ContactsFolderWatcher*>(data);
    self->drain();
    if (self->timer_)
        ecore_timer_del(self->timer_);
    self->timer_ = ecore_timer_add(self->debounce_, &ContactsFolderWatcher::onDebounce, self);
    return ECORE_CALLBACK_RENEW;
}

Eina_Bool ContactsFolderWatcher::onDebounce(void* data) {
    auto* self = static_cast<ContactsFolderWatcher*>(data);
    self->timer_ = nullptr;
    // A copy: the function may end up destroying this watcher (a callback that disconnects).
    auto onChanged = self->onChanged_;
    if (onChanged)
        onChanged();
    return ECORE_CALLBACK_CANCEL;
}

}  // namespace pelio::platform
