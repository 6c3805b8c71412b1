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

TEST_F(DbManagerTest, FormsTheSqlTextOfEachOperation) {
    // A missing table makes the engine refuse the text, and the failure line quotes it whole.
    Bundle r;
    EXPECT_EQ(-1, run({{"OPERATION_KEY", "INSERT"},
                       {"URI_TABLE_NAME", "nosuch"},
                       {"COLUMN_COUNT", "2"},
                       {"COL1", "a"},
                       {"a", "1"},
                       {"COL2", "b"},
                       {"b", "x y"}},
                      &r));
    EXPECT_TRUE(log_.hasMessage(
        "prepare[INSERT INTO nosuch (a,b) VALUES ('1','x y');] Fail [no such table: nosuch]"));
    EXPECT_TRUE(log_.hasMessage("insert err= 1"));
    EXPECT_TRUE(log_.hasMessage("add fail"));
    EXPECT_EQ("FAILURE", strOf(r, "record0"));
    EXPECT_EQ(1, r.count());

    EXPECT_EQ(-1, run({{"OPERATION_KEY", "UPDATE"},
                       {"URI_TABLE_NAME", "nosuch"},
                       {"COLUMN_COUNT", "2"},
                       {"COL1", "a"},
                       {"a", "1"},
                       {"COL2", "b"},
                       {"b", "'x'"},
                       {"WHERE", "_id = ?"},
                       {"WHERE_ARGS", "(TEXT)7"}}));
    EXPECT_TRUE(log_.hasMessage(
        "prepare UPDATE nosuch SET a = 1 , b = 'x' WHERE _id = ? fail no such table: nosuch"));
    EXPECT_TRUE(log_.hasMessage("update err= 1"));

    EXPECT_EQ(-1, run({{"OPERATION_KEY", "SELECT"},
                       {"URI_TABLE_NAME", "nosuch"},
                       {"PROJECTION", "a,b"},
                       {"WHERE", "x = 1"}}));
    EXPECT_TRUE(
        log_.hasMessage("prepare[SELECT a,b FROM nosuch WHERE x = 1] fail. [no such "
                        "table: nosuch]"));
    EXPECT_TRUE(log_.hasMessage("select err= 1"));

    EXPECT_EQ(
        -1, run({{"OPERATION_KEY", "SELECT"}, {"URI_TABLE_NAME", "nosuch"}, {"PROJECTION", "a"}}));
    EXPECT_TRUE(log_.hasMessage("prepare[SELECT a FROM nosuch] fail. [no such table: nosuch]"));

    EXPECT_EQ(-1,
              run({{"OPERATION_KEY", "DELETE"}, {"URI_TABLE_NAME", "nosuch"}, {"WHERE", "x = 1"}}));
    EXPECT_TRUE(
        log_.hasMessage("prepare DELETE FROM nosuch WHERE x = 1 fail no such table: nosuch"));
    EXPECT_EQ(-1, run({{"OPERATION_KEY", "DELETE"}, {"URI_TABLE_NAME", "nosuch"}}));
    EXPECT_TRUE(log_.hasMessage("prepare DELETE FROM nosuch fail no such table: nosuch"));
    EXPECT_TRUE(log_.hasMessage("del fail= 1"));

    EXPECT_EQ(-1, run({{"OPERATION_KEY", "DROP"}, {"URI_TABLE_NAME", "nosuch"}}));
    EXPECT_TRUE(log_.hasMessage("prepare DROP TABLE nosuch fail no such table: nosuch"));
    EXPECT_TRUE(log_.hasMessage("drop fail= 1"));
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
    // An unquoted text value is not a literal: the engine refuses it.
    EXPECT_EQ(-1, run({{"OPERATION_KEY", "UPDATE"},
                       {"URI_TABLE_NAME", "contacts"},
                       {"COLUMN_COUNT", "1"},
                       {"COL1", "rev_id"},
                       {"rev_id", "abc def"}}));
    EXPECT_TRUE(log_.contains("prepare UPDATE contacts SET rev_id = abc def fail"));

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

TEST_F(DbManagerTest, MalformedInsertAndUpdateRequestsFailWithTheirMessages) {
    struct Case {
        std::vector<std::pair<std::string, std::string>> request;
        const char* message;
    };
    const std::vector<Case> cases = {
        {{{"OPERATION_KEY", "INSERT"}, {"URI_TABLE_NAME", "master"}}, "Failed to get cntStr"},
        {{{"OPERATION_KEY", "INSERT"}, {"COLUMN_COUNT", "1"}}, "Failed to get tableName"},
        {{{"OPERATION_KEY", "INSERT"},
          {"URI_TABLE_NAME", "master"},
          {"COLUMN_COUNT", "2"},
          {"COL1", "key"},
          {"key", "k"}},
         "Failed to get record"},
        {{{"OPERATION_KEY", "INSERT"},
          {"URI_TABLE_NAME", "master"},
          {"COLUMN_COUNT", "1"},
          {"COL1", "key"}},
         "Failed to get value"},
        {{{"OPERATION_KEY", "INSERT"}, {"URI_TABLE_NAME", "master"}, {"COLUMN_COUNT", "0"}},
         "Failed to make records"},
        {{{"OPERATION_KEY", "UPDATE"}, {"COLUMN_COUNT", "1"}}, "tableName is empty"},
        {{{"OPERATION_KEY", "UPDATE"}, {"URI_TABLE_NAME", "master"}}, "cntStr is empty"},
        // application.package is NOT NULL: the step ends in a constraint error (19).
        {{{"OPERATION_KEY", "INSERT"},
          {"URI_TABLE_NAME", "application"},
          {"COLUMN_COUNT", "1"},
          {"COL1", "_id"},
          {"_id", "x"}},
         "err 19"},
    };
    for (const auto& c : cases) {
        log_.clear();
        Bundle r;
        auto request = makeRequest(c.request);
        EXPECT_EQ(-1, db_->plmsvc_db_process(&request, &r)) << c.message;
        EXPECT_TRUE(log_.hasMessage(c.message)) << c.message;
        EXPECT_EQ("FAILURE", strOf(r, "record0")) << c.message;
    }
    EXPECT_EQ(0, rowCount("master"));
}

TEST_F(DbManagerTest, PlaceholderBindingFailures) {
    insertContact("a", "1", "1");
    // An unknown argument type, and a placeholder without an argument.
    EXPECT_EQ(-1, run({{"OPERATION_KEY", "SELECT"},
                       {"URI_TABLE_NAME", "contacts"},
                       {"PROJECTION", "_id"},
                       {"WHERE", "_id = ?"},
                       {"WHERE_ARGS", "(BLOB)a"}}));
    EXPECT_TRUE(log_.hasMessage("err BLOB"));
    log_.clear();
    EXPECT_EQ(-1, run({{"OPERATION_KEY", "DELETE"},
                       {"URI_TABLE_NAME", "contacts"},
                       {"WHERE", "_id = ? AND dirty = ?"},
                       {"WHERE_ARGS", "(TEXT)a"}}));
    EXPECT_TRUE(log_.hasMessage("err "));
    EXPECT_TRUE(log_.contains("> bind fail "));
    EXPECT_EQ(1, rowCount("contacts"));
    // A "?" inside a literal is counted but is no parameter: the engine refuses the index.
    log_.clear();
    EXPECT_EQ(-1, run({{"OPERATION_KEY", "SELECT"},
                       {"URI_TABLE_NAME", "contacts"},
                       {"PROJECTION", "_id"},
                       {"WHERE", "_id = '?'"},
                       {"WHERE_ARGS", "(TEXT)a"}}));
    EXPECT_TRUE(log_.contains("bind text fail "));
    EXPECT_TRUE(log_.contains("index =1 type =TEXT value =a value_length =1"));
    log_.clear();
    EXPECT_EQ(-1, run({{"OPERATION_KEY", "UPDATE"},
                       {"URI_TABLE_NAME", "contacts"},
                       {"COLUMN_COUNT", "1"},
                       {"COL1", "dirty"},
                       {"dirty", "2"},
                       {"WHERE", "_id = '?'"},
                       {"WHERE_ARGS", "(INTEGER)5"}}));
    EXPECT_TRUE(log_.contains("bind_int fail "));
    EXPECT_TRUE(log_.contains(", index =1 ype =INTEGER value =5 value_length =1"));
    EXPECT_TRUE(log_.hasMessage("bind fail"));
    // A text too long for the query buffer never reaches the engine.
    EXPECT_EQ(-1, run({{"OPERATION_KEY", "SELECT"},
                       {"URI_TABLE_NAME", "contacts"},
                       {"PROJECTION", "_id"},
                       {"WHERE", std::string(4100, ' ') + "1"}}));
    EXPECT_TRUE(log_.contains("query text too long"));
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
