#include "utils/PathConfig.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <filesystem>

#include "doubles/FakeAppPaths.h"
#include "support/LogCapture.h"

using namespace pelio::test;

namespace {

TEST(PathConfigTest, PathsAreThePlatformDirectoryFollowedByTheRelativePart) {
    auto owned = std::make_unique<FakeAppPaths>();
    FakeAppPaths* paths = owned.get();
    pelio::platform::installAppPaths(std::move(owned));
    const std::string root = paths->root();
    EXPECT_EQ(root + "data/", PathConfig::GetDataPath());
    EXPECT_EQ(root + "data/dump.txt", PathConfig::GetDataPath("dump.txt"));
    EXPECT_EQ(root + "shared/trusted/databases/.orvane.db",
              PathConfig::GetSharedTrustedPath("databases/.orvane.db"));

    PathConfig::MakeAppSubDir();
    PathConfig::MakeAppSubDir();  // twice is harmless
    struct stat st;
    ASSERT_EQ(0, stat((root + "shared/trusted/databases").c_str(), &st));
    EXPECT_TRUE(S_ISDIR(st.st_mode));
    EXPECT_EQ(0744u, st.st_mode & 0777u);

    LogCapture log;
    paths->setAvailable(false);
    EXPECT_EQ("", PathConfig::GetDataPath("dump.txt"));
    PathConfig::MakeAppSubDir();
    EXPECT_TRUE(log.contains("mkdir for databases failed ("));
    pelio::platform::installAppPaths(nullptr);
}

}  // namespace
