// Application paths inside a fresh temporary directory (removed when the object is destroyed):
// <root>/data/, <root>/shared/data/, <root>/shared/trusted/, <root>/res/, <root>/res/shared/.
// The three data directories exist from the start. setAvailable(false) makes every query answer
// "" (no directory), as a platform without the directory would.
#pragma once

#include <pelio/platform/AppPaths.h>
#include <atomic>
#include <filesystem>
#include <string>

#include "support/TempHome.h"

namespace pelio::test {

class FakeAppPaths : public pelio::platform::AppPaths {
  public:
    FakeAppPaths() {
        root_ = makeTempDir("pelio-paths") + "/";
        for (const char* dir : {"data", "shared/data", "shared/trusted", "res/shared"})
            std::filesystem::create_directories(root_ + dir);
    }
    ~FakeAppPaths() override {
        std::error_code ec;
        std::filesystem::permissions(root_ + "shared/trusted", std::filesystem::perms::owner_all,
                                     std::filesystem::perm_options::add, ec);
        std::filesystem::remove_all(root_, ec);
    }

    std::string dataPath() override { return answer("data/"); }
    std::string sharedDataPath() override { return answer("shared/data/"); }
    std::string sharedTrustedPath() override { return answer("shared/trusted/"); }
    std::string resourcePath() override { return answer("res/"); }
    std::string sharedResourcePath() override { return answer("res/shared/"); }

    const std::string& root() const { return root_; }  // with trailing "/"
    void setAvailable(bool available) { available_ = available; }

  private:
    std::string answer(const std::string& relative) const {
        return available_ ? root_ + relative : std::string();
    }
    std::string root_;
    std::atomic<bool> available_{true};
};

}  // namespace pelio::test
