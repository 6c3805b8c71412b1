#include "pref/PrefMgr.h"

#include <gtest/gtest.h>

#include "doubles/FakePreferences.h"
#include "support/Installed.h"
#include "support/LogCapture.h"

using namespace pelio::test;
using pelio::platform::preferenceTypeName;

namespace {

class PrefMgrTest : public ::testing::Test {
  protected:
    Installed<FakePreferences, &pelio::platform::installPreferences> prefs_;
    LogCapture log_;
};

TEST_F(PrefMgrTest, InitSeedsTheKeysWithTypesAndNeverOverwrites) {
    PrefMgr mgr;
    mgr.init();
    const auto items = prefs_->items();
    ASSERT_EQ(8u, items.size());
    for (const auto& item : items) {
        EXPECT_EQ(item.key == "sync_need" ? "int:0" : "string:",
                  preferenceTypeName(item.type) + (":" + item.value))
            << item.key;
    }

    mgr.set("plm_id", std::string("P-1"));
    mgr.set("sync_need", 5);
    mgr.init();
    std::string plm = "old";
    mgr.get("plm_id", plm);
    int need = 0;
    prefs_->getInt("sync_need", need);
    EXPECT_EQ("P-1 5", plm + " " + std::to_string(need));

    mgr.clear();
    EXPECT_EQ(8u, prefs_->items().size());
}

TEST_F(PrefMgrTest, TypedSetGetAndRemoveLogAndSwallowFailures) {
    PrefMgr mgr;
    mgr.set("is_force", true);
    mgr.set("port", 8443);
    mgr.set("server_ip", "127.0.0.1");
    bool force = false;
    int port = 0;
    prefs_->getBoolean("is_force", force);
    prefs_->getInt("port", port);
    EXPECT_TRUE(force && port == 8443);

    std::string out = "unchanged";
    mgr.get("missing", out);
    mgr.get("port", out);  // stored as an int: a type mismatch is an error
    EXPECT_EQ("unchanged", out);
    mgr.get("server_ip", out);
    EXPECT_EQ("127.0.0.1", out);

    // Failed writes are logged and swallowed.
    prefs_->failNext("setBoolean", -5);
    mgr.set("is_force", false);
    prefs_->failNext("setInt", -5);
    mgr.set("port", 1);
    prefs_->failNext("setString", -5);
    mgr.set("server_ip", std::string("x"));
    EXPECT_TRUE(log_.hasMessage("value set to int key[port] got error with code[-5]"));

    mgr.remove("port");
    bool existing = true;
    prefs_->isExisting("port", existing);
    EXPECT_FALSE(existing);
    mgr.remove("port");
    EXPECT_TRUE(log_.hasMessage("remove key[port] got error with code[-126]"));

    prefs_->failNext("isExisting", -5);
    prefs_->failNext("setString", -5, 100);
    mgr.init();
    EXPECT_TRUE(log_.hasMessage("preference_set_string ERROR"));
    prefs_->remove("sync_need");
    prefs_->failNext("setInt", -5);
    mgr.init();
    EXPECT_TRUE(log_.hasMessage("preference_set_int ERROR"));
}

}  // namespace
