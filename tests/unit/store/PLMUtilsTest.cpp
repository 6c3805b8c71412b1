#include "utils/PLMUtils.h"

#include <gtest/gtest.h>

#include "doubles/FakeSystemInfo.h"
#include "support/StoreFixture.h"

using namespace pelio::test;
using pelio::platform::kSystemKeyBuildString;
using pelio::platform::kSystemKeyDeviceId;
using pelio::platform::kSystemKeyModelName;

namespace {

class PLMUtilsTest : public StoreFixture {
  protected:
    Installed<FakeSystemInfo, &pelio::platform::installSystemInfo> info_;
};

TEST_F(PLMUtilsTest, HashedDeviceIdIsSha256HexComputedOnce) {
    info_->set(kSystemKeyDeviceId, "abc");
    // SHA-256("abc"), a published test vector.
    const std::string expected = "ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad";
    EXPECT_EQ(expected, getHashedDeviceId());
    std::string stored;
    EXPECT_EQ(0, prefs_->getString("deviceId", stored));
    EXPECT_EQ(expected, stored);

    info_->set(kSystemKeyDeviceId, "another");
    EXPECT_EQ(expected + expected, getDeviceID() + getHashedDeviceId());
    EXPECT_EQ(1, info_->calls(kSystemKeyDeviceId));

    // A failed lookup stores what the platform gave: an empty id.
    prefs_->remove("deviceId");
    info_->fail(kSystemKeyDeviceId, pelio::platform::SYSTEM_INFO_ERROR_IO_ERROR);
    EXPECT_EQ("", getHashedDeviceId());
    bool existing = false;
    prefs_->isExisting("deviceId", existing);
    EXPECT_TRUE(existing);
}

TEST_F(PLMUtilsTest, PlatformStringsLocaleAndTriggerFlag) {
    EXPECT_EQ("|snorlotest|",
              getPlatformString("") + "|" + getDeviceModelName() + "|" + getDeviceBuildString());
    info_->set(kSystemKeyModelName, "Watch 9");
    info_->set(kSystemKeyBuildString, "Debian GNU/Linux 13");
    EXPECT_EQ("Watch 9|Debian GNU/Linux 13", getDeviceModelName() + "|" + getDeviceBuildString());

    EXPECT_EQ("en-US", getLocalePreference());
    prefs_->setString("locale", "ko-KR");
    EXPECT_EQ("ko-KR", getLocalePreference());

    EXPECT_EQ(0, getEmbeddedTriggerStatus());
    sendsyncTriggerToEmbedded();
    int raw = -1;
    prefs_->getInt("trigger_embedded", raw);
    EXPECT_EQ(1, raw);
    clearEmbeddedTrigger();
    EXPECT_EQ(0, getEmbeddedTriggerStatus());
}

TEST_F(PLMUtilsTest, MediaHexaIdReadsTheAudioRow) {
    EXPECT_EQ("", getMediaHexaId(1));
    ASSERT_EQ(0, run(request("INSERT", "audio", {{"audio_id", "7f3a"}})));
    EXPECT_EQ("7f3a", getMediaHexaId(1));

    paths_->setAvailable(false);  // no database directory for a service that starts now
    DbManager::resetInstanceForTesting();
    EXPECT_EQ("", getMediaHexaId(1));
    EXPECT_TRUE(log_.hasMessage("plmsvc_db_process FAIL"));
}

}  // namespace
