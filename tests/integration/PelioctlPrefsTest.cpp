// pelioctl prefs: the service's preference store listed through the platform's store module.
#include <gtest/gtest.h>

#include <pelio/platform/Preferences.h>
#include <cstdio>
#include <filesystem>
#include <memory>
#include <string>

#include "support/TempHome.h"

namespace pp = pelio::platform;

namespace {

struct Output {
    int status = -1;
    std::string text;
};

Output pelioctl(const std::string& args) {
    Output out;
    const std::string cmd = std::string(PELIO_BINARY_DIR) + "/tools/pelioctl " + args;
    FILE* pipe = popen(cmd.c_str(), "r");
    if (!pipe)
        return out;
    char buf[512];
    size_t n = 0;
    while ((n = fread(buf, 1, sizeof buf, pipe)) > 0)
        out.text.append(buf, n);
    out.status = pclose(pipe);
    return out;
}

TEST(PelioctlPrefsTest, ListsTheServiceStoreSortedAndNeverWritesIt) {
    pelio::test::TempHome home;
    const std::string path = pp::preferencesFilePath("com.quorvin.plmsvc");
    ASSERT_FALSE(path.empty());

    Output o = pelioctl("prefs");
    EXPECT_EQ(o.status, 0);
    EXPECT_EQ(o.text, "no preferences yet\n");
    EXPECT_FALSE(std::filesystem::exists(path));

    {
        std::unique_ptr<pp::Preferences> store = pp::openPreferencesFile(path, false);
        ASSERT_EQ(store->setString("server_ip", "127.0.0.1"), 0);
        ASSERT_EQ(store->setInt("server_port", 8443), 0);
        ASSERT_EQ(store->setBoolean("force_sync", false), 0);
        ASSERT_EQ(store->setBoolean("auto", true), 0);
        ASSERT_EQ(store->setDouble("ratio", 0.5), 0);
        ASSERT_EQ(store->setString("with=sign", "a=b"), 0);
    }
    const auto before = std::filesystem::last_write_time(path);
    o = pelioctl("prefs");
    EXPECT_EQ(o.status, 0);
    EXPECT_EQ(o.text,
              "auto=true\nforce_sync=false\nratio=0.5\nserver_ip=127.0.0.1\nserver_port=8443\n"
              "with=sign=a=b\n");
    EXPECT_EQ(std::filesystem::last_write_time(path), before);

    // An existing, empty store lists nothing (and is not "no preferences yet").
    {
        std::unique_ptr<pp::Preferences> store = pp::openPreferencesFile(path, false);
        for (const char* key :
             {"server_ip", "server_port", "force_sync", "auto", "ratio", "with=sign"})
            ASSERT_EQ(store->remove(key), 0);
    }
    o = pelioctl("prefs");
    EXPECT_EQ(o.status, 0);
    EXPECT_EQ(o.text, "");

    EXPECT_NE(pelioctl("prefs extra 2>/dev/null").status, 0);
}

}  // namespace
