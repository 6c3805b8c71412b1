#include "pelio/platform/Preferences.h"

#include "LinuxPreferences.h"
#include "pelio/platform/AppPaths.h"
#include "pelio/platform/Slot.h"

namespace pelio::platform {
namespace {

Slot<Preferences>& slot() {
    static Slot<Preferences> s([] { return std::make_unique<LinuxPreferences>("", false); });
    return s;
}

}  // namespace

const char* preferenceTypeName(PreferenceType type) {
    switch (type) {
        case PreferenceType::Int:
            return "int";
        case PreferenceType::Double:
            return "double";
        case PreferenceType::Boolean:
            return "bool";
        case PreferenceType::String:
            break;
    }
    return "string";
}

Preferences& preferences() {
    return slot().get();
}
void installPreferences(std::unique_ptr<Preferences> impl) {
    slot().install(std::move(impl));
}

std::string preferencesFilePath(const std::string& appId) {
    const std::string dir = appDataPath(appId);
    return dir.empty() ? std::string() : dir + ".preferences.ini";
}

std::unique_ptr<Preferences> openPreferencesFile(const std::string& path, bool readOnly) {
    return std::make_unique<LinuxPreferences>(path, readOnly);
}

}  // namespace pelio::platform
