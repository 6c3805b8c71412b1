// Application documents from a real shadow table: custom ids, live, updated and deletion
// documents, the rows recorded for the outcome processing, and one body whatever the size.
#include <gtest/gtest.h>
#include <json-glib/json-glib.h>

#include <string>

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

// The documents of a body, by id.
struct Body {
    explicit Body(const std::string& text) : parser(json_parser_new()) {
        json_parser_load_from_data(parser, text.c_str(), -1, nullptr);
        docs = json_object_get_array_member(json_node_get_object(json_parser_get_root(parser)),
                                            "docs");
    }
    ~Body() { g_object_unref(parser); }
    JsonObject* doc(const std::string& id) const {
        for (guint i = 0; i < json_array_get_length(docs); ++i) {
            JsonObject* d = json_array_get_object_element(docs, i);
            if (id == json_object_get_string_member(d, "_id"))
                return d;
        }
        return nullptr;
    }
    std::string meta(const std::string& id, const char* key) const {
        return json_object_get_string_member(json_object_get_object_member(doc(id), "meta_data"),
                                             key);
    }
    JsonParser* parser;
    JsonArray* docs;
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
    EXPECT_EQ(data->insertedCount, 1);
    EXPECT_EQ(data->updatedCount, 1);
    EXPECT_EQ(data->deletedCount, 1);
    ASSERT_EQ(data->documents.size(), 1u);
    Body body(data->documents[0]);
    EXPECT_EQ(json_array_get_length(body.docs), 3u);

    JsonObject* locate = body.doc("pkg_com.quorvin.wlocate");
    ASSERT_NE(locate, nullptr);
    EXPECT_STREQ(json_object_get_string_member(locate, "type"), "application");
    EXPECT_FALSE(json_object_has_member(locate, "_rev"));
    EXPECT_EQ(body.meta("pkg_com.quorvin.wlocate", "name"), "Locate");
    EXPECT_EQ(body.meta("pkg_com.quorvin.wlocate", "packagename"), "com.quorvin.wlocate");
    EXPECT_EQ(body.meta("pkg_com.quorvin.wlocate", "customid"), "locatephone001");
    EXPECT_EQ(body.meta("pkg_com.quorvin.alarm", "customid"), "");
    EXPECT_STREQ(json_object_get_string_member(body.doc("pkg_com.quorvin.alarm"), "_rev"), "");
    JsonObject* gone = body.doc("pkg_org.example.gone");
    EXPECT_TRUE(json_object_get_boolean_member(gone, "_deleted"));
    EXPECT_STREQ(json_object_get_string_member(gone, "_rev"), "2-b");

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
    EXPECT_EQ(json_array_get_length(Body(data->documents[0]).docs), 1500u);
    EXPECT_EQ(data->sentRows->size(), 1500u);
}
