// Reads desktop entries into application records, accepting the entries GIO's desktop
// application info accepts without building one (its icons, actions and MIME types are never
// used here): the file's first group is "Desktop Entry", Type is "Application", a non-empty
// TryExec names a program found in PATH (or an executable path), and a non-empty Exec parses as
// a shell command line whose program is found likewise. An accepted entry also needs a name in
// the asked locale. Each program is looked up in PATH once per loader.
//
// Threads: one loader serves one listing on the thread that makes it; it is not shared.
// Ownership: it holds only its locale and the programs it has looked up.
// Errors: a file that cannot be read as a key file, that is not an application entry or has no
// name is refused with one log line naming the file; nothing else is affected.
#pragma once

#include <glib.h>

#include <string>
#include <unordered_map>

#include "pelio/platform/PackageManager.h"

namespace pelio::platform {

class DesktopEntryLoader {
  public:
    // locale: "de-DE.UTF-8", "en_US" or "" (the process's own languages).
    explicit DesktopEntryLoader(const std::string& locale);

    // Fills `app` from the entry at `path` for desktop file id `id`; false when it is refused.
    bool load(const std::string& id, const std::string& path, bool preloaded, AppInfo& app);

  private:
    // "" when the entry is an application; else why not, for the log line.
    std::string refusal(GKeyFile* keyFile);
    // g_find_program_in_path, remembered by program text.
    bool programFound(const std::string& program);

    std::string keyLocale_;
    std::unordered_map<std::string, bool> programs_;
};

}  // namespace pelio::platform
