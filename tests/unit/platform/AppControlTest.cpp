#include <gtest/gtest.h>

#include <pelio/platform/AppControl.h>

namespace pp = pelio::platform;

TEST(AppControlTest, ObjectPathReplacesDotsAndDashes) {
    EXPECT_EQ(pp::applicationObjectPath("com.quorvin.plmsvc"), "/com/quorvin/plmsvc");
    EXPECT_EQ(pp::applicationObjectPath("com.quorvin.orvane-k12"), "/com/quorvin/orvane_k12");
}

TEST(AppControlTest, ExtrasAndReplyToIncomingRequest) {
    pp::AppControl request = pp::AppControl::incoming({{"EVENT_TYPE", "CHECK_STATUS"}, {"", "x"}});
    std::string value;
    EXPECT_EQ(request.getExtraData("EVENT_TYPE", value), pp::APP_CONTROL_ERROR_NONE);
    EXPECT_EQ(value, "CHECK_STATUS");
    EXPECT_EQ(request.getExtraData("MISSING", value), pp::APP_CONTROL_ERROR_KEY_NOT_FOUND);
    EXPECT_EQ(request.extras().size(), 1u);  // the empty key is dropped
    ASSERT_TRUE(request.isLaunchRequest());
    EXPECT_FALSE(request.reply()->replied);

    pp::AppControl reply;
    EXPECT_EQ(reply.addExtraData("", "v"), pp::APP_CONTROL_ERROR_INVALID_PARAMETER);
    reply.addExtraData("STATUS_RESULT", "1");
    reply.addExtraData("STATUS_RESULT", "3");  // replaces
    EXPECT_EQ(pp::replyToLaunchRequest(reply, request, pp::APP_CONTROL_RESULT_SUCCEEDED), 0);
    EXPECT_TRUE(request.reply()->replied);
    EXPECT_EQ(request.reply()->result, 0);
    ASSERT_EQ(request.reply()->extras.size(), 1u);
    EXPECT_EQ(request.reply()->extras[0].second, "3");
    // Only one reply per request, and none to a request made here.
    EXPECT_EQ(pp::replyToLaunchRequest(reply, request, pp::APP_CONTROL_RESULT_FAILED),
              pp::APP_CONTROL_ERROR_INVALID_PARAMETER);
    EXPECT_EQ(request.reply()->result, 0);
    EXPECT_EQ(pp::replyToLaunchRequest(reply, pp::AppControl(), 0),
              pp::APP_CONTROL_ERROR_INVALID_PARAMETER);
}
