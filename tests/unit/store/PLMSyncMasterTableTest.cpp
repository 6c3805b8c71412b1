#include "upload/PLMSyncMasterTable.h"

#include <gtest/gtest.h>

#include <cstdlib>

#include "support/StoreFixture.h"

using namespace pelio::test;

namespace {

class MasterTableTest : public StoreFixture {
  protected:
    // The value (or "<null>") and the return code, as "value|rc".
    std::string get(const char* key) {
        char* value = nullptr;
        const int rc = master_get_string(key, &value);
        std::string out = std::string(value ? value : "<null>") + "|" + std::to_string(rc);
        std::free(value);
        return out;
    }
};

TEST_F(MasterTableTest, SetInsertsNewKeysAndUpdatesExistingOnesInPlace) {
    EXPECT_EQ("<null>|0", get("CONTACTS_SYNC_STATUS_P"));

    EXPECT_EQ(0, master_set_string("CONTACTS_SYNC_STATUS_P", "0"));
    EXPECT_EQ(0, master_set_string("PLM_SYNC_DEVICE_ID", "abc def"));
    EXPECT_EQ(0, master_set_string("CONTACTS_SYNC_STATUS_P", "2"));
    EXPECT_EQ("2|0", get("CONTACTS_SYNC_STATUS_P"));
    EXPECT_EQ((Rows{"CONTACTS_SYNC_STATUS_P|2", "PLM_SYNC_DEVICE_ID|abc def"}),
              query("SELECT key, value FROM master ORDER BY _id"));

    // The update embeds the value bare: text that is not a literal cannot replace a stored value.
    EXPECT_EQ(-1, master_set_string("PLM_SYNC_DEVICE_ID", "new id"));
    EXPECT_TRUE(log_.hasMessage("Insert failed queryresult = FAILURE"));
    EXPECT_EQ("abc def|0", get("PLM_SYNC_DEVICE_ID"));

    EXPECT_EQ(-1, master_set_string(nullptr, "1"));
    EXPECT_EQ(-1, master_set_string("k", nullptr));
    char* out = nullptr;
    EXPECT_EQ(-1, master_get_string(nullptr, &out));
}

TEST_F(MasterTableTest, DuplicateKeysMakeGetFail) {
    for (int i = 0; i < 2; ++i) {
        auto bundle = makeRequest(request("INSERT", "master", {{"key", "dup"}, {"value", "1"}}));
        ASSERT_EQ(0, insert_into_db(&bundle));
    }
    EXPECT_EQ("<null>|-1", get("dup"));

    int present = -1, absent = -1;
    EXPECT_EQ(0, key_is_present_in_db("key = 'dup'", "master", &present));
    EXPECT_EQ(0, key_is_present_in_db("key = 'other'", "master", &absent));
    EXPECT_EQ(std::pair(1, 0), std::pair(present, absent));
    EXPECT_NE(0, key_is_present_in_db("key = 'x'", "nosuch", &present));

    // Query bundles from key/value lists: an odd count, none, or a repeated key give nothing.
    const char* const pairs[] = {"a", "1", "b", "2"};
    auto bundle = get_query_bundle(pairs, 4);
    ASSERT_TRUE(bundle && bundle->count() == 2);
    EXPECT_EQ("2", strOf(*bundle, "b"));
    EXPECT_FALSE(get_query_bundle(pairs, 3));
    EXPECT_FALSE(get_query_bundle(nullptr, 0));
    const char* const dup[] = {"a", "1", "a", "2"};
    EXPECT_FALSE(get_query_bundle(dup, 4));
}

TEST_F(MasterTableTest, FailureOfTheStoreIsReported) {
    breakDatabaseDirectory();
    EXPECT_EQ("<null>|-1", get("k"));
    EXPECT_NE(0, master_set_string("k", "1"));
    EXPECT_TRUE(log_.contains("key_is_present_in_db failed retval = "));
    bool ok = true;
    EXPECT_EQ("", master_get_value("k", &ok));
    EXPECT_FALSE(ok);
}

}  // namespace
