// What only the Linux platform does for the local store, in a throw-away home: paths below the
// XDG folders, and the service's preferences file as other processes (pelioctl prefs) read it.
#include <gtest/gtest.h>

#include <pelio/platform/AppPaths.h>
#include <pelio/platform/Preferences.h>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <map>
#include <memory>
#include <string>
#include <utility>

#include "database/DbManager.h"
#include "pref/PrefMgr.h"
#include "support/LogCapture.h"
#include "support/TempHome.h"
#include "utils/PLMUtils.h"

using namespace pelio::platform;

namespace {

class StoreOnLinuxTest : public ::testing::Test {
  protected:
    void SetUp() override {
        installAppPaths(nullptr);
        installPreferences(nullptr);
        DbManager::resetInstanceForTesting();
    }
    void TearDown() override { DbManager::resetInstanceForTesting(); }
    pelio::test::TempHome home_;
    pelio::test::LogCapture log_;
};

TEST_F(StoreOnLinuxTest, AppPathsFollowXdgAndAreCreated) {
    const std::string appRoot = home_.dataHome() + "/com.quorvin.plmsvc/";
    EXPECT_EQ("com.quorvin.plmsvc", currentAppId());
    EXPECT_EQ(appRoot + "data/|" + appRoot + "shared/data/|" + appRoot + "shared/trusted/",
              appPaths().dataPath() + "|" + appPaths().sharedDataPath() + "|" +
                  appPaths().sharedTrustedPath());
    for (const char* dir : {"data", "shared/data", "shared/trusted"})
        EXPECT_TRUE(std::filesystem::is_directory(appRoot + dir)) << dir;
    EXPECT_EQ('/', appPaths().resourcePath().back());
    EXPECT_EQ(appPaths().resourcePath() + "shared/", appPaths().sharedResourcePath());
    EXPECT_EQ(home_.dataHome() + "/other.app/data/", appDataPath("other.app"));
    EXPECT_EQ(home_.dataHome() + "/other.app/data/.preferences.ini",
              preferencesFilePath("other.app"));

    // Without XDG_DATA_HOME the default below HOME applies.
    unsetenv("XDG_DATA_HOME");
    EXPECT_EQ(home_.path() + "/.local/share/com.quorvin.plmsvc/data/", appPaths().dataPath());
    EXPECT_EQ(home_.path() + "/.local/share", xdgDataHome());
    EXPECT_EQ(home_.configHome(), xdgConfigHome());
}

TEST_F(StoreOnLinuxTest, PreferencesOfTheServicePersistAndAreReadableByOthers) {
    PrefMgr mgr;
    mgr.init();
    mgr.set("port", 8443);
    mgr.set("is_force", true);
    mgr.set("locale", std::string("fr-FR"));
    EXPECT_EQ("fr-FR", getLocalePreference());
    const std::string file = preferencesFilePath("com.quorvin.plmsvc");
    EXPECT_EQ(home_.dataHome() + "/com.quorvin.plmsvc/data/.preferences.ini", file);
    ASSERT_TRUE(std::filesystem::exists(file));

    // pelioctl's view: a read-only store on the service's file.
    auto view = openPreferencesFile(file, true);
    std::map<std::string, std::pair<std::string, std::string>> seen;
    for (const auto& item : view->items())
        seen[item.key] = {preferenceTypeName(item.type), item.value};
    EXPECT_EQ(11u, seen.size());
    EXPECT_EQ((std::pair<std::string, std::string>{"int", "8443"}), seen["port"]);
    EXPECT_EQ((std::pair<std::string, std::string>{"bool", "true"}), seen["is_force"]);

    // Another home: the default store follows the environment.
    {
        pelio::test::TempHome other;
        std::string value = "unset";
        mgr.get("locale", value);
        EXPECT_EQ("unset", value);
        EXPECT_EQ("en-US", getLocalePreference());
    }
    EXPECT_EQ("fr-FR", getLocalePreference());
}

// pelioctl's exit status, ":", then what it printed.
std::string pelioctl(const std::string& args) {
    FILE* pipe = popen((std::string(PELIO_BINARY_DIR) + "/tools/pelioctl " + args).c_str(), "r");
    if (!pipe)
        return "no pipe";
    std::string text;
    char buf[512];
    for (size_t n; (n = fread(buf, 1, sizeof buf, pipe)) > 0;)
        text.append(buf, n);
    return std::to_string(pclose(pipe)) + ":" + text;
}

TEST_F(StoreOnLinuxTest, PelioctlListsTheServiceStoreSortedAndNeverWritesIt) {
    const std::string path = preferencesFilePath("com.quorvin.plmsvc");
    ASSERT_FALSE(path.empty());

    EXPECT_EQ(pelioctl("prefs"), "0:no preferences yet\n");
    EXPECT_FALSE(std::filesystem::exists(path));

    {
        std::unique_ptr<Preferences> store = openPreferencesFile(path, false);
        ASSERT_EQ(store->setString("server_ip", "127.0.0.1"), 0);
        ASSERT_EQ(store->setInt("server_port", 8443), 0);
        ASSERT_EQ(store->setBoolean("force_sync", false), 0);
        ASSERT_EQ(store->setBoolean("auto", true), 0);
        ASSERT_EQ(store->setDouble("ratio", 0.5), 0);
        ASSERT_EQ(store->setString("with=sign", "a=b"), 0);
    }
    const auto before = std::filesystem::last_write_time(path);
    EXPECT_EQ(pelioctl("prefs"),
              "0:auto=true\nforce_sync=false\nratio=0.5\nserver_ip=127.0.0.1\nserver_port=8443\n"
              "with=sign=a=b\n");
    EXPECT_EQ(std::filesystem::last_write_time(path), before);

    // An existing, empty store lists nothing (and is not "no preferences yet").
    std::ofstream(path, std::ios::trunc).close();
    EXPECT_EQ(pelioctl("prefs"), "0:");
    EXPECT_NE(pelioctl("prefs extra 2>/dev/null").substr(0, 2), "0:");
}

}  // namespace
