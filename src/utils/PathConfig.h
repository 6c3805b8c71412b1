// Full paths of the service's files under the platform's per-application directories.
// An empty result means the platform returned no directory. Any thread.
#pragma once

#include <string>

class PathConfig {
public:
    static std::string GetResourcePath(const std::string& relative = "");
    static std::string GetSharedResourcePath(const std::string& relative = "");
    static std::string GetDataPath(const std::string& relative = "");
    static std::string GetSharedDataPath(const std::string& relative = "");
    static std::string GetSharedTrustedPath(const std::string& relative = "");
    static std::string GetLayoutFilePath(const std::string& name);       // edje/orvane-<name>.edj
    static std::string GetLayoutFilePathPlain(const std::string& name);  // edje/<name>.edj
    static std::string GetTableFilePath(const std::string& name);        // tables/<name>
    // Creates <shared trusted>/databases (mode 0744); an existing directory is success.
    static void MakeAppSubDir();
};
