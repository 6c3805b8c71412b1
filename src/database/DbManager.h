// DbManager: owner of the service's one SQLite database, the shadow copy of what was last
// collected and uploaded for each domain. Process-wide singleton, never destroyed.
//
// File: <shared trusted>/databases/.orvane.db. The constructor calls PathConfig::MakeAppSubDir()
// (harmless when the directory exists) and creates the five tables, so the first getInstance() in
// an empty home leaves a database ready for use; when the file cannot be opened it logs
// "failed to open Db" and every later call fails with its open-failure message and -1.
//
// Query bundles: every read and write is a request Bundle handed to plmsvc_db_process():
//   request keys  "OPERATION_KEY" (CREATE INSERT SELECT UPDATE DELETE DROP), "URI_TABLE_NAME",
//                 "COLUMN_COUNT", "COL1".."COLn" (column names) and the values under the names,
//                 "PROJECTION", "WHERE" (may hold "?"), "WHERE_ARGS" ("(TEXT)abc(INTEGER)3").
//   result keys   "record0" = "SUCCESS" | "FAILURE"; SELECT rows "record1".. as encoded row
//                 bundles with "COL0".."COLk-1" (a NULL column is the string "NULL"; a column
//                 whose projection name holds "_blob" comes as bytes, in the first row only).
//
// Row-transfer bound: one SELECT can move at most about 4096 column reads. The projection text sits
// in a 4096-byte buffer walked by one cursor that is never reset between rows; every column read
// moves it past one token (the first row) or one byte (later rows), and the read that brings it to
// 4096 fails the query with "error j = %d > MAX_QUERY_SIZE". Exactly: for a projection of L
// characters naming k columns, k + 4094 - L column reads succeed (a one-column projection "a":
// 4094 rows). Rows already transferred stay in the result, "record0" is "FAILURE". Readers of
// whole tables page their SELECTs (LIMIT/OFFSET in the WHERE text) to stay within it, e.g. at most
// 1000 rows of a three-column projection per SELECT.
//
// SQL text: INSERT has no bound; the text of SELECT, UPDATE and DELETE must stay below 4096 bytes,
// a longer one fails ("query text too long") without reaching the engine.
//
// Connection: opened on first use and kept for the life of the manager, in write-ahead-log mode
// with synchronous=NORMAL and a busy time-out (kBusyTimeoutMs), so other readers (pelioctl) never
// block it; closeDb() closes it only when a transaction was left open. Closing it leaves the log
// unfolded (no checkpoint, no sync to disk at the service's end).
//
// Threads: any thread. db_lock (plain mutex, not recursive) is held by every plmsvc_db_process
// call and, in multi-query mode, from beginMultiQuery to endMultiQuery: do not call
// plmsvc_db_process between those two on the same thread.
// Errors: return values (0 / -1) and log lines. One exception: an INSERT or UPDATE whose
// "COLUMN_COUNT" is not a number makes the integer conversion (std::stoi) throw
// std::invalid_argument (or std::out_of_range for a number too large) out of plmsvc_db_process,
// insertDb and updateDb. plmsvc_db_process holds db_lock through a lock guard and closes its
// connection first, so the lock is free again and the next call works; after insertDb/updateDb
// the caller still owns the multi-query lock and must call endMultiQuery. Every caller that can
// receive a request built from outside data catches it before a thread or C-callback boundary.
//
// getInstance() is serialised by a mutex of its own (two threads asking at once get one object).
#pragma once

#include <sqlite3.h>

#include <pelio/CHandles.h>
#include <pelio/platform/Bundle.h>
#include <functional>
#include <memory>
#include <mutex>
#include <string>

class DbManager {
  public:
    static DbManager* getInstance();

    // The single query entry: lock, open (once; the connection is kept), run, unlock. 0 on
    // success, -1 on failure.
    int plmsvc_db_process(pelio::platform::Bundle* request, pelio::platform::Bundle* result);

    int createTables();

    // Multi-query mode (collectors).
    void beginMultiQuery();
    int insertDb(pelio::platform::Bundle* request, pelio::platform::Bundle* result);
    int updateDb(pelio::platform::Bundle* request, pelio::platform::Bundle* result);
    int deleteDb(pelio::platform::Bundle* request, pelio::platform::Bundle* result);
    void setDbTransactionSuccessful();
    // Commits when marked successful (or for the first transaction after start), else rolls back.
    // 0 when the transaction ended as intended, -1 when the commit or rollback failed or no
    // connection was open.
    int endMultiQuery();

    // Runs work on the open connection inside one BEGIN IMMEDIATE transaction, under db_lock:
    // committed when work returns true, rolled back otherwise. True when work succeeded and the
    // commit did. For writers that bind their values (answers from the server).
    bool runInTransaction(const std::function<bool(sqlite3*)>& work);

    // How long a statement waits for another connection's lock before it fails.
    static constexpr int kBusyTimeoutMs = 5000;

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

    friend struct std::default_delete<DbManager>;  // the holder below ends it
    static std::unique_ptr<DbManager>& holder();
    static std::mutex sInstanceMutex;

    pelio::SqliteDb mDb;  // null while closed
    std::mutex db_lock;
    bool mInTransaction = false;
    bool mInMultiQuery = false;  // between beginMultiQuery and endMultiQuery (under db_lock)
    bool mTransactionSuccessful = true;  // the first transaction after start commits regardless
};
