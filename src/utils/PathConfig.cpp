#include "utils/PathConfig.h"

#include <sys/stat.h>

#include <pelio/platform/AppPaths.h>
#include <cerrno>
#include <cstring>

#include "PelioLog.h"

namespace {

// Platform directory (ending in "/") followed directly by the relative part; "" without directory.
std::string join(const std::string& dir, const std::string& relative) {
    if (dir.empty())
        return "";
    return dir + relative;
}

}  // namespace

std::string PathConfig::GetResourcePath(const std::string& relative) {
    return join(pelio::platform::appPaths().resourcePath(), relative);
}

std::string PathConfig::GetSharedResourcePath(const std::string& relative) {
    return join(pelio::platform::appPaths().sharedResourcePath(), relative);
}

std::string PathConfig::GetDataPath(const std::string& relative) {
    return join(pelio::platform::appPaths().dataPath(), relative);
}

std::string PathConfig::GetSharedDataPath(const std::string& relative) {
    return join(pelio::platform::appPaths().sharedDataPath(), relative);
}

std::string PathConfig::GetSharedTrustedPath(const std::string& relative) {
    return join(pelio::platform::appPaths().sharedTrustedPath(), relative);
}

std::string PathConfig::GetLayoutFilePath(const std::string& name) {
    return join(pelio::platform::appPaths().resourcePath(), "edje/orvane-" + name + ".edj");
}

std::string PathConfig::GetLayoutFilePathPlain(const std::string& name) {
    return join(pelio::platform::appPaths().resourcePath(), "edje/" + name + ".edj");
}

std::string PathConfig::GetTableFilePath(const std::string& name) {
    return join(pelio::platform::appPaths().sharedResourcePath(), "tables/" + name);
}

void PathConfig::MakeAppSubDir() {
    const std::string dir = GetSharedTrustedPath("databases");
    if (dir.empty()) {
        LOGE("mkdir for databases failed (%s)", "no shared trusted directory");
        return;
    }
    if (mkdir(dir.c_str(), 0744) == 0)
        return;
    int error = errno;
    struct stat st;
    if (error == EEXIST) {
        if (stat(dir.c_str(), &st) == 0 && S_ISDIR(st.st_mode))
            return;  // already there
        error = ENOTDIR;
    }
    LOGE("mkdir for databases failed (%s)", strerror(error));
}
