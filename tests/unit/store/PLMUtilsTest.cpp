#include "utils/PLMUtils.h"

#include <gtest/gtest.h>

#include "StoreTestSupport.h"
#include "doubles/FakePreferences.h"
#include "doubles/FakeSystemInfo.h"
#include "support/Installed.h"

using namespace pelio::test;
using pelio::platform::kSystemKeyBuildString;
using pelio::platform::kSystemKeyDeviceId;
using pelio::platform::kSystemKeyModelName;

namespace {

class PLMUtilsTest : public StoreTest {
  protected:
    Installed<FakePreferences, &pelio::platform::installPreferences> prefs_;
    Installed<FakeSystemInfo, &pelio::platform::installSystemInfo> info_;
};

TEST_F(PLMUtilsTest, HashedDeviceIdIsSha256HexComputedOnce) {
    info_->set(kSystemKeyDeviceId, "abc");
    // SHA-256("abc"), a published test vector.
    const std::string expected = "ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad";
    EXPECT_EQ(expected, getHashedDeviceId());
    EXPECT_TRUE(log_.hasMessage("device id3 is [abc]"));
    EXPECT_TRUE(log_.hasMessage("device hashed id3 is [" + expected + "]"));
    std::string stored;
    EXPECT_EQ(0, prefs_->getString("deviceId", stored));
    EXPECT_EQ(expected, stored);

    info_->set(kSystemKeyDeviceId, "another");
    EXPECT_EQ(expected, getDeviceID());
    EXPECT_EQ(expected, getHashedDeviceId());
    EXPECT_EQ(1, info_->calls(kSystemKeyDeviceId));
    EXPECT_TRUE(log_.hasMessage("device id1 is [" + expected + "]"));
}

TEST_F(PLMUtilsTest, FailedDeviceIdLookupStoresWhatThePlatformGave) {
    info_->fail(kSystemKeyDeviceId, pelio::platform::SYSTEM_INFO_ERROR_IO_ERROR);
    EXPECT_EQ("", getHashedDeviceId());
    EXPECT_TRUE(log_.hasMessage("error code  is  -5"));
    bool existing = false;
    prefs_->isExisting("deviceId", existing);
    EXPECT_TRUE(existing);  // an empty id is kept, as the platform gave it
}

TEST_F(PLMUtilsTest, PlatformStringsModelBuildAndLocale) {
    EXPECT_EQ("", getPlatformString(""));
    EXPECT_TRUE(log_.hasMessage("empty key!"));
    EXPECT_EQ("snorlotest", getDeviceModelName());
    EXPECT_TRUE(log_.hasMessage(std::string("system_info_get_platform_string ERROR! (") +
                                kSystemKeyModelName + ")"));
    info_->set(kSystemKeyModelName, "Watch 9");
    EXPECT_EQ("Watch 9", getDeviceModelName());
    EXPECT_TRUE(
        log_.hasMessage(std::string("key, value : (") + kSystemKeyModelName + ", Watch 9)"));
    EXPECT_EQ("", getDeviceBuildString());
    info_->set(kSystemKeyBuildString, "Debian GNU/Linux 13");
    EXPECT_EQ("Debian GNU/Linux 13", getDeviceBuildString());

    EXPECT_EQ("en-US", getLocalePreference());
    prefs_->setString("locale", "ko-KR");
    EXPECT_EQ("ko-KR", getLocalePreference());
}

TEST_F(PLMUtilsTest, EmbeddedTriggerFlag) {
    EXPECT_EQ(0, getEmbeddedTriggerStatus());
    sendsyncTriggerToEmbedded();
    EXPECT_EQ(1, getEmbeddedTriggerStatus());
    int raw = -1;
    EXPECT_EQ(0, prefs_->getInt("trigger_embedded", raw));
    EXPECT_EQ(1, raw);
    clearEmbeddedTrigger();
    EXPECT_EQ(0, getEmbeddedTriggerStatus());
}

TEST_F(PLMUtilsTest, MediaHexaIdReadsTheAudioRow) {
    EXPECT_EQ("", getMediaHexaId(1));
    EXPECT_TRUE(log_.hasMessage("no information present"));
    auto req = makeRequest({{"OPERATION_KEY", "INSERT"},
                            {"URI_TABLE_NAME", "audio"},
                            {"COLUMN_COUNT", "1"},
                            {"COL1", "audio_id"},
                            {"audio_id", "7f3a"}});
    pelio::platform::Bundle res;
    ASSERT_EQ(0, db_->plmsvc_db_process(&req, &res));
    EXPECT_EQ("7f3a", getMediaHexaId(1));
    EXPECT_TRUE(log_.hasMessage("media_id[7f3a]"));
    EXPECT_TRUE(log_.hasMessage("columns [audio_id]"));

    paths_->setAvailable(false);  // no database directory for a service that starts now
    DbManager::resetInstanceForTesting();
    EXPECT_EQ("", getMediaHexaId(1));
    EXPECT_TRUE(log_.hasMessage("plmsvc_db_process FAIL"));
}

}  // namespace
