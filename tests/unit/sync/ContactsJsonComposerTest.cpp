#include <libintl.h>

#include <clocale>
#include <cmath>
#include <cstdlib>
#include <regex>
#include <set>

#include "SyncHandlers/BaseSyncHandler.h"
#include "composer/ContactsJsonComposer.h"
#include "composer/JSONComposer.h"
#include "unit/sync/SyncTestSupport.h"

using namespace pelio::test;
namespace pp = pelio::platform;

namespace {

std::vector<std::string> memberNames(JsonObject* object) {
    std::vector<std::string> names;
    GList* members = json_object_get_members(object);  // in insertion order
    for (GList* m = members; m; m = m->next)
        names.emplace_back(static_cast<const char*>(m->data));
    g_list_free(members);
    return names;
}

std::string label(const char* msgid) {
    return dgettext("pelio-service", msgid);
}

class ContactsJsonComposerTest : public SyncStoreTest {
  protected:
    // The device locale switch sets the message language of the process: undo it.
    void TearDown() override {
        SyncStoreTest::TearDown();
        unsetenv("LANGUAGE");
        unsetenv("LC_MESSAGES");
        std::setlocale(LC_ALL, savedLocale_.c_str());
    }

    // count rows with ids first..first+count-1 and the given dirty flag, in one transaction.
    void insertRows(int first, int count, int dirty, const std::string& rev = "") {
        std::string sql = "BEGIN;";
        for (int i = first; i < first + count; ++i) {
            sql += "INSERT INTO contacts (_id, contact_id, dirty, version, rev_id) VALUES ('" +
                   std::to_string(i) + "', " + std::to_string(i) + ", " + std::to_string(dirty) +
                   ", 1, " + (rev.empty() ? std::string("NULL") : "'" + rev + "'") + ");";
        }
        exec(sql + "COMMIT;");
    }

    std::unique_ptr<SyncData> compose() { return JSONComposer().makeSyncData(3); }

    std::string savedLocale_ = std::setlocale(LC_ALL, nullptr);
};

}  // namespace

TEST_F(ContactsJsonComposerTest, NothingToSendGivesCountsOfMinusOne) {
    // Items without a composer, and contacts whose rows are all in step.
    insertRows(1, 5, 4, "1-a");
    for (int item : {0, 4, 3}) {
        auto data = JSONComposer().makeSyncData(item);
        EXPECT_EQ(data->itemType, item == 3 ? -1 : item);
        EXPECT_EQ(counts(*data), "-1/-1/-1");
        EXPECT_TRUE(data->documents.empty());
    }
}

TEST_F(ContactsJsonComposerTest, DeletedRowBecomesADeletionDocumentWithoutLookUp) {
    insertRows(57, 1, 2, "3-abc");
    insertRows(58, 1, 2);  // never got a revision
    // The contacts service does not know them: a look-up would fail and drop them.
    auto data = compose();
    EXPECT_TRUE(data->complete);
    EXPECT_EQ(data->itemType, 3);
    EXPECT_EQ(counts(*data), "0/0/2");
    ASSERT_EQ(data->documents.size(), 1u);
    Body body(data->documents[0]);
    EXPECT_EQ(memberNames(body.at(0)), (std::vector<std::string>{"_id", "_rev", "_deleted"}));
    EXPECT_EQ(str(body.at(0), "_id") + "|" + str(body.at(0), "_rev"), "con_00000057|3-abc");
    EXPECT_TRUE(json_object_get_boolean_member(body.at(0), "_deleted"));
    EXPECT_EQ(str(body.at(1), "_rev"), "");
}

TEST_F(ContactsJsonComposerTest, LiveDocumentEnvelopeNamesAndNumbers) {
    const int ann = contacts_.put(
        "ann", "Ann Lee",
        "N:Lee;Ann;May;;\r\nX-PHONETIC-FIRST-NAME:an\r\nX-PHONETIC-MIDDLE-NAME:mei\r\n"
        "X-PHONETIC-LAST-NAME:li\r\nX-FAVORITE:TRUE\r\nTEL;TYPE=CELL,PREF:+44 7700 900111\r\n"
        "TEL;TYPE=FAX,HOME:222\r\nTEL:333\r\nTEL;TYPE=MAIN:444\r\n");
    const int bob = contacts_.put("bob", "Bob", "N:;Bob;;;\r\n");
    insertRows(ann, 1, 3, "2-r");  // updated, with a revision
    insertRows(bob, 1, 3);         // updated without a revision: counts as an insert

    const double before = JSONComposer::getCurrentTimeMillis();
    auto data = compose();
    const double after = JSONComposer::getCurrentTimeMillis();
    EXPECT_EQ(counts(*data), "1/1/0");
    ASSERT_EQ(data->documents.size(), 1u);
    Body body(data->documents[0]);

    JsonObject* doc = body.at(0);
    EXPECT_EQ(memberNames(doc),
              (std::vector<std::string>{"version", "_id", "type", "doc_number", "timestamp",
                                        "timestamp_GMT", "device", "meta_data", "_rev"}));
    EXPECT_EQ(str(doc, "version") + "|" + str(doc, "_id") + "|" + str(doc, "type") + "|" +
                  str(doc, "device") + "|" + str(doc, "_rev"),
              "0.82|" + BaseSyncHandler::formatFixedWidthId("con_", std::to_string(ann), 12) +
                  "|contact|TockaA|2-r");

    JsonNode* ts = json_object_get_member(doc, "timestamp");
    ASSERT_EQ(json_node_get_node_type(ts), JSON_NODE_VALUE);
    const double millis = json_node_get_double(ts);
    EXPECT_TRUE(millis == std::floor(millis) && millis >= before && millis <= after) << millis;
    EXPECT_TRUE(std::regex_match(str(doc, "timestamp_GMT"),
                                 std::regex(R"(\d{4}-\d\d-\d\d \d\d:\d\d:\d\d)")));

    JsonObject* m = meta(doc);
    EXPECT_EQ(memberNames(m),
              (std::vector<std::string>{"firstname", "lastname", "starred", "middlename",
                                        "nickname", "displayname", "phoneticname", "prefix",
                                        "suffix", "contact_count_info", "phone"}));
    EXPECT_EQ(str(m, "firstname") + "/" + str(m, "lastname") + "/" + str(m, "middlename") + "/" +
                  str(m, "displayname") + "/" + str(m, "phoneticname"),
              "Ann/Lee/May/Ann Lee/an mei li");
    EXPECT_TRUE(json_object_get_boolean_member(m, "starred"));
    EXPECT_EQ(json_object_get_int_member(json_object_get_object_member(m, "contact_count_info"),
                                         "times_contacted"),
              0);

    // Numbers: label from the type bits, the number record's id, never the number itself.
    JsonArray* phone = json_object_get_array_member(m, "phone");
    ASSERT_EQ(json_array_get_length(phone), 4u);
    const std::vector<int> ids = contacts_.numberIds(ann);
    const std::vector<std::string> labels = {
        label("contact_mobile"), label("IDS_VOICE_BODY_FAX_HHOME"), label("contact_other"), "main"};
    for (guint i = 0; i < 4; ++i) {
        JsonObject* n = json_array_get_object_element(phone, i);
        EXPECT_EQ(memberNames(n), (std::vector<std::string>{"phonetype", "clientData", "default"}));
        EXPECT_EQ(str(n, "phonetype"), labels[i]) << i;
        EXPECT_EQ(str(n, "clientData"), std::to_string(ids[i]));
        EXPECT_EQ(json_object_get_boolean_member(n, "default"), i == 0);
    }
    EXPECT_EQ(data->documents[0].find("7700 900111"), std::string::npos);

    // Bob: no numbers, so no "phone" at all; no revision, so no "_rev".
    JsonObject* bobDoc = body.at(1);
    EXPECT_FALSE(json_object_has_member(bobDoc, "_rev"));
    EXPECT_FALSE(json_object_has_member(meta(bobDoc), "phone"));
    EXPECT_GT(json_object_get_int_member(bobDoc, "doc_number"),
              json_object_get_int_member(doc, "doc_number"));
    // Compact text: no pretty printing.
    EXPECT_EQ(data->documents[0].find('\n'), std::string::npos);
}

TEST_F(ContactsJsonComposerTest, UnreadablePersonIsNotSentAndLeavesTheDomainIncomplete) {
    // Known persons around an unknown one and a deletion, across a look-up of 64 rows: each
    // document carries its own person's name.
    const int first = contacts_.putMany("P", 100);
    insertRows(first, 40, 1);
    insertRows(4242, 1, 1);  // the contacts service does not know it
    insertRows(9057, 1, 2, "3-abc");
    insertRows(first + 40, 60, 1);
    auto data = compose();
    EXPECT_TRUE(!data->complete && counts(*data) == "100/0/1");
    Body body(data->documents[0]);
    ASSERT_EQ(body.size(), 101u);
    for (guint i = 0; i < body.size(); ++i) {
        JsonObject* doc = body.at(i);
        if (!json_object_has_member(doc, "meta_data"))
            continue;  // the deletion
        const int person = std::stoi(str(doc, "_id").substr(4));
        EXPECT_EQ(str(json_object_get_object_member(doc, "meta_data"), "displayname"),
                  "P" + std::to_string(person - first));
    }
    // What each document was composed from, for the outcome of its answer.
    ASSERT_EQ(data->sentRows->size(), 101u);
    const SentRow& row = data->sentRows->at("con_00009057");
    EXPECT_TRUE(row.deletion() && (row.key == SentRow::Columns{{"_id", "9057"}}));
    EXPECT_EQ(row.state, (SentRow::Columns{{"dirty", "2"}, {"version", "1"}}));
}

TEST_F(ContactsJsonComposerTest, BodiesOfAtMostOneThousandCoverLargeTablesOnce) {
    struct Case {
        int rows;
        int dirty;
        std::vector<guint> sizes;
    };
    const int firstLive = contacts_.putMany("P", 4501);
    int first = firstLive;
    gint64 lastNumber = ContactsJsonComposer::lastDocumentNumber();
    for (const Case& c :
         {Case{1000, 1, {1000}}, Case{1001, 1, {1000, 1}}, Case{2500, 1, {1000, 1000, 500}},
          Case{5300, 2, {1000, 1000, 1000, 1000, 1000, 300}}}) {
        SCOPED_TRACE(c.rows);
        exec("DELETE FROM contacts");
        insertRows(c.dirty == 1 ? first : 10001, c.rows, c.dirty, c.dirty == 1 ? "" : "1-x");
        insertRows(90001, 50, 4, "1-y");  // in step: not selected
        first += c.rows;
        auto data = compose();
        EXPECT_EQ(c.dirty == 1 ? data->insertedCount : data->deletedCount, c.rows);
        ASSERT_EQ(data->documents.size(), c.sizes.size());
        std::set<std::string> ids;
        for (size_t b = 0; b < c.sizes.size(); ++b) {
            Body body(data->documents[b]);
            ASSERT_EQ(body.size(), c.sizes[b]);
            for (guint i = 0; i < body.size(); ++i) {
                ids.insert(str(body.at(i), "_id"));
                if (c.dirty == 2)
                    continue;
                // doc_number keeps rising across bodies and across calls.
                const gint64 number = json_object_get_int_member(body.at(i), "doc_number");
                EXPECT_GT(number, lastNumber);
                lastNumber = number;
            }
        }
        EXPECT_EQ(ids.size(), static_cast<size_t>(c.rows));
    }
    EXPECT_FALSE(log_.contains("MAX_QUERY_SIZE"));
}

TEST_F(ContactsJsonComposerTest, PhoneticNameOrderFollowsTheDeviceLocale) {
    const auto join = ContactsJsonComposer::joinPhoneticName;
    EXPECT_EQ(join("given", "mid", "family", "en_US") + "|" +
                  join("given", "mid", "family", "ja_JP") + "|" +
                  join("given", "", "family", "ko_KR") + "|" + join("", "", "", "ko_KR"),
              "given mid family|family given mid|family given|");

    const int id = contacts_.put(
        "sato", "Sato",
        "N:Sato;Taro;;;\r\nX-PHONETIC-FIRST-NAME:taro\r\nX-PHONETIC-LAST-NAME:sato\r\n");
    insertRows(id, 1, 1);
    prefs_->setString("locale", "ja-JP");
    auto data = compose();
    EXPECT_EQ(str(meta(Body(data->documents[0]).at(0)), "phoneticname"), "sato taro");
    EXPECT_EQ(std::string(std::getenv("LANGUAGE")) + std::getenv("LC_MESSAGES"), "ja_JPja_JP");
}

TEST_F(ContactsJsonComposerTest, LabelsFollowTheTypeBits) {
    using T = pp::ContactNumberType;
    const std::vector<std::pair<int, std::string>> cases = {
        {T::CONTACTS_NUMBER_TYPE_CUSTOM | T::CONTACTS_NUMBER_TYPE_CELL, label("contact_other")},
        {T::CONTACTS_NUMBER_TYPE_CELL | T::CONTACTS_NUMBER_TYPE_HOME, label("contact_mobile")},
        {T::CONTACTS_NUMBER_TYPE_VOICE | T::CONTACTS_NUMBER_TYPE_HOME, label("contact_home")},
        {T::CONTACTS_NUMBER_TYPE_VOICE | T::CONTACTS_NUMBER_TYPE_WORK, label("contact_work")},
        {T::CONTACTS_NUMBER_TYPE_VOICE, label("contact_other")},
        {T::CONTACTS_NUMBER_TYPE_FAX | T::CONTACTS_NUMBER_TYPE_WORK,
         label("IDS_VOICE_BODY_FAX_HWORK")},
        {T::CONTACTS_NUMBER_TYPE_FAX, label("contact_other")},
        {T::CONTACTS_NUMBER_TYPE_PAGER, label("IDS_PB_BODY_PAGER")},
        {T::CONTACTS_NUMBER_TYPE_MAIN | T::CONTACTS_NUMBER_TYPE_HOME, "main"},
        {T::CONTACTS_NUMBER_TYPE_HOME, label("contact_home")},
        {T::CONTACTS_NUMBER_TYPE_WORK, label("contact_work")},
        {T::CONTACTS_NUMBER_TYPE_MSG, label("contact_other")}};
    for (const auto& [bits, expected] : cases)
        EXPECT_EQ(ContactsJsonComposer::getTypeString(bits), expected) << bits;
}
