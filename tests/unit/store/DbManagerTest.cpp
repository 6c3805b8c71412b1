#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <stdexcept>
#include <thread>

#include "StoreTestSupport.h"

using pelio::platform::Bundle;
using pelio::platform::BundleType;
using namespace pelio::test;

namespace {

using Request = std::vector<std::pair<std::string, std::string>>;

class DbManagerTest : public StoreTest {
  protected:
    std::string dbPath() const { return paths_->root() + "shared/trusted/databases/.orvane.db"; }
    int rowCount(const std::string& table) {
        auto rows = sqlRows(dbPath(), "SELECT count(*) FROM " + table);
        return rows.empty() ? -1 : std::stoi(rows[0][0]);
    }
    void insertContact(const std::string& id, const std::string& contactId, const char* dirty) {
        Bundle r;
        ASSERT_EQ(0, run({{"OPERATION_KEY", "INSERT"},
                          {"URI_TABLE_NAME", "contacts"},
                          {"COLUMN_COUNT", "3"},
                          {"COL1", "_id"},
                          {"_id", id},
                          {"COL2", "contact_id"},
                          {"contact_id", contactId},
                          {"COL3", "dirty"},
                          {"dirty", dirty}},
                         &r));
        ASSERT_EQ("SUCCESS", strOf(r, "record0"));
    }
};

TEST_F(DbManagerTest, FirstStartCreatesTheFileWithTheFiveTables) {
    EXPECT_EQ(dbPath(), DbManager::databasePath());
    ASSERT_TRUE(std::filesystem::exists(dbPath()));
    const auto rows = sqlRows(dbPath(),
                              "SELECT name, sql FROM sqlite_master WHERE type = 'table' "
                              "AND name NOT LIKE 'sqlite_%' ORDER BY rowid");
    // SQLite keeps each definition as written, minus "if not exists" and the text after ")".
    const std::vector<std::vector<std::string>> expected = {
        {"contacts",
         "CREATE TABLE contacts(_id TEXT NOT NULL ,rev_id TEXT ,dirty INTEGER ,device_mode "
         "INTEGER,contact_id   LONG,confirmed_alias TEXT ,confirmed_phonetic_alias   TEXT ,version "
         "  INTEGER )"},
        {"audio",
         "CREATE TABLE audio(_id INTEGER PRIMARY KEY AUTOINCREMENT,rev_id TEXT,dirty "
         "INTEGER,device_mode INTEGER,audio_id LONG ,date_added LONG ,type INTEGER,artist_name "
         "TEXT,album_name TEXT)"},
        {"audio_playlist",
         "CREATE TABLE audio_playlist(playlist_id INTEGER PRIMARY KEY,rev_id TEXT,dirty "
         "INTEGER,name TEXT,playlist_songs_count INTEGER)"},
        {"master",
         "CREATE TABLE master(_id INTEGER PRIMARY KEY AUTOINCREMENT,key TEXT NOT NULL,value TEXT)"},
        {"application",
         "CREATE TABLE application(_id  TEXT NOT NULL,rev_id TEXT,version TEXT,device_mode "
         "INTEGER,name TEXT,custom_id TEXT,package TEXT NOT NULL,pre_installed INT,dirty "
         "INTEGER)"},
    };
    EXPECT_EQ(expected, rows);
    EXPECT_TRUE(log_.hasMessage("db_lock start here in DbManager"));
    EXPECT_TRUE(log_.hasMessage("db_lock end here in DbManager"));
    EXPECT_FALSE(log_.contains("SQL ERROR"));

    // CREATE through the protocol runs the same statements again, harmlessly, adding no record.
    Bundle r;
    EXPECT_EQ(0, run({{"OPERATION_KEY", "CREATE"}}, &r));
    EXPECT_EQ(0, r.count());
}

TEST_F(DbManagerTest, InsertQuotesValuesAndUpdateEmbedsThemVerbatim) {
    insertContact("c1", "41", "1");
    // UPDATE values go in bare: a number works, a text value carries its own quotes.
    Bundle r;
    EXPECT_EQ(0, run({{"OPERATION_KEY", "UPDATE"},
                      {"URI_TABLE_NAME", "contacts"},
                      {"COLUMN_COUNT", "2"},
                      {"COL1", "dirty"},
                      {"dirty", "4"},
                      {"COL2", "rev_id"},
                      {"rev_id", "'1-abc'"},
                      {"WHERE", "_id = ?"},
                      {"WHERE_ARGS", "(TEXT)c1"}},
                     &r));
    EXPECT_EQ("SUCCESS", strOf(r, "record0"));
    EXPECT_EQ((std::vector<std::vector<std::string>>{{"c1", "1-abc", "4", "41"}}),
              sqlRows(dbPath(), "SELECT _id, rev_id, dirty, contact_id FROM contacts"));

    // DELETE with an INTEGER placeholder.
    insertContact("c2", "42", "1");
    EXPECT_EQ(0, run({{"OPERATION_KEY", "DELETE"},
                      {"URI_TABLE_NAME", "contacts"},
                      {"WHERE", "contact_id = ?"},
                      {"WHERE_ARGS", "(INTEGER)41"}}));
    EXPECT_EQ((std::vector<std::vector<std::string>>{{"c2"}}),
              sqlRows(dbPath(), "SELECT _id FROM contacts"));
}

TEST_F(DbManagerTest, SelectReturnsEncodedRowsWithNullAsTextAndBlobOnlyInTheFirstRow) {
    insertContact("a", "1", "1");
    insertContact("b", "2", "3");
    insertContact("c", "3", "1");
    Bundle r;
    ASSERT_EQ(0, run({{"OPERATION_KEY", "SELECT"},
                      {"URI_TABLE_NAME", "contacts"},
                      {"PROJECTION", "_id,rev_id,contact_id AS id_blob"},
                      {"WHERE", "dirty = ? AND _id != ? ORDER BY _id"},
                      {"WHERE_ARGS", "(INTEGER)1(TEXT)zzz"}},
                     &r));
    ASSERT_EQ(3, r.count());  // record1, record2, record0 last
    EXPECT_EQ("SUCCESS", strOf(r, "record0"));
    EXPECT_EQ("record0", r.entries().back().key);
    auto first = rowOf(r, 1);
    auto second = rowOf(r, 2);
    ASSERT_TRUE(first && second);
    ASSERT_EQ(3, first->count());
    EXPECT_EQ("a", strOf(*first, "COL0"));
    EXPECT_EQ("NULL", strOf(*first, "COL1"));
    EXPECT_EQ(BundleType::Bytes, first->entries()[2].type);
    EXPECT_EQ("1", first->entries()[2].value);
    EXPECT_EQ("c", strOf(*second, "COL0"));
    EXPECT_EQ("NULL", strOf(*second, "COL1"));
    EXPECT_EQ(BundleType::String, second->entries()[2].type);
    EXPECT_EQ("3", strOf(*second, "COL2"));

    Bundle none;
    ASSERT_EQ(0, run({{"OPERATION_KEY", "SELECT"},
                      {"URI_TABLE_NAME", "contacts"},
                      {"PROJECTION", "_id"},
                      {"WHERE", "dirty = 9"}},
                     &none));
    EXPECT_EQ(1, none.count());
    EXPECT_EQ("SUCCESS", strOf(none, "record0"));
}

TEST_F(DbManagerTest, RowTransferFailsWhenTheCursorReachesTheBufferEnd) {
    // Projection "key" (3 characters, 1 column): 1 + 4094 - 3 = 4092 column reads succeed.
    auto fill = [&](int from, int to) {
        db_->beginMultiQuery();
        for (int i = from; i < to; ++i) {
            auto req = makeRequest({{"OPERATION_KEY", "INSERT"},
                                    {"URI_TABLE_NAME", "master"},
                                    {"COLUMN_COUNT", "1"},
                                    {"COL1", "key"},
                                    {"key", "k" + std::to_string(i)}});
            Bundle res;
            ASSERT_EQ(0, db_->insertDb(&req, &res));
        }
        db_->setDbTransactionSuccessful();
        db_->endMultiQuery();
    };
    fill(0, 4092);
    Bundle ok;
    ASSERT_EQ(
        0, run({{"OPERATION_KEY", "SELECT"}, {"URI_TABLE_NAME", "master"}, {"PROJECTION", "key"}},
               &ok));
    EXPECT_EQ(4093, ok.count());
    EXPECT_EQ("k4091", strOf(*rowOf(ok, 4092), "COL0"));

    fill(4092, 4093);
    Bundle failed;
    EXPECT_EQ(
        -1, run({{"OPERATION_KEY", "SELECT"}, {"URI_TABLE_NAME", "master"}, {"PROJECTION", "key"}},
                &failed));
    EXPECT_TRUE(log_.hasMessage("error j = 4096 > MAX_QUERY_SIZE"));
    EXPECT_EQ("FAILURE", strOf(failed, "record0"));
    EXPECT_EQ(4093, failed.count());  // the rows moved before the failure stay
    EXPECT_TRUE(rowOf(failed, 4092).has_value());
    EXPECT_FALSE(rowOf(failed, 4093).has_value());
}

TEST_F(DbManagerTest, OutcomeOfEmptyUnknownAndDropOperations) {
    Bundle empty;
    EXPECT_EQ(-1, run({{"URI_TABLE_NAME", "contacts"}}, &empty));
    EXPECT_TRUE(log_.hasMessage("operation can not be empty"));
    EXPECT_EQ("FAILURE", strOf(empty, "record0"));

    Bundle foo;
    EXPECT_EQ(0, run({{"OPERATION_KEY", "FOO"}, {"URI_TABLE_NAME", "contacts"}}, &foo));
    EXPECT_EQ(0, foo.count());

    insertContact("a", "1", "1");
    Bundle dropped;
    EXPECT_EQ(0, run({{"OPERATION_KEY", "DROP"}, {"URI_TABLE_NAME", "contacts"}}, &dropped));
    EXPECT_EQ("SUCCESS", strOf(dropped, "record0"));
    EXPECT_EQ(0, rowCount("contacts"));  // recreated at once, empty

    EXPECT_EQ(-1, db_->plmsvc_db_process(nullptr, &empty));
}

// A request of OPERATION on TABLE; COLUMNS become COLUMN_COUNT, COLn and their values.
Request request(const std::string& operation, const std::string& table, const Request& columns = {},
                const Request& rest = {}) {
    Request r{{"OPERATION_KEY", operation}};
    if (!table.empty())
        r.emplace_back("URI_TABLE_NAME", table);
    if (!columns.empty())
        r.emplace_back("COLUMN_COUNT", std::to_string(columns.size()));
    for (std::size_t i = 0; i < columns.size(); ++i) {
        r.emplace_back("COL" + std::to_string(i + 1), columns[i].first);
        r.emplace_back(columns[i]);
    }
    r.insert(r.end(), rest.begin(), rest.end());
    return r;
}

// Every failing request returns -1 and logs what went wrong: whole log messages (exact) and
// fragments of longer lines. A missing table makes the engine refuse the text, and the failure
// line quotes the SQL text the request formed.
TEST_F(DbManagerTest, FailingRequestsLogTheirSqlTextAndMessages) {
    struct Case {
        Request request;
        std::vector<std::string> messages = {};
        std::vector<std::string> fragments = {};
    };
    const std::string longWhere = std::string(4100, ' ') + "1";
    const std::vector<Case> cases = {
        {request("INSERT", "nosuch", {{"a", "1"}, {"b", "x y"}}),
         {"prepare[INSERT INTO nosuch (a,b) VALUES ('1','x y');] Fail [no such table: nosuch]",
          "insert err= 1", "add fail"}},
        {request("UPDATE", "nosuch", {{"a", "1"}, {"b", "'x'"}},
                 {{"WHERE", "_id = ?"}, {"WHERE_ARGS", "(TEXT)7"}}),
         {"prepare UPDATE nosuch SET a = 1 , b = 'x' WHERE _id = ? fail no such table: nosuch",
          "update err= 1"}},
        {request("SELECT", "nosuch", {}, {{"PROJECTION", "a,b"}, {"WHERE", "x = 1"}}),
         {"prepare[SELECT a,b FROM nosuch WHERE x = 1] fail. [no such table: nosuch]",
          "select err= 1"}},
        {request("SELECT", "nosuch", {}, {{"PROJECTION", "a"}}),
         {"prepare[SELECT a FROM nosuch] fail. [no such table: nosuch]"}},
        {request("DELETE", "nosuch", {}, {{"WHERE", "x = 1"}}),
         {"prepare DELETE FROM nosuch WHERE x = 1 fail no such table: nosuch", "del fail= 1"}},
        {request("DELETE", "nosuch"),
         {"prepare DELETE FROM nosuch fail no such table: nosuch", "del fail= 1"}},
        {request("DROP", "nosuch"),
         {"prepare DROP TABLE nosuch fail no such table: nosuch", "drop fail= 1"}},
        // An unquoted text value of an UPDATE is not a literal.
        {request("UPDATE", "contacts", {{"rev_id", "abc def"}}),
         {},
         {"prepare UPDATE contacts SET rev_id = abc def fail"}},
        // Malformed requests.
        {request("INSERT", "master"), {"Failed to get cntStr"}},
        {request("INSERT", "", {}, {{"COLUMN_COUNT", "1"}}), {"Failed to get tableName"}},
        {request("INSERT", "master", {}, {{"COLUMN_COUNT", "2"}, {"COL1", "key"}, {"key", "k"}}),
         {"Failed to get record"}},
        {request("INSERT", "master", {}, {{"COLUMN_COUNT", "1"}, {"COL1", "key"}}),
         {"Failed to get value"}},
        {request("INSERT", "master", {}, {{"COLUMN_COUNT", "0"}}), {"Failed to make records"}},
        {request("UPDATE", "", {}, {{"COLUMN_COUNT", "1"}}), {"tableName is empty"}},
        {request("UPDATE", "master"), {"cntStr is empty"}},
        // application.package is NOT NULL: the step ends in a constraint error (19).
        {request("INSERT", "application", {{"_id", "x"}}), {"err 19"}},
        // Placeholders: an unknown argument type, a placeholder without an argument, a "?"
        // inside a literal (counted, but no parameter: the engine refuses the index).
        {request("SELECT", "contacts", {},
                 {{"PROJECTION", "_id"}, {"WHERE", "_id = ?"}, {"WHERE_ARGS", "(BLOB)a"}}),
         {"err BLOB"}},
        {request("DELETE", "contacts", {},
                 {{"WHERE", "_id = ? AND dirty = ?"}, {"WHERE_ARGS", "(TEXT)a"}}),
         {"err "},
         {"> bind fail "}},
        {request("SELECT", "contacts", {},
                 {{"PROJECTION", "_id"}, {"WHERE", "_id = '?'"}, {"WHERE_ARGS", "(TEXT)a"}}),
         {},
         {"bind text fail ", "index =1 type =TEXT value =a value_length =1"}},
        {request("UPDATE", "contacts", {{"dirty", "2"}},
                 {{"WHERE", "_id = '?'"}, {"WHERE_ARGS", "(INTEGER)5"}}),
         {"bind fail"},
         {"bind_int fail ", ", index =1 ype =INTEGER value =5 value_length =1"}},
        // A text too long for the query buffer never reaches the engine.
        {request("SELECT", "contacts", {}, {{"PROJECTION", "_id"}, {"WHERE", longWhere}}),
         {},
         {"query text too long"}},
    };
    insertContact("a", "1", "1");
    for (const auto& c : cases) {
        log_.clear();
        const std::string what = c.request[0].second + " " + c.request[1].second;
        Bundle r;
        auto bundle = makeRequest(c.request);
        EXPECT_EQ(-1, db_->plmsvc_db_process(&bundle, &r)) << what;
        for (const auto& m : c.messages)
            EXPECT_TRUE(log_.hasMessage(m)) << what << ": " << m;
        for (const auto& f : c.fragments)
            EXPECT_TRUE(log_.contains(f)) << what << ": " << f;
        if (c.request[0].second == "INSERT" || c.request[0].second == "UPDATE") {
            EXPECT_EQ("FAILURE", strOf(r, "record0")) << what;
        }
    }
    EXPECT_EQ(0, rowCount("master"));
    EXPECT_EQ(1, rowCount("contacts"));
    EXPECT_EQ((std::vector<std::vector<std::string>>{{"a", "1"}}),
              sqlRows(dbPath(), "SELECT _id, dirty FROM contacts"));
}

TEST_F(DbManagerTest, NonNumericColumnCountThrowsAndReleasesTheLock) {
    EXPECT_THROW(run({{"OPERATION_KEY", "INSERT"},
                      {"URI_TABLE_NAME", "master"},
                      {"COLUMN_COUNT", "two"},
                      {"COL1", "key"},
                      {"key", "k"}}),
                 std::invalid_argument);
    EXPECT_THROW(
        run({{"OPERATION_KEY", "UPDATE"}, {"URI_TABLE_NAME", "master"}, {"COLUMN_COUNT", "x1"}}),
        std::invalid_argument);
    EXPECT_THROW(run({{"OPERATION_KEY", "UPDATE"},
                      {"URI_TABLE_NAME", "master"},
                      {"COLUMN_COUNT", "99999999999"}}),
                 std::out_of_range);
    // The lock is free again (another thread can take it) and the next call works.
    std::thread other([&] {
        db_->lock();
        db_->unlock();
    });
    other.join();
    Bundle r;
    EXPECT_EQ(0, run({{"OPERATION_KEY", "INSERT"},
                      {"URI_TABLE_NAME", "master"},
                      {"COLUMN_COUNT", "1"},
                      {"COL1", "key"},
                      {"key", "k"}},
                     &r));
    EXPECT_EQ("SUCCESS", strOf(r, "record0"));
}

TEST_F(DbManagerTest, OnlyTheFirstTransactionCommitsWithoutBeingMarked) {
    auto insertInTransaction = [&](const std::string& key, bool mark) {
        db_->beginMultiQuery();
        EXPECT_TRUE(db_->inDbTransaction());
        auto req = makeRequest({{"OPERATION_KEY", "INSERT"},
                                {"URI_TABLE_NAME", "master"},
                                {"COLUMN_COUNT", "1"},
                                {"COL1", "key"},
                                {"key", key}});
        Bundle res;
        EXPECT_EQ(0, db_->insertDb(&req, &res));
        EXPECT_EQ("SUCCESS", strOf(res, "record0"));
        if (mark)
            db_->setDbTransactionSuccessful();
        db_->endMultiQuery();
        EXPECT_FALSE(db_->inDbTransaction());
    };
    insertInTransaction("first", false);
    insertInTransaction("second", false);
    insertInTransaction("third", true);
    insertInTransaction("fourth", false);
    EXPECT_EQ((std::vector<std::vector<std::string>>{{"first"}, {"third"}}),
              sqlRows(dbPath(), "SELECT key FROM master ORDER BY _id"));

    // Outside multi-query mode the direct calls have no connection.
    Bundle req = makeRequest({{"OPERATION_KEY", "UPDATE"}}), res;
    EXPECT_EQ(-1, db_->updateDb(&req, &res));
    EXPECT_EQ(-1, db_->insertDb(&req, &res));
    EXPECT_EQ(-1, db_->deleteDb(&req, &res));
    EXPECT_TRUE(log_.hasMessage("updateDb fail : DB isn't opened."));
    EXPECT_TRUE(log_.hasMessage("insertDb fail : DB isn't opened."));
    EXPECT_TRUE(log_.hasMessage("deleteDb fail : DB isn't opened."));
    // Marking outside a connection does nothing: the next transaction still rolls back.
    db_->setDbTransactionSuccessful();
    insertInTransaction("fifth", false);
    EXPECT_EQ(2, rowCount("master"));
}

TEST_F(DbManagerTest, UnopenableDatabaseFailsEveryOperationCleanly) {
    // The databases directory replaced by a plain file: nothing can be opened below it.
    const std::string dir = paths_->root() + "shared/trusted/databases";
    std::filesystem::remove_all(dir);
    std::ofstream(dir) << "not a directory";
    DbManager::resetInstanceForTesting();
    log_.clear();
    db_ = DbManager::getInstance();
    EXPECT_TRUE(log_.hasMessage("failed to open Db"));
    EXPECT_TRUE(log_.hasMessage("cannot open db"));
    EXPECT_TRUE(log_.contains("mkdir for databases failed ("));

    struct Case {
        std::vector<std::pair<std::string, std::string>> request;
        const char* message;
    };
    const std::vector<Case> cases = {
        {{{"OPERATION_KEY", "INSERT"},
          {"URI_TABLE_NAME", "master"},
          {"COLUMN_COUNT", "1"},
          {"COL1", "key"},
          {"key", "k"}},
         "DB Open fail"},
        {{{"OPERATION_KEY", "UPDATE"}, {"URI_TABLE_NAME", "master"}, {"COLUMN_COUNT", "1"}},
         "DB Open fail"},
        {{{"OPERATION_KEY", "SELECT"}, {"URI_TABLE_NAME", "master"}, {"PROJECTION", "key"}},
         "open db fail"},
        {{{"OPERATION_KEY", "DELETE"}, {"URI_TABLE_NAME", "master"}}, "db open err"},
        {{{"OPERATION_KEY", "DROP"}, {"URI_TABLE_NAME", "master"}}, "db open err"},
        {{{"OPERATION_KEY", "CREATE"}}, "create err= -1"},
    };
    for (const auto& c : cases) {
        log_.clear();
        Bundle r;
        auto request = makeRequest(c.request);
        EXPECT_EQ(-1, db_->plmsvc_db_process(&request, &r)) << c.message;
        EXPECT_TRUE(log_.hasMessage(c.message)) << c.message;
        EXPECT_TRUE(log_.contains("Failed to open[")) << c.message;
        EXPECT_EQ("FAILURE", strOf(r, "record0")) << c.message;
    }
    // A failed open in multi-query mode keeps the lock until endMultiQuery.
    db_->beginMultiQuery();
    EXPECT_FALSE(db_->inDbTransaction());
    Bundle req = makeRequest({{"OPERATION_KEY", "INSERT"}}), res;
    EXPECT_EQ(-1, db_->insertDb(&req, &res));
    db_->endMultiQuery();
    std::thread other([&] {
        db_->lock();
        db_->unlock();
    });
    other.join();
}

TEST_F(DbManagerTest, ThreadedQueriesAndTransactionsAreSerialised) {
    constexpr int kThreads = 4;
    constexpr int kEach = 25;
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t) {
        threads.emplace_back([&, t] {
            for (int i = 0; i < kEach; ++i) {
                const std::string key = "t" + std::to_string(t) + "_" + std::to_string(i);
                if (t == 0) {
                    db_->beginMultiQuery();
                    auto req = makeRequest({{"OPERATION_KEY", "INSERT"},
                                            {"URI_TABLE_NAME", "master"},
                                            {"COLUMN_COUNT", "1"},
                                            {"COL1", "key"},
                                            {"key", key}});
                    Bundle res;
                    db_->insertDb(&req, &res);
                    db_->setDbTransactionSuccessful();
                    db_->endMultiQuery();
                } else {
                    auto req = makeRequest({{"OPERATION_KEY", "INSERT"},
                                            {"URI_TABLE_NAME", "master"},
                                            {"COLUMN_COUNT", "1"},
                                            {"COL1", "key"},
                                            {"key", key}});
                    Bundle res;
                    db_->plmsvc_db_process(&req, &res);
                }
            }
        });
    }
    for (auto& th : threads)
        th.join();
    EXPECT_EQ(kThreads * kEach, rowCount("master"));
}

}  // namespace
