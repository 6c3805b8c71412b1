#include "ServicePreferences.h"

#include <filesystem>
#include <string>

std::unique_ptr<pelio::platform::Preferences> openServicePreferences() {
    const std::string path = pelio::platform::preferencesFilePath("com.quorvin.plmsvc");
    std::error_code ec;
    if (path.empty() || !std::filesystem::exists(path, ec))
        return nullptr;
    return pelio::platform::openPreferencesFile(path, true);
}
