#include "doubles/FakeAppPaths.h"

#include <cstdlib>
#include <filesystem>
#include <stdexcept>

namespace pelio::test {

FakeAppPaths::FakeAppPaths() {
    std::string templ = (std::filesystem::temp_directory_path() / "pelio-paths-XXXXXX").string();
    if (mkdtemp(templ.data()) == nullptr)
        throw std::runtime_error("mkdtemp failed");
    root_ = templ + "/";
    for (const char* dir : {"data", "shared/data", "shared/trusted", "res/shared"})
        std::filesystem::create_directories(root_ + dir);
}

FakeAppPaths::~FakeAppPaths() {
    std::error_code ec;
    std::filesystem::permissions(root_ + "shared/trusted", std::filesystem::perms::owner_all,
                                 std::filesystem::perm_options::add, ec);
    std::filesystem::remove_all(root_, ec);
}

}  // namespace pelio::test
