// Message catalogues of the text domain "pelio-service" (GNU gettext).
//
// bindServiceTextDomain() binds the domain to its catalogue folder, asks for UTF-8 output and
// makes sure gettext is willing to translate. Call it once at start, before the first dgettext.
//
// Catalogue folder: the build tree's share/locale when the running executable lies inside the
// build tree that has one (uninstalled run), else <prefix>/share/locale of the installation
// (or the share/locale beside the executable's bin/ folder when the installation was moved).
//
// Locale selection: the service sets LANGUAGE and LC_MESSAGES to e.g. "ko_KR" and calls
// setlocale(LC_ALL, "ko_KR"). glibc honours LANGUAGE only while the LC_MESSAGES locale is not
// "C"/"POSIX"; the locales "ko_KR" etc. need not be installed, so bindServiceTextDomain() switches
// a plain "C" LC_MESSAGES locale to "C.UTF-8" (always present on Debian). A failed
// setlocale("ko_KR") then leaves C.UTF-8 in place and LANGUAGE picks the catalogue.
// glibc caches translations per LC_MESSAGES locale name: after changing LANGUAGE again while the
// process locale stays the same, call refreshServiceTranslations().
//
// Threads: not thread-safe against concurrent dgettext/setlocale; call under the caller's lock.
#pragma once

#include <string>

namespace pelio::platform {

inline constexpr const char* kServiceTextDomain = "pelio-service";

// The folder holding <locale>/LC_MESSAGES/pelio-service.mo that this process uses.
std::string serviceLocaleDir();

// Binds "pelio-service" to serviceLocaleDir() (see above); returns that folder.
std::string bindServiceTextDomain();

// Drops gettext's cached translations so that a changed LANGUAGE takes effect.
void refreshServiceTranslations();

}  // namespace pelio::platform
