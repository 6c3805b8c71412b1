#include <gtest/gtest.h>

#include <pelio/platform/SystemInfo.h>
#include <filesystem>
#include <fstream>
#include <utility>
#include <vector>

using namespace pelio::platform;

namespace {

class SystemInfoTest : public ::testing::Test {
  protected:
    void SetUp() override {
        char templ[] = "/tmp/pelio-sysinfo-XXXXXX";
        dir_ = mkdtemp(templ);
        sources_.productName = dir_ + "/product_name";
        sources_.deviceTreeModel = dir_ + "/model";
        sources_.osRelease = dir_ + "/os-release";
        sources_.machineId = dir_ + "/machine-id";
    }
    void TearDown() override { std::filesystem::remove_all(dir_); }
    void write(const std::string& path, const std::string& text) {
        std::ofstream(path, std::ios::binary) << text;
    }
    std::string get(const std::string& key, int* rc = nullptr) {
        std::string value = "<none>";
        const int r = makeLinuxSystemInfo(sources_)->getPlatformString(key, value);
        if (rc)
            *rc = r;
        return value;
    }
    std::string dir_;
    SystemInfoSources sources_;
};

TEST_F(SystemInfoTest, EachKeyFromItsSourceAndErrorsWithoutOne) {
    int rc = 0;
    for (const char* key : {kSystemKeyModelName, kSystemKeyBuildString, kSystemKeyDeviceId}) {
        EXPECT_EQ("<none>", get(key, &rc)) << key;
        EXPECT_EQ(SYSTEM_INFO_ERROR_IO_ERROR, rc) << key;
    }
    EXPECT_EQ("<none>", get("quorvin://system/other", &rc));
    EXPECT_EQ(SYSTEM_INFO_ERROR_INVALID_PARAMETER, rc);

    // Model name: DMI, else the device tree (NUL-terminated); a blank DMI name falls back.
    write(sources_.deviceTreeModel, std::string("Pine Watch Rev B") + '\0');
    EXPECT_EQ("Pine Watch Rev B", get(kSystemKeyModelName));
    write(sources_.productName, "ThinkPad X13\n");
    EXPECT_EQ("ThinkPad X13", get(kSystemKeyModelName));
    write(sources_.productName, "  \n");
    EXPECT_EQ("Pine Watch Rev B", get(kSystemKeyModelName));

    // Build string: PRETTY_NAME (unquoted, escapes undone), else NAME and VERSION_ID.
    for (const auto& [text, expected] : std::vector<std::pair<std::string, std::string>>{
             {"NAME=\"Debian GNU/Linux\"\nVERSION_ID=\"13\"\nID=debian\n", "Debian GNU/Linux 13"},
             {"NAME=Debian\nPRETTY_NAME=\"Debian GNU/Linux 13 (\\\"trixie\\\")\"\nVERSION_ID=13\n",
              "Debian GNU/Linux 13 (\"trixie\")"},
             {"VERSION_ID='42'\n", "42"}}) {
        write(sources_.osRelease, text);
        EXPECT_EQ(expected, get(kSystemKeyBuildString)) << text;
    }
    write(sources_.osRelease, "ID=x\n");
    get(kSystemKeyBuildString, &rc);
    EXPECT_EQ(SYSTEM_INFO_ERROR_IO_ERROR, rc);

    write(sources_.machineId, "0123456789abcdef0123456789abcdef\n");
    EXPECT_EQ("0123456789abcdef0123456789abcdef", get(kSystemKeyDeviceId));
}

}  // namespace
