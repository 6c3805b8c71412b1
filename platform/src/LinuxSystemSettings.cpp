// Linux system settings: a key file under $XDG_CONFIG_HOME/pelio-platform/, watched with inotify.
#include <Ecore.h>
#include <glib.h>
#include <pelio/CHandles.h>
#include <sys/inotify.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <map>
#include <mutex>
#include <optional>
#include <vector>

#include "DeferredClose.h"
#include "EldbusHandles.h"
#include "pelio/platform/Log.h"
#include "pelio/platform/Slot.h"
#include "pelio/platform/SystemSettings.h"

namespace pelio::platform {
namespace {

constexpr const char* kGroup = "settings";
constexpr const char* kFileName = "settings.ini";

std::string configDir() {
    const char* xdg = std::getenv("XDG_CONFIG_HOME");
    std::string base;
    if (xdg && *xdg) {
        base = xdg;
    } else {
        const char* home = std::getenv("HOME");
        base = std::string(home ? home : "") + "/.config";
    }
    return base + "/pelio-platform";
}

class LinuxSystemSettings : public SystemSettings {
  public:
    ~LinuxSystemSettings() override { stopWatch(); }

    int getInt(const std::string& key, int& value) override {
        std::string text;
        const int rc = getString(key, text);
        if (rc != SETTINGS_ERROR_NONE)
            return rc;
        char* end = nullptr;
        errno = 0;
        const long v = std::strtol(text.c_str(), &end, 10);
        if (text.empty() || *end != '\0' || errno != 0 || v < INT32_MIN || v > INT32_MAX) {
            return SETTINGS_ERROR_BAD_VALUE;
        }
        value = static_cast<int>(v);
        return SETTINGS_ERROR_NONE;
    }

    int getBool(const std::string& key, bool& value) override {
        std::string text;
        const int rc = getString(key, text);
        if (rc != SETTINGS_ERROR_NONE)
            return rc;
        if (text == "true" || text == "1") {
            value = true;
        } else if (text == "false" || text == "0") {
            value = false;
        } else {
            return SETTINGS_ERROR_BAD_VALUE;
        }
        return SETTINGS_ERROR_NONE;
    }

    int getString(const std::string& key, std::string& value) override {
        if (key.empty())
            return SETTINGS_ERROR_INVALID_PARAMETER;
        std::lock_guard<std::mutex> guard(mutex_);
        auto values = load();
        auto it = values.find(key);
        if (it == values.end())
            return SETTINGS_ERROR_NO_KEY;
        value = it->second;
        return SETTINGS_ERROR_NONE;
    }

    int setInt(const std::string& key, int value) override {
        return setString(key, std::to_string(value));
    }
    int setBool(const std::string& key, bool value) override {
        return setString(key, value ? "true" : "false");
    }

    int setString(const std::string& key, const std::string& value) override {
        if (key.empty() || key.find_first_of("[]=\n") != std::string::npos ||
            value.find('\n') != std::string::npos) {
            return SETTINGS_ERROR_INVALID_PARAMETER;
        }
        std::lock_guard<std::mutex> guard(mutex_);
        auto values = load();
        values[key] = value;
        return save(values);
    }

    int addChangedCallback(const std::string& key, SettingChangedCallback cb,
                           void* userData) override {
        if (key.empty() || !cb)
            return SETTINGS_ERROR_INVALID_PARAMETER;
        if (!watchHandler_ && !startWatch())
            return SETTINGS_ERROR_IO_ERROR;
        std::optional<std::string> current;
        {
            std::lock_guard<std::mutex> guard(mutex_);
            auto values = load();
            if (auto it = values.find(key); it != values.end())
                current = it->second;
        }
        watchers_.push_back({key, cb, userData, current});
        return SETTINGS_ERROR_NONE;
    }

    int removeChangedCallback(const std::string& key, SettingChangedCallback cb) override {
        const auto before = watchers_.size();
        std::erase_if(watchers_, [&](const Watcher& w) { return w.key == key && w.cb == cb; });
        if (watchers_.empty())
            stopWatch();
        return watchers_.size() < before ? SETTINGS_ERROR_NONE : SETTINGS_ERROR_INVALID_PARAMETER;
    }

  private:
    struct Watcher {
        std::string key;
        SettingChangedCallback cb;
        void* userData;
        std::optional<std::string> last;
    };

    // Caller holds mutex_.
    std::map<std::string, std::string> load() {
        std::map<std::string, std::string> values;
        GKeyFilePtr kf(g_key_file_new());
        const std::string path = configDir() + "/" + kFileName;
        if (!g_key_file_load_from_file(kf.get(), path.c_str(), G_KEY_FILE_NONE, nullptr)) {
            return values;
        }
        gsize n = 0;
        gchar** keys = g_key_file_get_keys(kf.get(), kGroup, &n, nullptr);
        for (gsize i = 0; keys && i < n; ++i) {
            gchar* v = g_key_file_get_value(kf.get(), kGroup, keys[i], nullptr);
            if (v)
                values[keys[i]] = v;
            g_free(v);
        }
        g_strfreev(keys);
        return values;
    }

    // Caller holds mutex_. Writes a temporary file and renames it over the old one.
    int save(const std::map<std::string, std::string>& values) {
        std::error_code ec;
        const std::string dir = configDir();
        std::filesystem::create_directories(dir, ec);
        GKeyFilePtr kf(g_key_file_new());
        for (const auto& [k, v] : values)
            g_key_file_set_value(kf.get(), kGroup, k.c_str(), v.c_str());
        gsize length = 0;
        gchar* data = g_key_file_to_data(kf.get(), &length, nullptr);
        const std::string path = dir + "/" + kFileName;
        const std::string tmp = path + ".tmp." + std::to_string(getpid());
        bool ok = false;
        if (FILE* f = std::fopen(tmp.c_str(), "w")) {
            ok = std::fwrite(data, 1, length, f) == length;
            ok = (std::fflush(f) == 0) && ok;
            ok = (fsync(fileno(f)) == 0) && ok;
            ok = (std::fclose(f) == 0) && ok;
        }
        g_free(data);
        if (!ok || std::rename(tmp.c_str(), path.c_str()) != 0) {
            std::remove(tmp.c_str());
            dlog_print(DLOG_ERROR, "PelioPlatform", "cannot write %s", path.c_str());
            return SETTINGS_ERROR_IO_ERROR;
        }
        return SETTINGS_ERROR_NONE;
    }

    // Main loop thread. Watches the folder (the file is replaced by rename, so a watch on the
    // file itself would be lost on the first write).
    bool startWatch() {
        std::error_code ec;
        const std::string dir = configDir();
        std::filesystem::create_directories(dir, ec);
        detail::OwnedFd fd(inotify_init1(IN_NONBLOCK | IN_CLOEXEC));
        if (!fd || inotify_add_watch(fd.get(), dir.c_str(),
                                     IN_CLOSE_WRITE | IN_MOVED_TO | IN_DELETE | IN_CREATE) < 0) {
            dlog_print(DLOG_ERROR, "PelioPlatform", "settings: cannot watch %s", dir.c_str());
            return false;
        }
        detail::FdHandlerPtr handler(ecore_main_fd_handler_add(
            fd.get(), ECORE_FD_READ, &LinuxSystemSettings::onInotify, this, nullptr, nullptr));
        if (!handler) {
            dlog_print(DLOG_ERROR, "PelioPlatform", "settings: no main loop to watch %s",
                       dir.c_str());
            return false;
        }
        inotifyFd_.reset(fd.release());
        watchHandler_ = std::move(handler);
        return true;
    }

    // The handler goes before the descriptor it reads.
    void stopWatch() {
        watchHandler_.reset();
        closeWithoutWaiting(inotifyFd_.release());
    }

    static Eina_Bool onInotify(void* data, Ecore_Fd_Handler*) {
        auto* self = static_cast<LinuxSystemSettings*>(data);
        alignas(inotify_event) char buf[4096];
        while (read(self->inotifyFd_.get(), buf, sizeof buf) > 0) {
        }
        self->dispatchChanges();
        return ECORE_CALLBACK_RENEW;
    }

    void dispatchChanges() {
        std::map<std::string, std::string> values;
        {
            std::lock_guard<std::mutex> guard(mutex_);
            values = load();
        }
        std::vector<std::pair<std::string, std::pair<SettingChangedCallback, void*>>> due;
        for (auto& w : watchers_) {
            std::optional<std::string> now;
            if (auto it = values.find(w.key); it != values.end())
                now = it->second;
            if (now != w.last) {
                w.last = now;
                due.push_back({w.key, {w.cb, w.userData}});
            }
        }
        for (const auto& [key, cb] : due)
            cb.first(key.c_str(), cb.second);
    }

    std::mutex mutex_;
    std::vector<Watcher> watchers_;
    // Declared so that the handler ends before the descriptor.
    detail::OwnedFd inotifyFd_;
    detail::FdHandlerPtr watchHandler_;
};

Slot<SystemSettings>& slot() {
    static Slot<SystemSettings> s([] { return std::make_unique<LinuxSystemSettings>(); });
    return s;
}

}  // namespace

SystemSettings& systemSettings() {
    return slot().get();
}
void installSystemSettings(std::unique_ptr<SystemSettings> impl) {
    slot().install(std::move(impl));
}

}  // namespace pelio::platform
