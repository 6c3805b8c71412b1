#include <gtest/gtest.h>

#include <pelio/platform/SystemInfo.h>
#include <filesystem>
#include <fstream>

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

TEST_F(SystemInfoTest, ModelNameFromDmiElseDeviceTree) {
    int rc = 0;
    EXPECT_EQ("<none>", get(kSystemKeyModelName, &rc));
    EXPECT_EQ(SYSTEM_INFO_ERROR_IO_ERROR, rc);
    write(sources_.deviceTreeModel, std::string("Pine Watch Rev B") + '\0');
    EXPECT_EQ("Pine Watch Rev B", get(kSystemKeyModelName));
    write(sources_.productName, "ThinkPad X13\n");
    EXPECT_EQ("ThinkPad X13", get(kSystemKeyModelName));
    write(sources_.productName, "  \n");  // blank: fall back
    EXPECT_EQ("Pine Watch Rev B", get(kSystemKeyModelName));
}

TEST_F(SystemInfoTest, BuildStringFromOsRelease) {
    int rc = 0;
    get(kSystemKeyBuildString, &rc);
    EXPECT_EQ(SYSTEM_INFO_ERROR_IO_ERROR, rc);
    write(sources_.osRelease, "NAME=\"Debian GNU/Linux\"\nVERSION_ID=\"13\"\nID=debian\n");
    EXPECT_EQ("Debian GNU/Linux 13", get(kSystemKeyBuildString));
    write(sources_.osRelease,
          "NAME=Debian\nPRETTY_NAME=\"Debian GNU/Linux 13 (\\\"trixie\\\")\"\nVERSION_ID=13\n");
    EXPECT_EQ("Debian GNU/Linux 13 (\"trixie\")", get(kSystemKeyBuildString));
    write(sources_.osRelease, "VERSION_ID='42'\n");
    EXPECT_EQ("42", get(kSystemKeyBuildString));
    write(sources_.osRelease, "ID=x\n");
    get(kSystemKeyBuildString, &rc);
    EXPECT_EQ(SYSTEM_INFO_ERROR_IO_ERROR, rc);
}

TEST_F(SystemInfoTest, DeviceIdFromMachineIdAndUnknownKeys) {
    int rc = 0;
    get(kSystemKeyDeviceId, &rc);
    EXPECT_EQ(SYSTEM_INFO_ERROR_IO_ERROR, rc);
    write(sources_.machineId, "0123456789abcdef0123456789abcdef\n");
    EXPECT_EQ("0123456789abcdef0123456789abcdef", get(kSystemKeyDeviceId));
    EXPECT_EQ("<none>", get("quorvin://system/other", &rc));
    EXPECT_EQ(SYSTEM_INFO_ERROR_INVALID_PARAMETER, rc);
}

}  // namespace
