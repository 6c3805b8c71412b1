#include <gtest/gtest.h>

#include <stdexcept>
#include <thread>

#include "database/KeysetReader.h"
#include "support/StoreFixture.h"

using pelio::platform::Bundle;
using pelio::platform::BundleType;
using namespace pelio::test;

namespace {

class DbManagerTest : public StoreFixture {
  protected:
    int rowCount(const std::string& table) {
        auto rows = query("SELECT count(*) FROM " + table);
        return rows.empty() ? -1 : std::stoi(rows[0]);
    }
    void insertContact(const std::string& id, const std::string& contactId, const char* dirty) {
        Bundle r;
        ASSERT_EQ(0, run(request("INSERT", "contacts",
                                 {{"_id", id}, {"contact_id", contactId}, {"dirty", dirty}}),
                         &r));
        ASSERT_EQ("SUCCESS", strOf(r, "record0"));
    }
    // Inserts master keys through insertDb in one transaction, marked successful when mark is.
    void insertInTransaction(const std::vector<std::string>& keys, bool mark) {
        db_->beginMultiQuery();
        EXPECT_TRUE(db_->inDbTransaction());
        for (const std::string& key : keys) {
            auto req = makeRequest(request("INSERT", "master", {{"key", key}}));
            Bundle res;
            EXPECT_EQ(0, db_->insertDb(&req, &res)) << key;
        }
        if (mark)
            db_->setDbTransactionSuccessful();
        db_->endMultiQuery();
        EXPECT_FALSE(db_->inDbTransaction());
    }
    // Master keys "k<from>".."k<to - 1>", committed.
    void fillMaster(int from, int to) {
        std::vector<std::string> keys;
        for (int i = from; i < to; ++i)
            keys.push_back("k" + std::to_string(i));
        insertInTransaction(keys, true);
    }
    // Every request fails with -1, a "FAILURE" record and a log line holding its message.
    void expectFailures(const std::vector<std::pair<Request, std::string>>& cases) {
        for (const auto& [req, message] : cases) {
            log_.clear();
            Bundle r;
            EXPECT_EQ(-1, run(req, &r)) << message;
            EXPECT_TRUE(log_.contains(message)) << message;
            EXPECT_EQ("FAILURE", strOf(r, "record0")) << message;
        }
    }
    // The lock is free: another thread can take it.
    void expectLockFree() {
        std::thread other([&] {
            db_->lock();
            db_->unlock();
        });
        other.join();
    }
};

TEST_F(DbManagerTest, FirstStartCreatesTheFileWithTheFiveTables) {
    EXPECT_EQ(dbPath(), DbManager::databasePath());
    // SQLite keeps each definition as written, minus "if not exists" and the text after ")".
    const Rows expected = {
        "contacts|CREATE TABLE contacts(_id TEXT NOT NULL ,rev_id TEXT ,dirty INTEGER ,device_mode "
        "INTEGER,contact_id   LONG,confirmed_alias TEXT ,confirmed_phonetic_alias   TEXT ,version "
        "  INTEGER )",
        "audio|CREATE TABLE audio(_id INTEGER PRIMARY KEY AUTOINCREMENT,rev_id TEXT,dirty "
        "INTEGER,device_mode INTEGER,audio_id LONG ,date_added LONG ,type INTEGER,artist_name "
        "TEXT,album_name TEXT)",
        "audio_playlist|CREATE TABLE audio_playlist(playlist_id INTEGER PRIMARY KEY,rev_id "
        "TEXT,dirty "
        "INTEGER,name TEXT,playlist_songs_count INTEGER)",
        "master|CREATE TABLE master(_id INTEGER PRIMARY KEY AUTOINCREMENT,key TEXT NOT NULL,value "
        "TEXT)",
        "application|CREATE TABLE application(_id  TEXT NOT NULL,rev_id TEXT,version "
        "TEXT,device_mode "
        "INTEGER,name TEXT,custom_id TEXT,package TEXT NOT NULL,pre_installed INT,dirty "
        "INTEGER)",
    };
    EXPECT_EQ(expected, query("SELECT name, sql FROM sqlite_master WHERE type = 'table' "
                              "AND name NOT LIKE 'sqlite_%' ORDER BY rowid"));

    // CREATE through the protocol runs the same statements again, harmlessly, adding no record.
    Bundle r;
    EXPECT_EQ(0, run({{"OPERATION_KEY", "CREATE"}}, &r));
    EXPECT_EQ(0, r.count());
}

TEST_F(DbManagerTest, InsertQuotesValuesAndUpdateEmbedsThemVerbatim) {
    insertContact("c1", "41", "1");
    // UPDATE values go in bare: a number works, a text value carries its own quotes.
    Bundle r;
    EXPECT_EQ(0, run(request("UPDATE", "contacts", {{"dirty", "4"}, {"rev_id", "'1-abc'"}},
                             {{"WHERE", "_id = ?"}, {"WHERE_ARGS", "(TEXT)c1"}}),
                     &r));
    EXPECT_EQ("SUCCESS", strOf(r, "record0"));
    EXPECT_EQ((Rows{"c1|1-abc|4|41"}),
              query("SELECT _id, rev_id, dirty, contact_id FROM contacts"));

    // DELETE with an INTEGER placeholder.
    insertContact("c2", "42", "1");
    EXPECT_EQ(0, run(request("DELETE", "contacts", {},
                             {{"WHERE", "contact_id = ?"}, {"WHERE_ARGS", "(INTEGER)41"}})));
    EXPECT_EQ((Rows{"c2"}), query("SELECT _id FROM contacts"));
}

TEST_F(DbManagerTest, SelectReturnsEncodedRowsWithNullAsTextAndBlobOnlyInTheFirstRow) {
    insertContact("a", "1", "1");
    insertContact("b", "2", "3");
    insertContact("c", "3", "1");
    Bundle r;
    ASSERT_EQ(0, run(request("SELECT", "contacts", {},
                             {{"PROJECTION", "_id,rev_id,contact_id AS id_blob"},
                              {"WHERE", "dirty = ? AND _id != ? ORDER BY _id"},
                              {"WHERE_ARGS", "(INTEGER)1(TEXT)zzz"}}),
                     &r));
    ASSERT_EQ(3, r.count());  // record1, record2, record0 last
    EXPECT_EQ("SUCCESS", strOf(r, "record0"));
    EXPECT_EQ("record0", r.entries().back().key);
    auto first = rowOf(r, 1), second = rowOf(r, 2);
    ASSERT_TRUE(first && second && first->count() == 3);
    EXPECT_EQ("a|NULL|1|c|3", strOf(*first, "COL0") + "|" + strOf(*first, "COL1") + "|" +
                                  first->entries()[2].value + "|" + strOf(*second, "COL0") + "|" +
                                  strOf(*second, "COL2"));
    EXPECT_TRUE(first->entries()[2].type == BundleType::Bytes &&
                second->entries()[2].type == BundleType::String);

    Bundle none;
    ASSERT_EQ(
        0, run(request("SELECT", "contacts", {}, {{"PROJECTION", "_id"}, {"WHERE", "dirty = 9"}}),
               &none));
    EXPECT_TRUE(none.count() == 1 && strOf(none, "record0") == "SUCCESS");
}

TEST_F(DbManagerTest, RowTransferFailsWhenTheCursorReachesTheBufferEnd) {
    // Projection "key" (3 characters, 1 column): 1 + 4094 - 3 = 4092 column reads succeed.
    const Request select = request("SELECT", "master", {}, {{"PROJECTION", "key"}});
    fillMaster(0, 4092);
    Bundle ok;
    ASSERT_EQ(0, run(select, &ok));
    EXPECT_TRUE(ok.count() == 4093 && strOf(*rowOf(ok, 4092), "COL0") == "k4091");

    fillMaster(4092, 4093);
    Bundle failed;
    EXPECT_EQ(-1, run(select, &failed));
    EXPECT_TRUE(log_.hasMessage("error j = 4096 > MAX_QUERY_SIZE"));
    EXPECT_EQ("FAILURE", strOf(failed, "record0"));
    EXPECT_EQ(4093, failed.count());  // the rows moved before the failure stay
    EXPECT_TRUE(rowOf(failed, 4092).has_value());
    EXPECT_FALSE(rowOf(failed, 4093).has_value());

    // A paged reader asked for more rows per page than its projection allows reads them all.
    std::string rows = "BEGIN;";
    for (int i = 0; i < 1000; ++i)
        rows +=
            "INSERT INTO application (_id, rev_id, version, name, custom_id, package, "
            "pre_installed, dirty) VALUES ('a" +
            std::to_string(i) +
            "', 'r', '1', 'n', 'c', "
            "'p', '0', '1');";
    exec(rows + "COMMIT;");
    int read = 0;
    EXPECT_TRUE(KeysetReader::readAll(
        "application", "_id, rev_id, version, name, custom_id, package, pre_installed, dirty", "",
        1000, [&](const Bundle&) { ++read; }));
    EXPECT_EQ(1000, read);
}

TEST_F(DbManagerTest, OutcomeOfEmptyUnknownAndDropOperations) {
    expectFailures({{{{"URI_TABLE_NAME", "contacts"}}, "operation can not be empty"}});
    Bundle empty;

    Bundle foo;
    EXPECT_EQ(0, run(request("FOO", "contacts"), &foo));
    EXPECT_EQ(0, foo.count());

    insertContact("a", "1", "1");
    Bundle dropped;
    EXPECT_EQ(0, run(request("DROP", "contacts"), &dropped));
    EXPECT_EQ("SUCCESS", strOf(dropped, "record0"));
    EXPECT_EQ(0, rowCount("contacts"));  // recreated at once, empty

    EXPECT_EQ(-1, db_->plmsvc_db_process(nullptr, &empty));
}

// Every failing request returns -1 and logs what went wrong. A missing table makes the engine
// refuse the text, and the failure line quotes the SQL text the request formed.
TEST_F(DbManagerTest, FailingRequestsLogTheirSqlTextAndMessages) {
    const std::string longWhere = std::string(4100, ' ') + "1";
    const std::vector<std::pair<Request, std::string>> cases = {
        {request("INSERT", "nosuch", {{"a", "1"}, {"b", "x y"}}),
         "prepare[INSERT INTO nosuch (a,b) VALUES ('1','x y');] Fail [no such table: nosuch]"},
        {request("UPDATE", "nosuch", {{"a", "1"}, {"b", "'x'"}},
                 {{"WHERE", "_id = ?"}, {"WHERE_ARGS", "(TEXT)7"}}),
         "prepare UPDATE nosuch SET a = 1 , b = 'x' WHERE _id = ? fail no such table: nosuch"},
        {request("SELECT", "nosuch", {}, {{"PROJECTION", "a,b"}, {"WHERE", "x = 1"}}),
         "prepare[SELECT a,b FROM nosuch WHERE x = 1] fail. [no such table: nosuch]"},
        {request("DELETE", "nosuch", {}, {{"WHERE", "x = 1"}}),
         "prepare DELETE FROM nosuch WHERE x = 1 fail no such table: nosuch"},
        {request("DELETE", "nosuch"), "prepare DELETE FROM nosuch fail no such table: nosuch"},
        {request("DROP", "nosuch"), "prepare DROP TABLE nosuch fail no such table: nosuch"},
        // An unquoted text value of an UPDATE is not a literal.
        {request("UPDATE", "contacts", {{"rev_id", "abc def"}}),
         "prepare UPDATE contacts SET rev_id = abc def fail"},
        // Malformed requests.
        {request("INSERT", "master"), "Failed to get cntStr"},
        {request("INSERT", "", {}, {{"COLUMN_COUNT", "1"}}), "Failed to get tableName"},
        {request("INSERT", "master", {}, {{"COLUMN_COUNT", "2"}, {"COL1", "key"}, {"key", "k"}}),
         "Failed to get record"},
        {request("INSERT", "master", {}, {{"COLUMN_COUNT", "1"}, {"COL1", "key"}}),
         "Failed to get value"},
        {request("INSERT", "master", {}, {{"COLUMN_COUNT", "0"}}), "Failed to make records"},
        {request("UPDATE", "", {}, {{"COLUMN_COUNT", "1"}}), "tableName is empty"},
        {request("UPDATE", "master"), "cntStr is empty"},
        // application.package is NOT NULL: the step ends in a constraint error (19).
        {request("INSERT", "application", {{"_id", "x"}}), "err 19"},
        // Placeholders: an unknown argument type, a placeholder without an argument, a "?"
        // inside a literal (counted, but no parameter: the engine refuses the index).
        {request("SELECT", "contacts", {},
                 {{"PROJECTION", "_id"}, {"WHERE", "_id = ?"}, {"WHERE_ARGS", "(BLOB)a"}}),
         "err BLOB"},
        {request("DELETE", "contacts", {},
                 {{"WHERE", "_id = ? AND dirty = ?"}, {"WHERE_ARGS", "(TEXT)a"}}),
         "> bind fail "},
        {request("SELECT", "contacts", {},
                 {{"PROJECTION", "_id"}, {"WHERE", "_id = '?'"}, {"WHERE_ARGS", "(TEXT)a"}}),
         "index =1 type =TEXT value =a value_length =1"},
        {request("UPDATE", "contacts", {{"dirty", "2"}},
                 {{"WHERE", "_id = '?'"}, {"WHERE_ARGS", "(INTEGER)5"}}),
         ", index =1 ype =INTEGER value =5 value_length =1"},
        // A text too long for the query buffer never reaches the engine.
        {request("SELECT", "contacts", {}, {{"PROJECTION", "_id"}, {"WHERE", longWhere}}),
         "query text too long"},
    };
    insertContact("a", "1", "1");
    expectFailures(cases);
    EXPECT_EQ(0, rowCount("master"));
    EXPECT_EQ((Rows{"a|1"}), query("SELECT _id, dirty FROM contacts"));
}

TEST_F(DbManagerTest, NonNumericColumnCountThrowsAndReleasesTheLock) {
    EXPECT_THROW(run(request("INSERT", "master", {},
                             {{"COLUMN_COUNT", "two"}, {"COL1", "key"}, {"key", "k"}})),
                 std::invalid_argument);
    EXPECT_THROW(run(request("UPDATE", "master", {}, {{"COLUMN_COUNT", "x1"}})),
                 std::invalid_argument);
    EXPECT_THROW(run(request("UPDATE", "master", {}, {{"COLUMN_COUNT", "99999999999"}})),
                 std::out_of_range);
    expectLockFree();
    EXPECT_EQ(0, run(request("INSERT", "master", {{"key", "k"}})));
}

TEST_F(DbManagerTest, OnlyTheFirstTransactionCommitsWithoutBeingMarked) {
    insertInTransaction({"first"}, false);
    insertInTransaction({"second"}, false);
    insertInTransaction({"third"}, true);
    insertInTransaction({"fourth"}, false);
    EXPECT_EQ((Rows{"first", "third"}), query("SELECT key FROM master ORDER BY _id"));

    // Outside multi-query mode the direct calls have no connection.
    Bundle req = makeRequest({{"OPERATION_KEY", "UPDATE"}}), res;
    EXPECT_TRUE(db_->updateDb(&req, &res) == -1 && db_->insertDb(&req, &res) == -1 &&
                db_->deleteDb(&req, &res) == -1);
    EXPECT_TRUE(log_.hasMessage("deleteDb fail : DB isn't opened."));
    // Marking outside a connection does nothing: the next transaction still rolls back.
    db_->setDbTransactionSuccessful();
    insertInTransaction({"fifth"}, false);
    EXPECT_EQ(2, rowCount("master"));
}

TEST_F(DbManagerTest, UnopenableDatabaseFailsEveryOperationCleanly) {
    breakDatabaseDirectory();
    log_.clear();
    db_ = DbManager::getInstance();
    EXPECT_TRUE(log_.hasMessage("cannot open db"));

    const std::vector<std::pair<Request, std::string>> cases = {
        {request("INSERT", "master", {{"key", "k"}}), "DB Open fail"},
        {request("UPDATE", "master", {}, {{"COLUMN_COUNT", "1"}}), "DB Open fail"},
        {request("SELECT", "master", {}, {{"PROJECTION", "key"}}), "open db fail"},
        {request("DELETE", "master"), "db open err"},
        {request("DROP", "master"), "db open err"},
        {request("CREATE", ""), "create err= -1"},
    };
    expectFailures(cases);
    // A failed open in multi-query mode keeps the lock until endMultiQuery.
    db_->beginMultiQuery();
    EXPECT_FALSE(db_->inDbTransaction());
    Bundle req = makeRequest({{"OPERATION_KEY", "INSERT"}}), res;
    EXPECT_EQ(-1, db_->insertDb(&req, &res));
    db_->endMultiQuery();
    expectLockFree();
}

TEST_F(DbManagerTest, ThreadedQueriesAndTransactionsAreSerialised) {
    constexpr int kThreads = 4;
    constexpr int kEach = 25;
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t) {
        threads.emplace_back([&, t] {
            for (int i = 0; i < kEach; ++i) {
                const std::string key = "t" + std::to_string(t) + "_" + std::to_string(i);
                if (t == 0)
                    insertInTransaction({key}, true);
                else
                    EXPECT_EQ(0, run(request("INSERT", "master", {{"key", key}})));
            }
        });
    }
    for (auto& th : threads)
        th.join();
    EXPECT_EQ(kThreads * kEach, rowCount("master"));
}

}  // namespace
