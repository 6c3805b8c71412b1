// A throw-away home directory: sets HOME and the XDG variables to fresh folders below a new
// temporary directory and restores the old values (and removes the folder) when destroyed.
#pragma once

#include <cstdlib>
#include <filesystem>
#include <map>
#include <optional>
#include <stdexcept>
#include <string>

namespace pelio::test {

// A fresh folder below the temporary directory, named after name; throws when none can be made.
inline std::string makeTempDir(const std::string& name) {
    std::string templ = (std::filesystem::temp_directory_path() / (name + "-XXXXXX")).string();
    if (mkdtemp(templ.data()) == nullptr)
        throw std::runtime_error("mkdtemp failed for " + templ);
    return templ;
}

class TempHome {
  public:
    TempHome() {
        root_ = makeTempDir("pelio-home");
        const std::map<std::string, std::string> vars = {
            {"HOME", root_},
            {"XDG_DATA_HOME", dataHome()},
            {"XDG_CONFIG_HOME", configHome()},
            {"XDG_CACHE_HOME", root_ + "/.cache"},
            // System data folders of the home only: the machine's own applications stay out.
            {"XDG_DATA_DIRS", root_ + "/system/share"},
            {"XDG_RUNTIME_DIR", root_ + "/run"},
        };
        for (const auto& [name, value] : vars) {
            const char* old = std::getenv(name.c_str());
            saved_[name] = old ? std::optional<std::string>(old) : std::nullopt;
            std::filesystem::create_directories(value);
            setenv(name.c_str(), value.c_str(), 1);
        }
    }
    ~TempHome() {
        for (const auto& [name, value] : saved_) {
            if (value)
                setenv(name.c_str(), value->c_str(), 1);
            else
                unsetenv(name.c_str());
        }
        std::error_code ec;
        std::filesystem::remove_all(root_, ec);
    }
    TempHome(const TempHome&) = delete;
    TempHome& operator=(const TempHome&) = delete;

    const std::string& path() const { return root_; }
    std::string dataHome() const { return root_ + "/.local/share"; }
    std::string configHome() const { return root_ + "/.config"; }

  private:
    std::string root_;
    std::map<std::string, std::optional<std::string>> saved_;
};

}  // namespace pelio::test
