#include "upload/PLMSyncMasterTable.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>

#include "StoreTestSupport.h"

using pelio::platform::Bundle;
using namespace pelio::test;

namespace {

class MasterTableTest : public StoreTest {
  protected:
    std::string dbPath() const { return paths_->root() + "shared/trusted/databases/.orvane.db"; }
    std::string get(const char* key, int* rc = nullptr) {
        char* value = nullptr;
        const int r = master_get_string(key, &value);
        if (rc)
            *rc = r;
        std::string out = value ? value : "<null>";
        std::free(value);
        return out;
    }
};

TEST_F(MasterTableTest, SetInsertsNewKeysAndUpdatesExistingOnesInPlace) {
    int rc = -5;
    EXPECT_EQ("<null>", get("CONTACTS_SYNC_STATUS_P", &rc));
    EXPECT_EQ(0, rc);
    EXPECT_TRUE(log_.hasMessage("Query Success No result found"));

    EXPECT_EQ(0, master_set_string("CONTACTS_SYNC_STATUS_P", "0"));
    EXPECT_EQ(0, master_set_string("PLM_SYNC_DEVICE_ID", "abc def"));
    EXPECT_TRUE(log_.hasMessage("Inserted Properly"));
    EXPECT_EQ(0, master_set_string("CONTACTS_SYNC_STATUS_P", "2"));
    EXPECT_TRUE(log_.hasMessage("Update the CONTACTS_SYNC_STATUS_P with 2"));
    EXPECT_EQ("2", get("CONTACTS_SYNC_STATUS_P"));
    EXPECT_EQ("abc def", get("PLM_SYNC_DEVICE_ID"));
    EXPECT_EQ((std::vector<std::vector<std::string>>{{"CONTACTS_SYNC_STATUS_P", "2"},
                                                     {"PLM_SYNC_DEVICE_ID", "abc def"}}),
              sqlRows(dbPath(), "SELECT key, value FROM master ORDER BY _id"));

    // The update embeds the value bare: text that is not a literal cannot replace a stored value.
    EXPECT_EQ(-1, master_set_string("PLM_SYNC_DEVICE_ID", "new id"));
    EXPECT_TRUE(log_.hasMessage("Insert failed queryresult = FAILURE"));
    EXPECT_TRUE(log_.hasMessage("insert_into_db failed retval = -1"));
    EXPECT_EQ("abc def", get("PLM_SYNC_DEVICE_ID"));

    EXPECT_EQ(-1, master_set_string(nullptr, "1"));
    EXPECT_TRUE(log_.hasMessage("key is NULL"));
    EXPECT_EQ(-1, master_set_string("k", nullptr));
    EXPECT_TRUE(log_.hasMessage("value is NULL"));
    char* out = nullptr;
    EXPECT_EQ(-1, master_get_string(nullptr, &out));
}

TEST_F(MasterTableTest, DuplicateKeysMakeGetFail) {
    for (int i = 0; i < 2; ++i) {
        const char* const pairs[] = {"OPERATION_KEY", "INSERT", "URI_TABLE_NAME", "master",
                                     "COLUMN_COUNT",  "2",      "COL1",           "key",
                                     "key",           "dup",    "COL2",           "value",
                                     "value",         "1"};
        auto request = get_query_bundle(pairs, 14);
        ASSERT_TRUE(request);
        ASSERT_EQ(0, insert_into_db(request.get()));
    }
    int rc = 0;
    EXPECT_EQ("<null>", get("dup", &rc));
    EXPECT_EQ(-1, rc);
    EXPECT_TRUE(log_.hasMessage("Something is wrong"));

    int present = -1;
    EXPECT_EQ(0, key_is_present_in_db("key = 'dup'", "master", &present));
    EXPECT_EQ(1, present);
    EXPECT_TRUE(log_.hasMessage("where_condition [key = 'dup']"));
    EXPECT_TRUE(log_.hasMessage("bundle record_count = 3"));
    EXPECT_TRUE(log_.hasMessage("Provider is present in master Table"));
    EXPECT_EQ(0, key_is_present_in_db("key = 'other'", "master", &present));
    EXPECT_EQ(0, present);
    EXPECT_TRUE(log_.hasMessage("Query Success but no result found"));
    EXPECT_NE(0, key_is_present_in_db("key = 'x'", "nosuch", &present));
}

TEST_F(MasterTableTest, QueryBundleFromKeyValueList) {
    const char* const pairs[] = {"a", "1", "b", "2"};
    auto bundle = get_query_bundle(pairs, 4);
    ASSERT_TRUE(bundle);
    EXPECT_EQ(2, bundle->count());
    EXPECT_EQ("2", strOf(*bundle, "b"));
    EXPECT_FALSE(get_query_bundle(pairs, 3));
    EXPECT_TRUE(log_.hasMessage("invalid arg size 3"));
    EXPECT_FALSE(get_query_bundle(nullptr, 0));
    const char* const dup[] = {"a", "1", "a", "2"};
    EXPECT_FALSE(get_query_bundle(dup, 4));
    EXPECT_TRUE(log_.hasMessage("bun add err -17"));
}

TEST_F(MasterTableTest, FailureOfTheStoreIsReported) {
    DbManager::resetInstanceForTesting();
    const std::string dir = paths_->root() + "shared/trusted/databases";
    std::filesystem::remove_all(dir);
    std::ofstream(dir) << "x";
    int rc = 0;
    EXPECT_EQ("<null>", get("k", &rc));
    EXPECT_EQ(-1, rc);
    EXPECT_TRUE(log_.hasMessage("plmsvc_db_process failed"));
    EXPECT_NE(0, master_set_string("k", "1"));
    EXPECT_TRUE(log_.contains("key_is_present_in_db failed retval = "));
    bool ok = true;
    EXPECT_EQ("", master_get_value("k", &ok));
    EXPECT_FALSE(ok);
}

}  // namespace
