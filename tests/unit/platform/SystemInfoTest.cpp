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
    // The value and, when the lookup fails, its code: "<none>|code".
    std::string get(const std::string& key) {
        std::string value = "<none>";
        const int rc = makeLinuxSystemInfo(sources_)->getPlatformString(key, value);
        return rc ? value + "|" + std::to_string(rc) : value;
    }
    std::string dir_;
    SystemInfoSources sources_;
};

TEST_F(SystemInfoTest, EachKeyFromItsSourceAndErrorsWithoutOne) {
    const std::string ioError = "<none>|" + std::to_string(SYSTEM_INFO_ERROR_IO_ERROR);
    for (const char* key : {kSystemKeyModelName, kSystemKeyBuildString, kSystemKeyDeviceId})
        EXPECT_EQ(ioError, get(key)) << key;
    EXPECT_EQ("<none>|" + std::to_string(SYSTEM_INFO_ERROR_INVALID_PARAMETER),
              get("quorvin://system/other"));

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
    EXPECT_EQ(ioError, get(kSystemKeyBuildString));

    write(sources_.machineId, "0123456789abcdef0123456789abcdef\n");
    EXPECT_EQ("0123456789abcdef0123456789abcdef", get(kSystemKeyDeviceId));
}

}  // namespace
