// Dump files of upload documents: names by item and upload type, the writer thread's file, and
// the folder clean-up.
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <sstream>

#include "doubles/FakeAppPaths.h"
#include "doubles/FakePreferences.h"
#include "support/Installed.h"
#include "support/TempHome.h"
#include "utils/WritePLMData.h"

using namespace pelio::test;

TEST(WritePLMDataThreadedTest, FirstDumpIsBaselineThenIncrementalWithACounter) {
    TempHome home;
    Installed<FakePreferences, &pelio::platform::installPreferences> prefs;
    Installed<FakeAppPaths, &pelio::platform::installAppPaths> paths;
    const std::string folder = WritePLMData::dumpFolder();
    WritePLMData::startFileWriting(3, R"({"docs":[{"name":"100%s"}]})");
    WritePLMData::waitForWriter();
    std::stringstream first;
    first << std::ifstream(folder + "/PLM_CONTACTS_BASELINE_1.json").rdbuf();
    EXPECT_EQ(first.str(), R"({"docs":[{"name":"100%s"}]})");

    WritePLMData::startFileWriting(1, "{}");
    WritePLMData::waitForWriter();
    WritePLMData::startFileWriting(12, "{}");
    WritePLMData::waitForWriter();
    EXPECT_TRUE(std::filesystem::exists(folder + "/PLM_APPS_INCREMENTAL_2.json"));
    EXPECT_TRUE(std::filesystem::exists(folder + "/PLM_WAKEUP_INCREMENTAL_3.json"));
    EXPECT_EQ(WritePLMData::getFilename(5, "INCREMENTAL"), "");

    WritePLMData::deleteFiles();
    EXPECT_TRUE(std::filesystem::is_empty(folder));
}
