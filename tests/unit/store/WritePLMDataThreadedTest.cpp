// Dump files of upload documents: names by item and upload type, the writer thread's file, and
// the folder clean-up.
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <sstream>

#include <pelio/platform/AppPaths.h>
#include <pelio/platform/Preferences.h>

#include "doubles/FakeAppPaths.h"
#include "doubles/FakePreferences.h"
#include "support/LogCapture.h"
#include "support/TempHome.h"
#include "utils/WritePLMData.h"

namespace pp = pelio::platform;

namespace {

class WritePLMDataThreadedTest : public ::testing::Test {
  protected:
    void SetUp() override {
        pp::installPreferences(std::make_unique<pelio::test::FakePreferences>());
        pp::installAppPaths(std::make_unique<pelio::test::FakeAppPaths>());
    }
    void TearDown() override {
        pp::installAppPaths(nullptr);
        pp::installPreferences(nullptr);
    }
    static std::string read(const std::string& path) {
        std::ifstream in(path);
        std::stringstream s;
        s << in.rdbuf();
        return s.str();
    }
    pelio::test::TempHome home_;
};

}  // namespace

TEST_F(WritePLMDataThreadedTest, FirstDumpIsBaselineThenIncrementalWithACounter) {
    const std::string folder = WritePLMData::dumpFolder();
    WritePLMData::startFileWriting(3, R"({"docs":[{"name":"100%s"}]})");
    WritePLMData::waitForWriter();
    EXPECT_EQ(read(folder + "/PLM_CONTACTS_BASELINE_1.json"), R"({"docs":[{"name":"100%s"}]})");

    WritePLMData::startFileWriting(1, "{}");
    WritePLMData::waitForWriter();
    WritePLMData::startFileWriting(12, "{}");
    WritePLMData::waitForWriter();
    EXPECT_TRUE(std::filesystem::exists(folder + "/PLM_APPS_INCREMENTAL_2.json"));
    EXPECT_TRUE(std::filesystem::exists(folder + "/PLM_WAKEUP_INCREMENTAL_3.json"));

    pelio::test::LogCapture log;
    EXPECT_EQ(WritePLMData::getFilename(5, "INCREMENTAL"), "");
    EXPECT_TRUE(log.hasMessage("inside getFilename 5"));

    WritePLMData::deleteFiles();
    EXPECT_TRUE(std::filesystem::is_empty(folder));
}
