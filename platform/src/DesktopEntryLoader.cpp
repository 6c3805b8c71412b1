#include "DesktopEntryLoader.h"

#include <pelio/CHandles.h>

#include "pelio/platform/Log.h"

namespace pelio::platform {
namespace {

constexpr const char* kTag = "PelioPlatform";
constexpr const char* kVersionKey = "X-AppVersion";

// "en-US.UTF-8" -> "en_US"; empty stays empty (the process's own languages).
std::string keyFileLocale(const std::string& locale) {
    std::string text = locale.substr(0, locale.find('.'));
    for (char& c : text)
        if (c == '-')
            c = '_';
    return text;
}

// A string key of the entry's group; "" when it is absent or not UTF-8.
std::string entryString(GKeyFile* keyFile, const char* key) {
    GCharPtr value(g_key_file_get_string(keyFile, G_KEY_FILE_DESKTOP_GROUP, key, nullptr));
    return value ? std::string(value.get()) : std::string();
}

bool entryFlag(GKeyFile* keyFile, const char* key) {
    return g_key_file_get_boolean(keyFile, G_KEY_FILE_DESKTOP_GROUP, key, nullptr) != FALSE;
}

}  // namespace

DesktopEntryLoader::DesktopEntryLoader(const std::string& locale)
    : keyLocale_(keyFileLocale(locale)) {}

bool DesktopEntryLoader::programFound(const std::string& program) {
    const auto known = programs_.find(program);
    if (known != programs_.end())
        return known->second;
    const GCharPtr path(g_find_program_in_path(program.c_str()));
    programs_.emplace(program, path != nullptr);
    return path != nullptr;
}

std::string DesktopEntryLoader::refusal(GKeyFile* keyFile) {
    const GCharPtr start(g_key_file_get_start_group(keyFile));
    if (!start || std::string(start.get()) != G_KEY_FILE_DESKTOP_GROUP)
        return "its first group is not " G_KEY_FILE_DESKTOP_GROUP;
    if (entryString(keyFile, G_KEY_FILE_DESKTOP_KEY_TYPE) != G_KEY_FILE_DESKTOP_TYPE_APPLICATION)
        return "its type is not " G_KEY_FILE_DESKTOP_TYPE_APPLICATION;
    const std::string tryExec = entryString(keyFile, G_KEY_FILE_DESKTOP_KEY_TRY_EXEC);
    if (!tryExec.empty() && !programFound(tryExec))
        return "program " + tryExec + " of TryExec is not installed";
    const std::string exec = entryString(keyFile, G_KEY_FILE_DESKTOP_KEY_EXEC);
    if (exec.empty())
        return {};
    gchar** argv = nullptr;
    if (!g_shell_parse_argv(exec.c_str(), nullptr, &argv, nullptr))
        return "its Exec is not a command line";
    const std::string program = argv[0];
    g_strfreev(argv);
    if (!programFound(program))
        return "program " + program + " of Exec is not installed";
    return {};
}

bool DesktopEntryLoader::load(const std::string& id, const std::string& path, bool preloaded,
                              AppInfo& app) {
    GKeyFilePtr keyFile(g_key_file_new());
    GError* error = nullptr;
    if (!g_key_file_load_from_file(keyFile.get(), path.c_str(), G_KEY_FILE_KEEP_TRANSLATIONS,
                                   &error)) {
        dlog_print(DLOG_WARN, kTag, "%s is not a valid desktop entry: %s", path.c_str(),
                   error != nullptr ? error->message : "unknown error");
        g_clear_error(&error);
        return false;
    }
    const std::string why = refusal(keyFile.get());
    if (!why.empty()) {
        dlog_print(DLOG_WARN, kTag, "%s is not a valid application entry: %s", path.c_str(),
                   why.c_str());
        return false;
    }
    GCharPtr name(g_key_file_get_locale_string(
        keyFile.get(), G_KEY_FILE_DESKTOP_GROUP, G_KEY_FILE_DESKTOP_KEY_NAME,
        keyLocale_.empty() ? nullptr : keyLocale_.c_str(), nullptr));
    if (!name || *name == '\0') {
        dlog_print(DLOG_WARN, kTag, "%s has no name", path.c_str());
        return false;
    }
    app.appId = id;
    app.packageName = id;
    app.label = name.get();
    app.version = entryString(keyFile.get(), kVersionKey);
    app.preloaded = preloaded;
    app.noDisplay = entryFlag(keyFile.get(), G_KEY_FILE_DESKTOP_KEY_NO_DISPLAY) ||
                    entryFlag(keyFile.get(), G_KEY_FILE_DESKTOP_KEY_HIDDEN);
    return true;
}

}  // namespace pelio::platform
