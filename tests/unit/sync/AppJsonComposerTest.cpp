// Application documents from a real shadow table: custom ids, live, updated and deletion
// documents, the rows recorded for the outcome processing, and one body whatever the size.

#include "PLMConstants.h"
#include "composer/AppJsonComposer.h"
#include "unit/sync/SyncTestSupport.h"

using namespace pelio::test;

namespace {

class AppJsonComposerTest : public SyncStoreTest {
  protected:
    void addRow(const std::string& package, const std::string& name, int preinstalled, int dirty,
                const std::string& rev = "NULL") {
        exec(
            "INSERT INTO application (_id, name, package, pre_installed, rev_id, dirty) VALUES ('" +
            package + "', '" + name + "', '" + package + "', " + std::to_string(preinstalled) +
            ", " + (rev == "NULL" ? rev : "'" + rev + "'") + ", " + std::to_string(dirty) + ")");
    }
};

}  // namespace

TEST(AppCustomIdTest, TableEntriesOnlyForPreinstalledPackages) {
    EXPECT_EQ(AppJsonComposer::getCustomId("com.quorvin.wlocate", true, "Locate"),
              "locatephone001");
    EXPECT_EQ(AppJsonComposer::getCustomId("com.quorvin.voicememo-q1", true, "x"), "voicememo001");
    EXPECT_EQ(AppJsonComposer::getCustomId("org.example.other", true, "Other"), "");
    EXPECT_EQ(AppJsonComposer::getCustomId("com.quorvin.wlocate", false, "Locate"), "");
    EXPECT_EQ(AppJsonComposer::getCustomId("", true, "My App"), "myapp001");
}

TEST_F(AppJsonComposerTest, LiveUpdatedAndDeletionDocumentsWithTheirRows) {
    addRow("com.quorvin.wlocate", "Locate", 1, 1);
    addRow("com.quorvin.alarm", "Alarm", 0, 3);  // downloaded, listed, empty revision
    addRow("org.example.gone", "Gone", 0, 2, "2-b");
    addRow("org.example.synced", "Synced", 0, 4, "1-a");

    auto data = AppJsonComposer().makeUploadJSON();
    ASSERT_EQ(data->itemType, plm::SYNC_ITEM_APPLICATION);
    EXPECT_EQ(counts(*data), "1/1/1");
    ASSERT_EQ(data->documents.size(), 1u);
    Body body(data->documents[0]);
    EXPECT_EQ(body.size(), 3u);

    JsonObject* locate = body.doc("pkg_com.quorvin.wlocate");
    ASSERT_NE(locate, nullptr);
    EXPECT_EQ(str(locate, "type"), "application");
    EXPECT_EQ(str(locate, "_rev"), "<absent>");
    EXPECT_EQ(str(meta(locate), "name"), "Locate");
    EXPECT_EQ(str(meta(locate), "packagename"), "com.quorvin.wlocate");
    EXPECT_EQ(str(meta(locate), "customid"), "locatephone001");
    JsonObject* alarm = body.doc("pkg_com.quorvin.alarm");
    ASSERT_NE(alarm, nullptr);
    EXPECT_EQ(str(meta(alarm), "customid"), "");
    EXPECT_EQ(str(alarm, "_rev"), "");
    JsonObject* gone = body.doc("pkg_org.example.gone");
    ASSERT_NE(gone, nullptr);
    EXPECT_TRUE(json_object_get_boolean_member(gone, "_deleted"));
    EXPECT_EQ(str(gone, "_rev"), "2-b");

    const SentRows& sent = *data->sentRows;
    ASSERT_EQ(sent.size(), 3u);
    const SentRow& row = sent.at("pkg_com.quorvin.wlocate");
    EXPECT_EQ(row.table, "application");
    EXPECT_EQ(row.key, (SentRow::Columns{{"_id", "com.quorvin.wlocate"}}));
    EXPECT_EQ(row.state,
              (SentRow::Columns{{"dirty", "1"}, {"name", "Locate"}, {"pre_installed", "1"}}));
    EXPECT_FALSE(row.deletion());
    EXPECT_TRUE(sent.at("pkg_org.example.gone").deletion());
    EXPECT_EQ(sent.at("pkg_org.example.gone").state, (SentRow::Columns{{"dirty", "2"}}));
}

TEST_F(AppJsonComposerTest, NothingPendingGivesDefaultsAndManyRowsGoInOneBody) {
    addRow("org.example.synced", "Synced", 0, 4, "1-a");
    auto empty = AppJsonComposer().makeUploadJSON();
    EXPECT_EQ(empty->insertedCount, -1);
    EXPECT_TRUE(empty->documents.empty());
    EXPECT_TRUE(empty->sentRows->empty());

    std::string sql = "BEGIN;";
    for (int i = 0; i < 1500; ++i) {
        const std::string p = "org.example.app" + std::to_string(i);
        sql += "INSERT INTO application (_id, name, package, pre_installed, dirty) VALUES ('" + p +
               "', 'App', '" + p + "', 0, 1);";
    }
    exec(sql + "COMMIT;");
    auto data = AppJsonComposer().makeUploadJSON();
    ASSERT_EQ(data->documents.size(), 1u);
    EXPECT_EQ(data->insertedCount, 1500);
    EXPECT_EQ(Body(data->documents[0]).size(), 1500u);
    EXPECT_EQ(data->sentRows->size(), 1500u);
}
