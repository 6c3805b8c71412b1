#include <pelio/platform/I18n.h>
#include <pelio/platform/Log.h>

#include <libintl.h>
#include <locale.h>

#include <cstring>
#include <filesystem>
#include <system_error>

namespace pelio::platform {
namespace {

namespace fs = std::filesystem;

bool isDir(const fs::path& p) {
    std::error_code ec;
    return fs::is_directory(p, ec);
}

// True when path lies inside folder.
bool inside(const fs::path& path, const fs::path& folder) {
    const auto rel = path.lexically_normal().lexically_relative(folder.lexically_normal());
    return !rel.empty() && *rel.begin() != "..";
}

}  // namespace

std::string serviceLocaleDir() {
    std::error_code ec;
    const fs::path exe = fs::read_symlink("/proc/self/exe", ec);
    const fs::path buildShare = PELIO_BUILD_SHARE_DIR;
    const fs::path buildTree = buildShare.parent_path();
    if (!ec && inside(exe, buildTree) && isDir(buildShare / "locale")) {
        return (buildShare / "locale").string();
    }
    if (!ec) {
        // <prefix>/bin/<exe> or <prefix>/libexec/<exe>: a moved installation.
        const fs::path beside = exe.parent_path().parent_path() / "share" / "locale";
        if (isDir(beside / "ko_KR" / "LC_MESSAGES")) return beside.string();
    }
    return (fs::path(PELIO_INSTALL_SHARE_DIR) / "locale").string();
}

std::string bindServiceTextDomain() {
    const std::string dir = serviceLocaleDir();
    if (bindtextdomain(kServiceTextDomain, dir.c_str()) == nullptr) {
        dlog_print(DLOG_ERROR, "PelioPlatform", "i18n: bindtextdomain(%s) failed: %s",
                   dir.c_str(), std::strerror(errno));
    }
    bind_textdomain_codeset(kServiceTextDomain, "UTF-8");
    const char* current = setlocale(LC_MESSAGES, nullptr);
    if (current == nullptr || std::strcmp(current, "C") == 0 ||
        std::strcmp(current, "POSIX") == 0) {
        if (setlocale(LC_MESSAGES, "C.UTF-8") == nullptr) {
            dlog_print(DLOG_WARN, "PelioPlatform",
                       "i18n: no C.UTF-8 locale; texts stay untranslated unless the "
                       "LC_MESSAGES locale is installed");
        }
    }
    return dir;
}

void refreshServiceTranslations() {
    // Setting the default domain again bumps gettext's catalogue counter, which drops its cache.
    const char* current = textdomain(nullptr);
    textdomain(current);
}

}  // namespace pelio::platform
