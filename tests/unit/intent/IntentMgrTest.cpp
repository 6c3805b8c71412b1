#include <gtest/gtest.h>

#include "PLMConstants.h"
#include "doubles/FakePlatformApp.h"
#include "intent/IntentMgr.h"
#include "support/Installed.h"
#include "support/LogCapture.h"

namespace pp = pelio::platform;
using pelio::test::FakeAppControlService;
using pelio::test::FakeAppManager;
using pelio::test::LogCapture;

namespace {

class IntentMgrTest : public ::testing::Test {
  protected:
    pelio::test::Installed<FakeAppManager, &pp::installAppManager> manager_;
    pelio::test::Installed<FakeAppControlService, &pp::installAppControlService> control_;
    IntentMgr intent_;
};

TEST_F(IntentMgrTest, ForegroundVoiceAppGetsTypeAndIdForBothDomains) {
    manager_->setApp(plm::VOICE_APP_ID, true, pp::APP_STATE_FOREGROUND);
    intent_.sendApplicationHasPlmId("plm-app-7");
    intent_.sendContactHasPlmId("plm-contact-9");

    const auto sent = control_->sent();
    ASSERT_EQ(sent.size(), 2u);
    const std::pair<std::string, std::string> expected[] = {{"APPLICATION", "plm-app-7"},
                                                            {"CONTACT", "plm-contact-9"}};
    for (std::size_t i = 0; i < 2; ++i) {
        std::string type, id;
        EXPECT_EQ(sent[i].appId(), "com.quorvin.orvane-k12");
        EXPECT_EQ(sent[i].extras().size(), 2u);
        EXPECT_EQ(sent[i].getExtraData("SYNCED_TYPE", type), 0);
        EXPECT_EQ(sent[i].getExtraData("SYNCED_PLM_ID", id), 0);
        EXPECT_EQ(std::pair(type, id), expected[i]);
    }
}

TEST_F(IntentMgrTest, NothingIsSentUnlessTheVoiceAppRunsInTheForeground) {
    LogCapture log;
    manager_->setApp(plm::VOICE_APP_ID, true, pp::APP_STATE_BACKGROUND);
    intent_.sendContactHasPlmId("p1");

    manager_->setApp(plm::VOICE_APP_ID, false, pp::APP_STATE_FOREGROUND);
    intent_.sendApplicationHasPlmId("p2");

    manager_->setApp(plm::VOICE_APP_ID, true, pp::APP_STATE_FOREGROUND);
    intent_.sendApplicationHasPlmId("");
    intent_.sendContactHasPlmId("");

    manager_->failIsRunning = pp::APP_MANAGER_ERROR_IO_ERROR;
    intent_.sendApplicationHasPlmId("p3");

    // Another application in the foreground does not count.
    manager_->failIsRunning = 0;
    manager_->setApp(plm::VOICE_APP_ID, false, pp::APP_STATE_BACKGROUND);
    manager_->setApp("com.quorvin.other", true, pp::APP_STATE_FOREGROUND);
    intent_.sendContactHasPlmId("p4");

    EXPECT_TRUE(control_->sent().empty());
}

}  // namespace
