// Application paths inside a fresh temporary directory (removed when the object is destroyed):
// <root>/data/, <root>/shared/data/, <root>/shared/trusted/, <root>/res/, <root>/res/shared/.
// The three data directories exist from the start. setAvailable(false) makes every query answer
// "" (no directory), as a platform without the directory would.
#pragma once

#include <pelio/platform/AppPaths.h>
#include <atomic>
#include <string>

namespace pelio::test {

class FakeAppPaths : public pelio::platform::AppPaths {
  public:
    FakeAppPaths();
    ~FakeAppPaths() override;

    std::string dataPath() override;
    std::string sharedDataPath() override;
    std::string sharedTrustedPath() override;
    std::string resourcePath() override;
    std::string sharedResourcePath() override;

    const std::string& root() const { return root_; }  // with trailing "/"
    void setAvailable(bool available) { available_ = available; }

  private:
    std::string answer(const std::string& relative) const;
    std::string root_;
    std::atomic<bool> available_{true};
};

}  // namespace pelio::test
