// The in-memory settings double behaves as the Linux store does for what the service relies on:
// typed reads and their errors, and callbacks only for real changes of their own key.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "doubles/FakeSystemSettings.h"

namespace pp = pelio::platform;

namespace {

void record(const char* key, void* data) {
    static_cast<std::vector<std::string>*>(data)->push_back(key);
}

TEST(FakeSystemSettingsTest, TypedValuesAndChangeCallbacks) {
    pelio::test::FakeSystemSettings settings;
    int i = 0;
    bool b = true;
    std::string s;
    EXPECT_EQ(settings.getInt("memory/dnet/cellular", i), pp::SETTINGS_ERROR_NO_KEY);
    EXPECT_EQ(settings.setString("memory/dnet/proxy", "localhost:1"), pp::SETTINGS_ERROR_NONE);
    EXPECT_EQ(settings.getInt("memory/dnet/proxy", i), pp::SETTINGS_ERROR_BAD_VALUE);
    EXPECT_EQ(settings.setBool("flag", false), pp::SETTINGS_ERROR_NONE);
    EXPECT_EQ(settings.getBool("flag", b), pp::SETTINGS_ERROR_NONE);
    EXPECT_FALSE(b);
    EXPECT_EQ(settings.getString("flag", s), pp::SETTINGS_ERROR_NONE);
    EXPECT_EQ(s, "false");
    EXPECT_EQ(settings.setString("", "v"), pp::SETTINGS_ERROR_INVALID_PARAMETER);
    EXPECT_EQ(settings.addChangedCallback("k", nullptr, nullptr),
              pp::SETTINGS_ERROR_INVALID_PARAMETER);

    std::vector<std::string> seen;
    ASSERT_EQ(settings.addChangedCallback("memory/dnet/cellular", &record, &seen), 0);
    EXPECT_EQ(settings.setInt("memory/dnet/cellular", 1), 0);
    EXPECT_EQ(settings.setInt("memory/dnet/cellular", 1), 0);  // unchanged: nobody called
    EXPECT_EQ(settings.setInt("memory/dnet/status", 3), 0);    // other key
    EXPECT_EQ(settings.getInt("memory/dnet/cellular", i), 0);
    EXPECT_EQ(i, 1);
    settings.erase("memory/dnet/cellular");
    EXPECT_EQ(seen, (std::vector<std::string>{"memory/dnet/cellular", "memory/dnet/cellular"}));

    EXPECT_EQ(settings.removeChangedCallback("memory/dnet/cellular", &record), 0);
    EXPECT_EQ(settings.callbackCount("memory/dnet/cellular"), 0u);
    EXPECT_EQ(settings.setInt("memory/dnet/cellular", 2), 0);
    EXPECT_EQ(seen.size(), 2u);
    EXPECT_EQ(settings.removeChangedCallback("memory/dnet/cellular", &record),
              pp::SETTINGS_ERROR_INVALID_PARAMETER);
}

}  // namespace
