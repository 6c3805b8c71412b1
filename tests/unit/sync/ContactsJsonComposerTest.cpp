#include <gtest/gtest.h>
#include <json-glib/json-glib.h>
#include <libintl.h>

#include <atomic>
#include <clocale>
#include <cmath>
#include <cstdlib>
#include <optional>
#include <regex>
#include <set>
#include <string>

#include <pelio/platform/I18n.h>
#include "SyncHandlers/BaseSyncHandler.h"
#include "composer/ContactsJsonComposer.h"
#include "composer/JSONComposer.h"
#include "unit/sync/SyncTestSupport.h"

using namespace pelio::test;
namespace pp = pelio::platform;

namespace {

// Counts look-ups, to show that deleted rows are never looked up.
class CountingContacts : public FakeContactsService {
  public:
    int getContactByPersonId(int personId, pp::ContactRecord& record) override {
        ++lookups;
        return FakeContactsService::getContactByPersonId(personId, record);
    }
    std::atomic<int> lookups{0};
};

// Parsed upload bodies.
struct Bodies {
    std::vector<JsonNodePtr> roots;
    JsonArray* docs(size_t body) {
        return json_object_get_array_member(json_node_get_object(roots[body].get()), "docs");
    }
    JsonObject* doc(size_t body, guint index) {
        return json_array_get_object_element(docs(body), index);
    }
};

Bodies parse(const SyncData& data) {
    Bodies out;
    for (const auto& text : data.documents) {
        GError* error = nullptr;
        JsonNode* node = json_from_string(text.c_str(), &error);
        EXPECT_EQ(error, nullptr) << (error ? error->message : "");
        if (error)
            g_error_free(error);
        out.roots.emplace_back(node);
    }
    return out;
}

std::vector<std::string> memberNames(JsonObject* object) {
    std::vector<std::string> names;
    GList* members = json_object_get_members(object);  // in insertion order
    for (GList* m = members; m; m = m->next)
        names.emplace_back(static_cast<const char*>(m->data));
    g_list_free(members);
    return names;
}

class ContactsJsonComposerTest : public SyncStoreTest {
  protected:
    void SetUp() override {
        savedLanguage_ = env("LANGUAGE");
        savedMessages_ = env("LC_MESSAGES");
        savedLocale_ = std::setlocale(LC_ALL, nullptr);
        SyncStoreTest::SetUp();
    }
    void TearDown() override {
        SyncStoreTest::TearDown();
        restore("LANGUAGE", savedLanguage_);
        restore("LC_MESSAGES", savedMessages_);
        std::setlocale(LC_ALL, savedLocale_.c_str());
    }
    std::unique_ptr<FakeContactsService> makeContactsService() override {
        auto fake = std::make_unique<CountingContacts>();
        counting_ = fake.get();
        return fake;
    }
    static std::optional<std::string> env(const char* name) {
        const char* v = std::getenv(name);
        return v ? std::optional<std::string>(v) : std::nullopt;
    }
    static void restore(const char* name, const std::optional<std::string>& v) {
        if (v) {
            setenv(name, v->c_str(), 1);
        } else {
            unsetenv(name);
        }
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

    CountingContacts* counting_ = nullptr;
    std::optional<std::string> savedLanguage_, savedMessages_;
    std::string savedLocale_;
};

}  // namespace

TEST_F(ContactsJsonComposerTest, ItemsWithoutAComposerGiveCountsOfMinusOne) {
    insertRows(1, 3, 1);
    for (int item : {0, 2, 4}) {
        auto data = JSONComposer().makeSyncData(item);
        EXPECT_EQ(data->itemType, item);
        EXPECT_EQ(data->insertedCount, -1);
        EXPECT_EQ(data->deletedCount, -1);
        EXPECT_EQ(data->updatedCount, -1);
        EXPECT_TRUE(data->documents.empty());
    }
}

TEST_F(ContactsJsonComposerTest, NothingToSendWhenEveryRowIsInStep) {
    insertRows(1, 5, 4, "1-a");
    auto data = compose();
    EXPECT_EQ(data->itemType, -1);
    EXPECT_EQ(data->insertedCount, -1);
    EXPECT_EQ(data->deletedCount, -1);
    EXPECT_EQ(data->updatedCount, -1);
    EXPECT_TRUE(data->documents.empty());
}

TEST_F(ContactsJsonComposerTest, DeletedRowBecomesADeletionDocumentWithoutLookUp) {
    insertRows(57, 1, 2, "3-abc");
    insertRows(58, 1, 2);  // never got a revision
    auto data = compose();
    EXPECT_EQ(counting_->lookups.load(), 0);
    EXPECT_EQ(data->itemType, 3);
    EXPECT_EQ(data->deletedCount, 2);
    EXPECT_EQ(data->insertedCount, 0);
    EXPECT_EQ(data->updatedCount, 0);
    Bodies bodies = parse(*data);
    ASSERT_EQ(bodies.roots.size(), 1u);
    JsonObject* first = bodies.doc(0, 0);
    EXPECT_EQ(memberNames(first), (std::vector<std::string>{"_id", "_rev", "_deleted"}));
    EXPECT_STREQ(json_object_get_string_member(first, "_id"), "con_00000057");
    EXPECT_STREQ(json_object_get_string_member(first, "_rev"), "3-abc");
    EXPECT_TRUE(json_object_get_boolean_member(first, "_deleted"));
    JsonObject* second = bodies.doc(0, 1);
    ASSERT_TRUE(json_object_has_member(second, "_rev"));
    EXPECT_STREQ(json_object_get_string_member(second, "_rev"), "");
}

TEST_F(ContactsJsonComposerTest, LiveDocumentEnvelopeNamesAndNumbers) {
    const int ann = contacts_->addContact(
        FakeContactsService::person("Ann Lee", "Ann", "Lee", "May")
            .phonetic("an", "mei", "li")
            .favorite()
            .withNumber("+44 7700 900111", pp::CONTACTS_NUMBER_TYPE_CELL, true)
            .withNumber("222", pp::CONTACTS_NUMBER_TYPE_FAX | pp::CONTACTS_NUMBER_TYPE_HOME)
            .withNumber("333", 0)
            .withNumber("444", pp::CONTACTS_NUMBER_TYPE_MAIN));
    const int bob = contacts_->addContact(FakeContactsService::person("Bob", "Bob"));
    insertRows(ann, 1, 3, "2-r");  // updated, with a revision
    insertRows(bob, 1, 3);         // updated without a revision: counts as an insert

    const double before = JSONComposer::getCurrentTimeMillis();
    auto data = compose();
    const double after = JSONComposer::getCurrentTimeMillis();
    EXPECT_EQ(data->updatedCount, 1);
    EXPECT_EQ(data->insertedCount, 1);
    EXPECT_EQ(data->deletedCount, 0);
    Bodies bodies = parse(*data);
    ASSERT_EQ(bodies.roots.size(), 1u);

    JsonObject* doc = bodies.doc(0, 0);
    EXPECT_EQ(memberNames(doc),
              (std::vector<std::string>{"version", "_id", "type", "doc_number", "timestamp",
                                        "timestamp_GMT", "device", "meta_data", "_rev"}));
    EXPECT_STREQ(json_object_get_string_member(doc, "version"), "0.82");
    EXPECT_EQ(json_object_get_string_member(doc, "_id"),
              BaseSyncHandler::formatFixedWidthId("con_", std::to_string(ann), 12));
    EXPECT_STREQ(json_object_get_string_member(doc, "type"), "contact");
    EXPECT_STREQ(json_object_get_string_member(doc, "device"), "TockaA");
    EXPECT_STREQ(json_object_get_string_member(doc, "_rev"), "2-r");

    JsonNode* ts = json_object_get_member(doc, "timestamp");
    ASSERT_EQ(json_node_get_node_type(ts), JSON_NODE_VALUE);
    const GType tsType = json_node_get_value_type(ts);
    ASSERT_TRUE(tsType == G_TYPE_DOUBLE || tsType == G_TYPE_INT64);
    const double millis = json_node_get_double(ts);
    EXPECT_EQ(millis, std::floor(millis));
    EXPECT_GE(millis, before);
    EXPECT_LE(millis, after);
    const std::string gmt = json_object_get_string_member(doc, "timestamp_GMT");
    EXPECT_TRUE(std::regex_match(gmt, std::regex(R"(\d{4}-\d\d-\d\d \d\d:\d\d:\d\d)"))) << gmt;

    JsonObject* meta = json_object_get_object_member(doc, "meta_data");
    EXPECT_EQ(memberNames(meta),
              (std::vector<std::string>{"firstname", "lastname", "starred", "middlename",
                                        "nickname", "displayname", "phoneticname", "prefix",
                                        "suffix", "contact_count_info", "phone"}));
    EXPECT_STREQ(json_object_get_string_member(meta, "firstname"), "Ann");
    EXPECT_STREQ(json_object_get_string_member(meta, "lastname"), "Lee");
    EXPECT_STREQ(json_object_get_string_member(meta, "middlename"), "May");
    EXPECT_STREQ(json_object_get_string_member(meta, "displayname"), "Ann Lee");
    EXPECT_STREQ(json_object_get_string_member(meta, "phoneticname"), "an mei li");
    EXPECT_TRUE(json_object_get_boolean_member(meta, "starred"));
    EXPECT_EQ(json_object_get_int_member(json_object_get_object_member(meta, "contact_count_info"),
                                         "times_contacted"),
              0);

    // Numbers: label from the type bits, the number record's id, never the number itself.
    JsonArray* phone = json_object_get_array_member(meta, "phone");
    ASSERT_EQ(json_array_get_length(phone), 4u);
    const std::vector<int> ids = contacts_->numberIds(ann);
    const std::vector<std::string> labels = {dgettext("pelio-service", "contact_mobile"),
                                             dgettext("pelio-service", "IDS_VOICE_BODY_FAX_HHOME"),
                                             dgettext("pelio-service", "contact_other"), "main"};
    for (guint i = 0; i < 4; ++i) {
        JsonObject* n = json_array_get_object_element(phone, i);
        EXPECT_EQ(memberNames(n), (std::vector<std::string>{"phonetype", "clientData", "default"}));
        EXPECT_EQ(json_object_get_string_member(n, "phonetype"), labels[i]) << i;
        EXPECT_EQ(json_object_get_string_member(n, "clientData"), std::to_string(ids[i]));
        EXPECT_EQ(json_object_get_boolean_member(n, "default"), i == 0);
    }
    EXPECT_EQ(data->documents[0].find("7700 900111"), std::string::npos);

    // Bob: no numbers, so no "phone" at all; no revision, so no "_rev".
    JsonObject* bobDoc = bodies.doc(0, 1);
    EXPECT_FALSE(json_object_has_member(bobDoc, "_rev"));
    EXPECT_FALSE(
        json_object_has_member(json_object_get_object_member(bobDoc, "meta_data"), "phone"));
    EXPECT_GT(json_object_get_int_member(bobDoc, "doc_number"),
              json_object_get_int_member(doc, "doc_number"));
    // Compact text: no pretty printing.
    EXPECT_EQ(data->documents[0].find('\n'), std::string::npos);
}

TEST_F(ContactsJsonComposerTest, UnreadablePersonIsNotSentAndLeavesTheDomainIncomplete) {
    insertRows(4242, 1, 1);  // the contacts service does not know it
    insertRows(57, 1, 2, "3-abc");
    auto data = compose();
    EXPECT_FALSE(data->complete);
    EXPECT_EQ(data->insertedCount, 0);
    EXPECT_EQ(data->deletedCount, 1);
    Bodies bodies = parse(*data);
    ASSERT_EQ(json_array_get_length(bodies.docs(0)), 1u);
    // What each document was composed from, for the outcome of its answer.
    ASSERT_EQ(data->sentRows->size(), 1u);
    const SentRow& row = data->sentRows->at("con_00000057");
    EXPECT_EQ(row.key, (SentRow::Columns{{"_id", "57"}}));
    EXPECT_EQ(row.state, (SentRow::Columns{{"dirty", "2"}, {"version", "1"}}));
    EXPECT_TRUE(row.deletion());
}

TEST_F(ContactsJsonComposerTest, BatchesOfExactlyOneThousand) {
    struct Case {
        int rows;
        std::vector<guint> sizes;
    };
    contacts_->beginBatch();
    const int firstId0 = contacts_->addContact(FakeContactsService::person("P"));
    for (int i = 1; i < 4501; ++i)
        contacts_->addContact(FakeContactsService::person("P" + std::to_string(i)));
    contacts_->commitBatch();
    int firstId = firstId0;
    gint64 lastNumber = ContactsJsonComposer::lastDocumentNumber();
    for (const Case& c :
         {Case{1000, {1000}}, Case{1001, {1000, 1}}, Case{2500, {1000, 1000, 500}}}) {
        exec("DELETE FROM contacts");
        insertRows(firstId, c.rows, 1);
        firstId += c.rows;
        auto data = compose();
        EXPECT_EQ(data->insertedCount, c.rows);
        Bodies bodies = parse(*data);
        ASSERT_EQ(bodies.roots.size(), c.sizes.size()) << c.rows;
        for (size_t b = 0; b < c.sizes.size(); ++b) {
            ASSERT_EQ(json_array_get_length(bodies.docs(b)), c.sizes[b]) << c.rows;
            // doc_number keeps rising across bodies and across calls.
            for (guint i = 0; i < c.sizes[b]; ++i) {
                const gint64 number = json_object_get_int_member(bodies.doc(b, i), "doc_number");
                EXPECT_GT(number, lastNumber);
                lastNumber = number;
            }
        }
    }
}

TEST_F(ContactsJsonComposerTest, LargeTableIsComposedCompletelyWithoutDuplicates) {
    insertRows(1, 3000, 2, "1-x");
    insertRows(3001, 2300, 2, "1-z");
    insertRows(9001, 50, 4, "1-y");  // in step: not selected
    auto data = compose();
    EXPECT_EQ(data->deletedCount, 5300);
    Bodies bodies = parse(*data);
    std::set<std::string> ids;
    size_t total = 0;
    for (size_t b = 0; b < bodies.roots.size(); ++b) {
        for (guint i = 0; i < json_array_get_length(bodies.docs(b)); ++i) {
            ids.insert(json_object_get_string_member(bodies.doc(b, i), "_id"));
            ++total;
        }
    }
    EXPECT_EQ(total, 5300u);
    EXPECT_EQ(ids.size(), 5300u);
    EXPECT_EQ(ids.count("con_00009001"), 0u);
    EXPECT_FALSE(log_.contains("MAX_QUERY_SIZE"));
}

TEST_F(ContactsJsonComposerTest, PhoneticNameOrderFollowsTheDeviceLocale) {
    EXPECT_EQ(ContactsJsonComposer::joinPhoneticName("given", "mid", "family", "en_US"),
              "given mid family");
    EXPECT_EQ(ContactsJsonComposer::joinPhoneticName("given", "mid", "family", "ja_JP"),
              "family given mid");
    EXPECT_EQ(ContactsJsonComposer::joinPhoneticName("given", "", "family", "ko_KR"),
              "family given");
    EXPECT_EQ(ContactsJsonComposer::joinPhoneticName("", "", "", "ko_KR"), "");

    const int id = contacts_->addContact(
        FakeContactsService::person("Sato", "Taro", "Sato").phonetic("taro", "", "sato"));
    insertRows(id, 1, 1);
    prefs_->setString("locale", "ja-JP");
    auto data = compose();
    Bodies bodies = parse(*data);
    JsonObject* meta = json_object_get_object_member(bodies.doc(0, 0), "meta_data");
    EXPECT_STREQ(json_object_get_string_member(meta, "phoneticname"), "sato taro");
    EXPECT_STREQ(std::getenv("LANGUAGE"), "ja_JP");
    EXPECT_STREQ(std::getenv("LC_MESSAGES"), "ja_JP");
    EXPECT_TRUE(log_.hasMessage("Korean-Japnese case"));
}

TEST_F(ContactsJsonComposerTest, LabelsFollowTheTypeBits) {
    auto label = [](const char* msgid) { return std::string(dgettext("pelio-service", msgid)); };
    using T = pp::ContactNumberType;
    EXPECT_EQ(ContactsJsonComposer::getTypeString(T::CONTACTS_NUMBER_TYPE_CUSTOM |
                                                  T::CONTACTS_NUMBER_TYPE_CELL),
              label("contact_other"));
    EXPECT_EQ(ContactsJsonComposer::getTypeString(T::CONTACTS_NUMBER_TYPE_CELL |
                                                  T::CONTACTS_NUMBER_TYPE_HOME),
              label("contact_mobile"));
    EXPECT_EQ(ContactsJsonComposer::getTypeString(T::CONTACTS_NUMBER_TYPE_VOICE |
                                                  T::CONTACTS_NUMBER_TYPE_HOME),
              label("contact_home"));
    EXPECT_EQ(ContactsJsonComposer::getTypeString(T::CONTACTS_NUMBER_TYPE_VOICE |
                                                  T::CONTACTS_NUMBER_TYPE_WORK),
              label("contact_work"));
    EXPECT_EQ(ContactsJsonComposer::getTypeString(T::CONTACTS_NUMBER_TYPE_VOICE),
              label("contact_other"));
    EXPECT_EQ(ContactsJsonComposer::getTypeString(T::CONTACTS_NUMBER_TYPE_FAX |
                                                  T::CONTACTS_NUMBER_TYPE_WORK),
              label("IDS_VOICE_BODY_FAX_HWORK"));
    EXPECT_EQ(ContactsJsonComposer::getTypeString(T::CONTACTS_NUMBER_TYPE_FAX),
              label("contact_other"));
    EXPECT_EQ(ContactsJsonComposer::getTypeString(T::CONTACTS_NUMBER_TYPE_PAGER),
              label("IDS_PB_BODY_PAGER"));
    EXPECT_EQ(ContactsJsonComposer::getTypeString(T::CONTACTS_NUMBER_TYPE_MAIN |
                                                  T::CONTACTS_NUMBER_TYPE_HOME),
              "main");
    EXPECT_EQ(ContactsJsonComposer::getTypeString(T::CONTACTS_NUMBER_TYPE_HOME),
              label("contact_home"));
    EXPECT_EQ(ContactsJsonComposer::getTypeString(T::CONTACTS_NUMBER_TYPE_WORK),
              label("contact_work"));
    EXPECT_EQ(ContactsJsonComposer::getTypeString(T::CONTACTS_NUMBER_TYPE_MSG),
              label("contact_other"));
    EXPECT_EQ(ContactsJsonComposer::getTypeString(0), label("contact_other"));
    // Distinct message ids stay distinct labels.
    EXPECT_NE(label("contact_home"), label("contact_work"));
}

TEST(JSONComposerTest, DeletionDocumentAndSerialisation) {
    JSONComposer composer;
    JsonObjectPtr doc = composer.makeDeletedDocument("aud_0001", "");
    EXPECT_EQ(JSONComposer::jsonToString(doc.get()),
              R"({"_id":"aud_0001","_rev":"","_deleted":true})");
    // The caller's reference survives serialisation.
    EXPECT_TRUE(json_object_has_member(doc.get(), "_id"));
    EXPECT_EQ(JSONComposer::getTimestampString().size(), 19u);
}

TEST_F(ContactsJsonComposerTest, LabelsComeOutInTheDeviceLanguage) {
    const std::string catalogue = pp::serviceLocaleDir() + "/ko_KR/LC_MESSAGES/pelio-service.mo";
    if (!g_file_test(catalogue.c_str(), G_FILE_TEST_EXISTS)) {
        GTEST_SKIP() << "message catalogues not built: " << catalogue;
    }
    const int id = contacts_->addContact(FakeContactsService::person("Kim", "Minsu", "Kim")
                                             .withNumber("010", pp::CONTACTS_NUMBER_TYPE_CELL));
    insertRows(id, 1, 1);
    prefs_->setString("locale", "ko-KR");
    auto data = compose();
    Bodies bodies = parse(*data);
    JsonObject* meta = json_object_get_object_member(bodies.doc(0, 0), "meta_data");
    JsonObject* number =
        json_array_get_object_element(json_object_get_array_member(meta, "phone"), 0);
    const std::string label = json_object_get_string_member(number, "phonetype");
    EXPECT_FALSE(label.empty());
    EXPECT_NE(label, "contact_mobile");  // translated, not the message id
}
