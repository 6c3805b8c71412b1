// A test double installed as the process's platform module for the life of this object, e.g.
//   Installed<FakePreferences, &pelio::platform::installPreferences> prefs_;
// As a fixture member it is installed before SetUp and removed (nullptr installed) after
// TearDown. Owns nothing itself: the module registry owns the double. Main (test) thread only.
#pragma once

#include <memory>
#include <utility>

namespace pelio::test {

template <typename Fake, auto Install>
class Installed {
  public:
    template <typename... Args>
    explicit Installed(Args&&... args) {
        auto fake = std::make_unique<Fake>(std::forward<Args>(args)...);
        fake_ = fake.get();
        Install(std::move(fake));
    }
    ~Installed() { Install(nullptr); }
    Installed(const Installed&) = delete;
    Installed& operator=(const Installed&) = delete;

    Fake* get() const { return fake_; }
    Fake* operator->() const { return fake_; }
    Fake& operator*() const { return *fake_; }

  private:
    Fake* fake_ = nullptr;
};

}  // namespace pelio::test
