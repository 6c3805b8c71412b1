// Linux system settings in a throw-away home: typed values persisted in the key file, and changes
// written by another process reaching the change callbacks on the main loop.
#include <gtest/gtest.h>

#include <pelio/platform/MainLoop.h>
#include <pelio/platform/SystemSettings.h>
#include <cstdlib>
#include <fstream>
#include <memory>
#include <sstream>
#include <string>
#include <vector>

#include "support/MainLoopWait.h"
#include "support/TempHome.h"

namespace pp = pelio::platform;

namespace {

const std::string kPelioctl = std::string(PELIO_BINARY_DIR) + "/tools/pelioctl";

struct Seen {
    std::vector<std::string> keys;
};

void onChanged(const char* key, void* data) {
    static_cast<Seen*>(data)->keys.push_back(key);
    pp::quitMainLoop();
}

void waitFor(const Seen& seen, std::size_t n) {
    pelio::test::runMainLoopUntil([&] { return seen.keys.size() >= n; });
}

TEST(SystemSettingsOnLinuxTest, TypedValuesPersistAndOtherWritersReachCallbacks) {
    pelio::test::TempHome home;
    pp::MainLoopScope loop;
    pp::SystemSettings& settings = pp::systemSettings();
    const std::string file = home.configHome() + "/pelio-platform/settings.ini";

    // Typed values, their errors, and keys and values a key file cannot hold refused. A read
    // gives "<error code>" or the value.
    int i = 0;
    bool b = false;
    std::string s;
    const auto text = [&](const char* key) {
        const int rc = settings.getString(key, s);
        return rc ? "<" + std::to_string(rc) + ">" : s;
    };
    const auto number = [&](const char* key) {
        const int rc = settings.getInt(key, i);
        return rc ? "<" + std::to_string(rc) + ">" : std::to_string(i);
    };
    EXPECT_EQ(number("memory/dnet/status"), "<" + std::to_string(pp::SETTINGS_ERROR_NO_KEY) + ">");
    EXPECT_EQ(settings.setInt("memory/dnet/status", -3) | settings.setBool("test/flag", true) |
                  settings.setString("memory/dnet/proxy", "127.0.0.1:3128") |
                  settings.setString("test/empty", ""),
              pp::SETTINGS_ERROR_NONE);
    EXPECT_EQ(number("memory/dnet/status") + "|" + text("memory/dnet/proxy") + "|" +
                  text("test/empty") + "|",
              "-3|127.0.0.1:3128||");
    EXPECT_TRUE(settings.getBool("test/flag", b) == pp::SETTINGS_ERROR_NONE && b);
    EXPECT_EQ(settings.getInt("memory/dnet/proxy", i), pp::SETTINGS_ERROR_BAD_VALUE);
    EXPECT_EQ(settings.getBool("memory/dnet/status", b), pp::SETTINGS_ERROR_BAD_VALUE);
    EXPECT_EQ(settings.setString("bad=key", "v"), pp::SETTINGS_ERROR_INVALID_PARAMETER);
    EXPECT_EQ(settings.setString("k", "two\nlines"), pp::SETTINGS_ERROR_INVALID_PARAMETER);
    EXPECT_EQ(settings.getString("", s), pp::SETTINGS_ERROR_INVALID_PARAMETER);

    // On disk, in the key file another process reads.
    std::stringstream onDisk;
    onDisk << std::ifstream(file).rdbuf();
    for (const char* line : {"[settings]", "memory/dnet/status=-3", "test/flag=true"})
        EXPECT_NE(onDisk.str().find(line), std::string::npos) << onDisk.str();
    EXPECT_EQ(std::system((kPelioctl + " setting get memory/dnet/proxy >/dev/null").c_str()), 0);

    Seen cellular, proxy;
    ASSERT_EQ(settings.addChangedCallback("memory/dnet/cellular", &onChanged, &cellular),
              pp::SETTINGS_ERROR_NONE);
    ASSERT_EQ(settings.addChangedCallback("memory/dnet/proxy", &onChanged, &proxy),
              pp::SETTINGS_ERROR_NONE);

    // Another process sets a key: only its callback runs, on this main loop.
    ASSERT_EQ(std::system((kPelioctl + " setting set memory/dnet/cellular 1").c_str()), 0);
    waitFor(cellular, 1);
    ASSERT_EQ(cellular.keys, std::vector<std::string>{"memory/dnet/cellular"});
    EXPECT_TRUE(proxy.keys.empty());
    EXPECT_EQ(number("memory/dnet/cellular"), "1");

    // The file written by hand (no rename): the proxy changed, the cellular state did not.
    {
        std::ofstream out(file, std::ios::trunc);
        out << "[settings]\nmemory/dnet/status=-3\nmemory/dnet/cellular=1\n"
               "memory/dnet/proxy=\n";
    }
    waitFor(proxy, 1);
    ASSERT_EQ(proxy.keys, std::vector<std::string>{"memory/dnet/proxy"});
    EXPECT_EQ(cellular.keys.size(), 1u);
    EXPECT_EQ(text("memory/dnet/proxy"), "");

    // A set from this process reaches the callback the same way; a removed one is not called.
    EXPECT_EQ(settings.removeChangedCallback("memory/dnet/proxy", &onChanged),
              pp::SETTINGS_ERROR_NONE);
    EXPECT_EQ(settings.removeChangedCallback("memory/dnet/proxy", &onChanged),
              pp::SETTINGS_ERROR_INVALID_PARAMETER);
    EXPECT_EQ(settings.setString("memory/dnet/proxy", "localhost:8080"), pp::SETTINGS_ERROR_NONE);
    EXPECT_EQ(settings.setInt("memory/dnet/cellular", 0), pp::SETTINGS_ERROR_NONE);
    waitFor(cellular, 2);
    EXPECT_EQ(cellular.keys.size(), 2u);
    EXPECT_EQ(proxy.keys.size(), 1u);

    // Deleting the file is a change to "absent".
    std::remove(file.c_str());
    waitFor(cellular, 3);
    EXPECT_EQ(cellular.keys.size(), 3u);
    EXPECT_EQ(number("memory/dnet/cellular"),
              "<" + std::to_string(pp::SETTINGS_ERROR_NO_KEY) + ">");

    // The last callback removed ends the watch before the main loop does.
    EXPECT_EQ(settings.removeChangedCallback("memory/dnet/cellular", &onChanged),
              pp::SETTINGS_ERROR_NONE);
}

}  // namespace
