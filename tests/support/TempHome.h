// A throw-away home directory: sets HOME and the XDG variables to fresh folders below a new
// temporary directory and restores the old values (and removes the folder) when destroyed.
#pragma once

#include <map>
#include <optional>
#include <string>

namespace pelio::test {

class TempHome {
public:
    TempHome();
    ~TempHome();
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
