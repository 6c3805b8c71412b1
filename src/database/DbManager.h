// DbManager: owner of the service's one SQLite database, the shadow copy of what was last
// collected and uploaded for each domain. Process-wide singleton, never destroyed.
//
// File: <shared trusted>/databases/.orvane.db (the directory is made by PathConfig::MakeAppSubDir).
//
// Query bundles: every read and write is a request Bundle handed to plmsvc_db_process():
//   request keys  "OPERATION_KEY" (CREATE INSERT SELECT UPDATE DELETE DROP), "URI_TABLE_NAME",
//                 "COLUMN_COUNT", "COL1".."COLn" (column names) and the values under the names,
//                 "PROJECTION", "WHERE" (may hold "?"), "WHERE_ARGS" ("(TEXT)abc(INTEGER)3").
//   result keys   "record0" = "SUCCESS" | "FAILURE"; SELECT rows "record1".. as encoded row
//                 bundles with "COL0".."COLk-1" (a NULL column is the string "NULL"; a column
//                 whose projection name holds "_blob" comes as bytes, in the first row only).
//
// Row-transfer bound: one SELECT can move at most about 4096 column reads (4096 minus the length
// of the projection text); beyond that it fails with "error j = %d > MAX_QUERY_SIZE". Readers of
// whole tables page their SELECTs (LIMIT/OFFSET in the WHERE text) to stay within it, e.g. at most
// 1000 rows of a three-column projection per SELECT.
//
// Threads: any thread. db_lock (plain mutex, not recursive) is held by every plmsvc_db_process
// call and, in multi-query mode, from beginMultiQuery to endMultiQuery: do not call
// plmsvc_db_process between those two on the same thread.
// Errors: return values (0 / -1) and log lines; a non-numeric "COLUMN_COUNT" makes the integer
// conversion throw std::invalid_argument / std::out_of_range out of the call (callers catch it).
#pragma once

#include <sqlite3.h>

#include <mutex>
#include <pelio/platform/Bundle.h>
#include <string>

class DbManager {
public:
    static DbManager* getInstance();

    // The single query entry: lock, open, run, close, unlock. 0 on success, -1 on failure.
    int plmsvc_db_process(pelio::platform::Bundle* request, pelio::platform::Bundle* result);

    int createTables();

    // Multi-query mode (collectors).
    void beginMultiQuery();
    int insertDb(pelio::platform::Bundle* request, pelio::platform::Bundle* result);
    int updateDb(pelio::platform::Bundle* request, pelio::platform::Bundle* result);
    int deleteDb(pelio::platform::Bundle* request, pelio::platform::Bundle* result);
    void setDbTransactionSuccessful();
    void endMultiQuery();

    int beginDbTransaction();
    int endDbTransaction();
    bool inDbTransaction() const;

    int openDb();
    int dbOpen(sqlite3** handle);
    int closeDb();
    int dbClose();
    void lock();
    void unlock();

    // The database file path.
    static std::string databasePath();

    // Tests only: forget the singleton (closing the connection) so the next getInstance() starts
    // afresh, e.g. in another throw-away home.
    static void resetInstanceForTesting();

private:
    DbManager();
    ~DbManager();
    DbManager(const DbManager&) = delete;
    DbManager& operator=(const DbManager&) = delete;

    sqlite3* mDb = nullptr;
    std::mutex db_lock;
    bool mInTransaction = false;
    bool mTransactionSuccessful = true;  // the first transaction after start commits regardless
};
